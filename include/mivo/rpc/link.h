// What stands behind a client: its connection, and how it comes back.
#ifndef MIVO_RPC_LINK_H_
#define MIVO_RPC_LINK_H_

#include <mivo/client.h>
#include <mivo/connections.h>
#include <mivo/params.h>
#include <mivo/rpc/address.h>
#include <mivo/rpc/awaited.h>
#include <mivo/rpc/calls.h>
#include <mivo/rpc/client_options.h>
#include <mivo/rpc/handler.h>
#include <mivo/rpc/offered_methods.h>
#include <mivo/rpc/process.h>
#include <mivo/rpc/waiting_calls.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace mivo {
namespace rpc {

// One attempt to connect after the other, on a thread of its own, for a client that reconnects; for others it is the
// client alone.
class Link {
 public:
  const ProcessMark process;

  Link(const std::string& address, ClientOptions options)
      : address_(address), at_(Address::Parse(address)), options_(WithPauses(options, at_.is_local())) {
    BeQuiet(*client_);
    client_->SetCustomReleaseEvent();
    closed_notice_ = std::make_unique<ClosedNotice>(*this);
    if (!options_.reconnect) {
      const int status = Connect();
      if (status < 0) throw NotConnected(WhyNot(status));
      is_ready_ = true;
    } else {
      keeper_ = std::thread([this] { Keep(); });
      visitors_.Enter();
    }
  }
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

  ~Link() {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      is_stopping_ = true;
      changed_.notify_all();
    }
    // Whoever is still inside connects, or is in a call.
    while (!visitors_.HaveLeftSoon())
      client_->close();
    if (keeper_.joinable()) keeper_.join();
    waiting_.Stop();
    host_->gate.Close();
    // Wakes those who wait, and tells every completion, some of which look at the client.
    DestroyAtOnce(client_.get());
    static_cast<void>(client_.release());
  }

  const std::shared_ptr<Host>& host() const { return host_; }
  const ClientOptions& options() const { return options_; }
  bool is_ready() const { return is_ready_ && !is_stopping_ && client_->isok(); }

  // Throws std::logic_error for a name that has one.
  void Offer(std::shared_ptr<Handler> handler) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto [place, is_new] = handlers_.emplace(handler->name(), std::make_unique<AwaitedHandler>(this, handler));
    if (!is_new) throw std::logic_error(handler->name() + ": there is a handler of that name");
    offered_.Add(handler);
    client_->method(place->first.c_str(), place->second->method());
  }

  void OnReady(std::function<void()> function) {
    if (!options_.reconnect) return function();
    const std::lock_guard<std::mutex> lock(mutex_);
    on_ready_.push_back(std::make_shared<std::function<void()>>(std::move(function)));
    changed_.notify_all();
  }

  void RetryNow() {
    const std::lock_guard<std::mutex> lock(mutex_);
    is_impatient_ = true;
    changed_.notify_all();
  }

  std::string last_error() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return last_error_;
  }

  bool WaitUntilReady(Deadline deadline) {
    // Nobody else would make it ready.
    if (!options_.reconnect || is_keeper_of_ == this) return is_ready();
    const Visitors::Visit visit(visitors_);
    return AwaitReady(deadline.from_now());
  }

  CallOutcome Call(const char* name, MIVOParams& request, const CallTerms& terms, MIVOParams& reply) {
    if (!options_.reconnect) return mivo::Call(*client_, name, &request, terms.deadline.milliseconds(), reply);
    const Visitors::Visit visit(visitors_);
    const Clock::time_point end = terms.deadline.from_now();
    // Neither the thread that connects nor one that it would wait for.
    const bool may_wait = options_.while_away == WhileAway::kWait && is_keeper_of_ != this && !InsideClient::By(this);
    CallOutcome so_far = CallOutcome::kNotSent;
    for (;;) {
      reply.Clear();
      const unsigned int losses = losses_;
      if (!is_ready() && !AwaitReady(may_wait ? end : Clock::time_point())) return so_far;
      const CallOutcome outcome = mivo::Call(*client_, name, &request, LeftOf(terms, end), reply);
      so_far = Later(so_far, outcome);
      if (!may_wait || !MayGoAgain(outcome, terms, losses) || Clock::now() >= end) return so_far;
    }
  }

  void CallAsync(const char* name, MIVOParams& request, const CallTerms& terms,
                 std::unique_ptr<CallCompletion> completion) {
    if (!options_.reconnect) {
      mivo::CallAsync(*client_, name, &request, terms.deadline.milliseconds(), completion.release());
      return;
    }
    const Visitors::Visit visit(visitors_);
    auto call = std::make_unique<PendingCall>(name, request, terms);
    call->may_wait = MayBeLeftWaiting();
    call->completion = std::move(completion);
    Begin(std::move(call));
  }

  void Post(const char* name, MIVOParams& request) {
    const Visitors::Visit visit(visitors_);
    if (MayBeLeftWaiting() && !is_ready()) {
      auto post = std::make_unique<PendingCall>(name, request, CallTerms{options_.deadline});
      post->may_wait = true;
      return Begin(std::move(post));
    }
    client_->PostMsgFast(name, &request, 1);
  }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds kLastingConnection{1};

  // Goes again, or tells how the call has ended.
  class Attempt final : public CallCompletion {
   public:
    Attempt(Link& link, std::unique_ptr<PendingCall> call) : link_(link), call_(std::move(call)) {}
    MIVOParams& request() { return call_->request; }
    const PendingCall& call() const { return *call_; }
    void OnCompleted(CallOutcome outcome, MIVOParams& reply) override {
      call_->so_far = Later(call_->so_far, outcome);
      if (call_->may_wait && link_.MayGoAgain(outcome, call_->terms, call_->losses) && Clock::now() < call_->end) {
        return link_.Begin(std::move(call_));
      }
      const InsideClient inside(&link_);
      call_->completion->OnCompleted(call_->so_far, reply);
    }

   private:
    Link& link_;
    std::unique_ptr<PendingCall> call_;
  };

  class ClosedNotice final : public IServerMethod {
   public:
    explicit ClosedNotice(Link& link) : link_(link) {}
    void OnCall(int, MIVOParams*, MIVOParams*) override {
      const std::lock_guard<std::mutex> lock(link_.mutex_);
      link_.is_lost_ = true;
      // First: who finds it not ready waits.
      link_.waiting_.Open();
      link_.is_ready_ = false;
      ++link_.losses_;
      link_.changed_.notify_all();
    }

   private:
    Link& link_;
  };

  struct Destroy {
    void operator()(IClient* client) const { DestroyAtOnce(client); }
  };

  // Whether it is the connection that was missing, and not sent is what it was, or may be twice.
  bool MayGoAgain(CallOutcome outcome, const CallTerms& terms, unsigned int losses_before) const {
    const bool is_harmless =
        outcome == CallOutcome::kNotSent || (outcome == CallOutcome::kDisconnected && terms.is_idempotent);
    const bool was_lost = losses_ != losses_before || !is_ready();
    return is_harmless && was_lost && !is_stopping_;
  }

  // What is done as soon as a connection stands is done for that one alone.
  bool MayBeLeftWaiting() const {
    return options_.reconnect && options_.while_away == WhileAway::kWait && is_keeper_of_ != this;
  }

  std::string WhyNot(int status) const {
    const char* const why = status == -EPROTO      ? "the server there is of another version"
                            : status == -ETIMEDOUT ? "no answer in time"
                            : status == -ENOENT    ? "nobody listens there"
                                                   : std::strerror(-status);
    return address_ + ": cannot connect: " + why;
  }

  int Connect() {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      is_lost_ = false;
      // An attempt that failed may have forgotten them.
      client_->method("s_c_closed", closed_notice_.get());
      client_->method(kUnknownMethod, &unknown_);
      client_->method(kMethodsMethod, &offered_);
      for (const auto& [name, handler] : handlers_)
        client_->method(name.c_str(), handler->method());
    }
    return mivo::Connect(*client_, at_.kind, at_.where.c_str(), at_.port.c_str(),
                         options_.connect_deadline.milliseconds());
  }

  // The thread that keeps the connection.
  void Keep() {
    is_keeper_of_ = this;
    std::minstd_rand chance(std::random_device{}());
    std::chrono::milliseconds pause = options_.shortest_pause;
    std::unique_lock<std::mutex> lock(mutex_);
    while (!is_stopping_) {
      lock.unlock();
      const int status = Connect();
      if (status == 0) SendWaiting();
      lock.lock();
      if (status == 0 && !is_lost_ && !is_stopping_) {
        is_ready_ = true;
        is_impatient_ = false;
        last_error_.clear();
        changed_.notify_all();
        const Clock::time_point begin = Clock::now();
        const bool was_fine = Attend(lock);
        // A server that lets everybody in and throws them out again is not asked without a pause.
        if (was_fine && Clock::now() - begin > kLastingConnection) {
          pause = options_.shortest_pause;
          continue;
        }
      } else if (status < 0) {
        last_error_ = WhyNot(status);
      }
      waiting_.Open();
      const auto part = std::uniform_real_distribution<double>(0.5, 1.0)(chance);
      const auto until = Clock::now() + std::chrono::duration_cast<Clock::duration>(pause * part);
      changed_.wait_until(lock, until, [this] { return is_stopping_ || is_impatient_; });
      pause =
          std::exchange(is_impatient_, false) ? options_.shortest_pause : std::min(2 * pause, options_.longest_pause);
    }
    lock.unlock();
    visitors_.Leave();
  }

  // Before anybody else can send: what one thread has begun leaves in its order.
  void SendWaiting() {
    while (!is_lost_ && !is_stopping_) {
      WaitingCalls::Calls waiting = waiting_.TakeOrShut();
      if (waiting.empty()) return;
      for (auto& call : waiting)
        Issue(std::move(call));
    }
  }

  // From here to the end of the connection. False: what was to be done first has failed.
  bool Attend(std::unique_lock<std::mutex>& lock) {
    std::size_t ready_called = 0;
    while (!is_stopping_ && !is_lost_) {
      if (ready_called == on_ready_.size()) {
        changed_.wait(lock);
        continue;
      }
      const std::shared_ptr<std::function<void()>> function = on_ready_[ready_called++];
      lock.unlock();
      std::optional<std::string> error;
      try {
        (*function)();
      } catch (const std::exception& thrown) {
        error = thrown.what();
      } catch (...) {
        error = "unknown exception";
      }
      lock.lock();
      // That a connection ends meanwhile is no failure of its own.
      if (!error || is_lost_) continue;
      last_error_ = *error;
      waiting_.Open();
      is_ready_ = false;
      ++losses_;
      lock.unlock();
      client_->close();
      lock.lock();
      return false;
    }
    return true;
  }

  bool AwaitReady(Clock::time_point end) {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!is_stopping_ && !is_ready()) {
      if (changed_.wait_until(lock, end) == std::cv_status::timeout && Clock::now() >= end) return is_ready();
    }
    return !is_stopping_;
  }

  void Begin(std::unique_ptr<PendingCall> call) {
    if (is_ready() || !call->may_wait || !waiting_.Add(call)) Issue(std::move(call));
  }

  // Now, whatever comes of it.
  void Issue(std::unique_ptr<PendingCall> call) {
    if (call->completion == nullptr) {
      client_->PostMsgFast(call->name.c_str(), &call->request, 1);
      return;
    }
    const int left_ms = LeftOf(call->terms, call->end);
    call->losses = losses_;
    auto attempt = std::make_unique<Attempt>(*this, std::move(call));
    Attempt& begun = *attempt.release();
    mivo::CallAsync(*client_, begun.call().name.c_str(), &begun.request(), left_ms, &begun);
  }

  const std::string address_;
  const Address at_;
  const ClientOptions options_;
  const std::shared_ptr<Host> host_ = std::make_shared<Host>();

  inline static thread_local const Link* is_keeper_of_ = nullptr;

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  bool is_impatient_ = false;
  // Written under the lock.
  std::atomic<bool> is_stopping_{false};
  std::atomic<bool> is_lost_{false};
  std::atomic<bool> is_ready_{false};
  std::atomic<unsigned int> losses_{0};  // connections that have ended
  Visitors visitors_;                    // callers, and the thread that connects
  std::string last_error_;
  std::vector<std::shared_ptr<std::function<void()>>> on_ready_;
  WaitingCalls waiting_{this};

  // Outlive the client that calls them.
  std::unique_ptr<ClosedNotice> closed_notice_;
  UnknownMethod unknown_;
  OfferedMethods offered_;
  std::map<std::string, std::unique_ptr<AwaitedHandler>> handlers_;
  std::unique_ptr<IClient, Destroy> client_{CreateClient()};
  std::thread keeper_;
};

struct ServerTarget {
  CallOutcome Call(const char* name, MIVOParams& request, const CallTerms& terms, MIVOParams& reply) const {
    return link->Call(name, request, terms, reply);
  }
  void CallAsync(const char* name, MIVOParams& request, const CallTerms& terms,
                 std::unique_ptr<CallCompletion> completion) const {
    link->CallAsync(name, request, terms, std::move(completion));
  }
  void Post(const char* name, MIVOParams& request) const { link->Post(name, request); }
  const ObserverSlot& observer() const { return link->host()->observer; }

  Link* link;
};

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_LINK_H_
