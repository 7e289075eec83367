#include "rpc/waiting_calls.h"

#include <algorithm>
#include <utility>

#include "rpc/inside_client.h"

namespace mivo {
namespace rpc {

bool WaitingCalls::Add(std::unique_ptr<PendingCall>& call) {
  MutexLock lock(mutex_);
  if (!is_open_ || is_stopping_ || Clock::now() >= call->end) return false;
  if (!clock_.joinable()) clock_ = std::thread([this] { Watch(); });
  if (call->end < next_end_) {
    next_end_ = call->end;
    changed_.NotifyAll();
  }
  calls_.push_back(std::move(call));
  return true;
}

WaitingCalls::Calls WaitingCalls::TakeOrShut() {
  MutexLock lock(mutex_);
  is_open_ = !calls_.empty();
  return std::exchange(calls_, Calls());
}

void WaitingCalls::Open() {
  MutexLock lock(mutex_);
  is_open_ = true;
}

void WaitingCalls::Stop() {
  {
    MutexLock lock(mutex_);
    is_stopping_ = true;
    changed_.NotifyAll();
  }
  if (clock_.joinable()) clock_.join();
  Refuse(Clock::time_point::max());
}

void WaitingCalls::Watch() {
  mutex_.lock();
  while (!is_stopping_) {
    if (next_end_ == Clock::time_point::max()) {
      changed_.Wait(mutex_);
    } else if (!changed_.WaitUntil(mutex_, next_end_)) {
      mutex_.unlock();
      Refuse(Clock::now());
      mutex_.lock();
    }
  }
  mutex_.unlock();
}

void WaitingCalls::Refuse(Clock::time_point now) {
  Calls over;
  {
    MutexLock lock(mutex_);
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
      // As on the library's other threads, it goes no further.
    }
  }
}

}  // namespace rpc
}  // namespace mivo
