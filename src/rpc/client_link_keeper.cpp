// A client's connections: from the first to the end.
#include <mivo/rpc/wire_names.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <random>
#include <system_error>
#include <utility>

#include "base/handler_scope.h"
#include "rpc/client_link.h"

namespace mivo {
namespace rpc {

namespace {

constexpr std::chrono::seconds kLastingConnection{1};

class TextTaker final : public TextSink {
 public:
  std::string text;
  void Take(const char* bytes, std::size_t length) override { text.assign(bytes, length); }
};

}  // namespace

class ClientLink::ClosedNotice final : public IServerMethod {
 public:
  explicit ClosedNotice(ClientLink& link) : link_(link) {}
  void OnCall(int, MIVOParams*, MIVOParams*) override { link_.Lost(); }

 private:
  ClientLink& link_;
};

void ClientLink::Destroyer::operator()(IClient* client) const {
  // Wakes those who wait, and tells every completion, some of which look at the client.
  DestroyAtOnce(client);
}

ClientLink::ClientLink(const LinkOptions& options)
    : address_(options.address),
      kind_(options.kind),
      where_(options.where),
      port_(options.port),
      connect_timeout_ms_(options.connect_timeout_ms),
      post_timeout_ms_(options.post_timeout_ms),
      reconnects_(options.reconnects),
      waits_while_away_(options.waits_while_away),
      shortest_pause_(options.shortest_pause_ms),
      longest_pause_(options.longest_pause_ms),
      closed_notice_(std::make_unique<ClosedNotice>(*this)),
      client_(CreateClient()) {
  BeQuiet(*client_);
  client_->SetCustomReleaseEvent();
}

ClientLink::~ClientLink() {
  // Before the client goes: what it tells looks at it.
  DestroyAtOnce(client_.get());
  static_cast<void>(client_.release());
}

bool ClientLink::Open(TextSink& error) {
  if (!reconnects_) {
    const int status = Connect();
    is_ready_ = status == 0;
    if (status == 0) return true;
    const std::string why = WhyNot(status);
    error.Take(why.data(), why.size());
    return false;
  }
  visitors_.Enter();
  try {
    keeper_ = std::thread([this] { Keep(); });
  } catch (const std::system_error& thrown) {
    visitors_.Leave();
    const std::string why = WhyNot(-thrown.code().value());
    error.Take(why.data(), why.size());
    return false;
  }
  return true;
}

bool ClientLink::End() {
  {
    MutexLock lock(mutex_);
    is_stopping_ = true;
    changed_.NotifyAll();
  }
  if (IsInsideItself()) {
    client_->close();
    return false;
  }
  // Whoever is still inside connects, or is in a call.
  while (!visitors_.HaveLeftSoon())
    client_->close();
  if (keeper_.joinable()) keeper_.join();
  waiting_.Stop();
  return true;
}

bool ClientLink::IsInsideItself() const {
  return is_keeper_of_ == this || InsideClient::By(this) ||
         HandlerScope::Inside(dynamic_cast<const void*>(client_.get()));
}

void ClientLink::OnReady(ReadyAction* action) {
  std::shared_ptr<ReadyAction> owned(action);
  MutexLock lock(mutex_);
  on_ready_.push_back(std::move(owned));
  changed_.NotifyAll();
}

void ClientLink::RetryNow() {
  MutexLock lock(mutex_);
  is_impatient_ = true;
  changed_.NotifyAll();
}

void ClientLink::LastError(TextSink& text) const {
  std::string error;
  {
    MutexLock lock(mutex_);
    error = last_error_;
  }
  text.Take(error.data(), error.size());
}

bool ClientLink::WaitUntilReady(int timeout_ms) {
  // Nobody else would make it ready.
  if (!reconnects_ || is_keeper_of_ == this) return is_ready();
  const Visitors::Visit visit(visitors_);
  return AwaitReady(EndOf(timeout_ms));
}

bool ClientLink::AwaitReady(Clock::time_point end) {
  MutexLock lock(mutex_);
  while (!is_stopping_ && !is_ready()) {
    if (!changed_.WaitUntil(mutex_, end) && Clock::now() >= end) return is_ready();
  }
  return !is_stopping_;
}

std::string ClientLink::WhyNot(int status) const {
  const char* const why = status == -EPROTO      ? "the server there is of another version"
                          : status == -ETIMEDOUT ? "no answer in time"
                          : status == -ENOENT    ? "nobody listens there"
                                                 : std::strerror(-status);
  return address_ + ": cannot connect: " + why;
}

int ClientLink::Connect() {
  {
    MutexLock lock(mutex_);
    is_lost_ = false;
    // An attempt that failed may have forgotten them.
    client_->method("s_c_closed", closed_notice_.get());
    client_->method(kUnknownMethod, &unknown_);
    client_->method(kMethodsMethod, &offered_);
    for (const auto& [name, handler] : handlers_)
      client_->method(name.c_str(), handler->method());
  }
  return mivo::Connect(*client_, kind_, where_.c_str(), port_.c_str(), connect_timeout_ms_);
}

void ClientLink::Lost() {
  MutexLock lock(mutex_);
  is_lost_ = true;
  // First: who finds it not ready waits.
  waiting_.Open();
  is_ready_ = false;
  ++losses_;
  changed_.NotifyAll();
}

// The thread that keeps the connection.
void ClientLink::Keep() {
  is_keeper_of_ = this;
  std::minstd_rand chance(std::random_device{}());
  std::chrono::milliseconds pause = shortest_pause_;
  mutex_.lock();
  while (!is_stopping_) {
    mutex_.unlock();
    const int status = Connect();
    if (status == 0) SendWaiting();
    mutex_.lock();
    if (status == 0 && !is_lost_ && !is_stopping_) {
      is_ready_ = true;
      is_impatient_ = false;
      last_error_.clear();
      changed_.NotifyAll();
      const Clock::time_point begin = Clock::now();
      const bool was_fine = Attend();
      // A server that lets everybody in and throws them out again is not asked without a pause.
      if (was_fine && Clock::now() - begin > kLastingConnection) {
        pause = shortest_pause_;
        continue;
      }
    } else if (status < 0) {
      last_error_ = WhyNot(status);
    }
    waiting_.Open();
    const auto part = std::uniform_real_distribution<double>(0.5, 1.0)(chance);
    const auto until = Clock::now() + std::chrono::duration_cast<Clock::duration>(pause * part);
    while (!is_stopping_ && !is_impatient_) {
      if (!changed_.WaitUntil(mutex_, until) && Clock::now() >= until) break;
    }
    pause = std::exchange(is_impatient_, false) ? shortest_pause_ : std::min(2 * pause, longest_pause_);
  }
  mutex_.unlock();
  visitors_.Leave();
}

// Before anybody else can send: what one thread has begun leaves in its order.
void ClientLink::SendWaiting() {
  while (!is_lost_ && !is_stopping_) {
    WaitingCalls::Calls waiting = waiting_.TakeOrShut();
    if (waiting.empty()) return;
    for (auto& call : waiting)
      Issue(std::move(call));
  }
}

// From here to the end of the connection. False: what was to be done first has failed.
bool ClientLink::Attend() {
  std::size_t ready_called = 0;
  while (!is_stopping_ && !is_lost_) {
    if (ready_called == on_ready_.size()) {
      changed_.Wait(mutex_);
      continue;
    }
    const std::shared_ptr<ReadyAction> action = on_ready_[ready_called++];
    mutex_.unlock();
    TextTaker error;
    const bool is_done = action->Run(error);
    mutex_.lock();
    // That a connection ends meanwhile is no failure of its own.
    if (is_done || is_lost_) continue;
    GiveUp(error.text);
    return false;
  }
  return true;
}

void ClientLink::GiveUp(const std::string& error) {
  last_error_ = error;
  waiting_.Open();
  is_ready_ = false;
  ++losses_;
  mutex_.unlock();
  client_->close();
  mutex_.lock();
}

}  // namespace rpc
}  // namespace mivo
