// Calls that wait for a connection, while no thread waits for them.
#ifndef MIVO_RPC_WAITING_CALLS_H_
#define MIVO_RPC_WAITING_CALLS_H_

#include <mivo/calls.h>
#include <mivo/params.h>
#include <mivo/rpc/awaited.h>
#include <mivo/rpc/calls.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

namespace mivo {
namespace rpc {

// How a call has ended that was attempted again: what has been sent once stays sent.
inline CallOutcome Later(CallOutcome so_far, CallOutcome outcome) {
  return outcome == CallOutcome::kNotSent ? so_far : outcome;
}

// What is left of a deadline, as <mivo/calls.h> has it.
inline int LeftOf(const CallTerms& terms, std::chrono::steady_clock::time_point end) {
  if (terms.deadline.milliseconds() < 1) return 0;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
  return static_cast<int>(std::max<std::int64_t>(1, left));
}

// A call that no thread waits for, or a post.
struct PendingCall {
  using Clock = std::chrono::steady_clock;

  PendingCall(const char* method, MIVOParams& arguments, const CallTerms& its_terms)
      : name(method), terms(its_terms), end(its_terms.deadline.from_now()) {
    request.GetParamas()->swap(*arguments.GetParamas());
  }

  const std::string name;
  MIVOParams request;
  const CallTerms terms;
  const Clock::time_point end;
  bool may_wait = false;
  unsigned int losses = 0;                     // when it was sent
  CallOutcome so_far = CallOutcome::kNotSent;  // of all attempts
  std::unique_ptr<CallCompletion> completion;  // null: a post
};

// In their order, each until its time is over: then it is told so, on a thread that there is as soon as somebody waits.
class WaitingCalls {
 public:
  using Calls = std::list<std::unique_ptr<PendingCall>>;

  explicit WaitingCalls(const void* client) : client_(client) {}
  WaitingCalls(const WaitingCalls&) = delete;
  WaitingCalls& operator=(const WaitingCalls&) = delete;
  ~WaitingCalls() { Stop(); }

  // False, and the call is as it was, if there is nothing to wait for.
  bool Add(std::unique_ptr<PendingCall>& call) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!is_open_ || is_stopping_ || Clock::now() >= call->end) return false;
    if (!clock_.joinable()) clock_ = std::thread([this] { Watch(); });
    if (call->end < next_end_) {
      next_end_ = call->end;
      changed_.notify_all();
    }
    calls_.push_back(std::move(call));
    return true;
  }

  // Those that wait. If there are none, nobody waits from now on.
  Calls TakeOrShut() {
    const std::lock_guard<std::mutex> lock(mutex_);
    is_open_ = !calls_.empty();
    return std::exchange(calls_, Calls());
  }
  void Open() {
    const std::lock_guard<std::mutex> lock(mutex_);
    is_open_ = true;
  }

  // Nobody waits any more, and those who do are told. Waits for completions that run.
  void Stop() {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      is_stopping_ = true;
      changed_.notify_all();
    }
    if (clock_.joinable()) clock_.join();
    Refuse(Clock::time_point::max());
  }

 private:
  using Clock = PendingCall::Clock;

  void Watch() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!is_stopping_) {
      if (next_end_ == Clock::time_point::max()) {
        changed_.wait(lock);
      } else if (changed_.wait_until(lock, next_end_) == std::cv_status::timeout) {
        lock.unlock();
        Refuse(Clock::now());
        lock.lock();
      }
    }
  }

  void Refuse(Clock::time_point now) {
    Calls over;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      next_end_ = Clock::time_point::max();
      for (auto call = calls_.begin(); call != calls_.end();) {
        const auto current = call++;
        if ((*current)->end <= now) {
          over.splice(over.end(), calls_, current);
        } else {
          next_end_ = std::min(next_end_, (*current)->end);
        }
      }
    }
    const InsideClient inside(client_);
    for (const auto& call : over) {
      if (call->completion == nullptr) continue;
      MIVOParams nothing;
      try {
        call->completion->OnCompleted(call->so_far, nothing);
      } catch (...) {
        // As on the library's threads, it goes no further.
      }
    }
  }

  const void* const client_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool is_open_ = true;
  bool is_stopping_ = false;
  Calls calls_;
  Clock::time_point next_end_ = Clock::time_point::max();  // or earlier
  std::thread clock_;
};

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_WAITING_CALLS_H_
