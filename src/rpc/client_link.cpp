// A client's calls. See client_link_keeper.cpp for its connections.
#include "rpc/client_link.h"

#include <utility>

namespace mivo {
namespace rpc {

// Goes again, or tells how the call has ended.
class ClientLink::Attempt final : public CallCompletion {
 public:
  Attempt(ClientLink& link, std::unique_ptr<PendingCall> call) : link_(link), call_(std::move(call)) {}
  PendingCall& call() { return *call_; }

  void OnCompleted(CallOutcome outcome, MIVOParams& reply) override {
    call_->so_far = Later(call_->so_far, outcome);
    if (call_->may_wait && link_.MayGoAgain(outcome, call_->terms, call_->losses) && Clock::now() < call_->end) {
      return link_.Begin(std::move(call_));
    }
    const InsideClient inside(&link_);
    call_->completion->OnCompleted(call_->so_far, reply);
  }

 private:
  ClientLink& link_;
  std::unique_ptr<PendingCall> call_;
};

bool ClientLink::Offer(OfferedHandler* handler) {
  const std::shared_ptr<OfferedHandler> owned(handler);
  MutexLock lock(mutex_);
  const auto [place, is_new] = handlers_.emplace(owned->name(), std::make_unique<AwaitedHandler>(this, owned));
  if (!is_new) return false;
  offered_.Add(owned);
  client_->method(place->first.c_str(), place->second->method());
  return true;
}

CallOutcome ClientLink::Call(const char* name, MIVOParams& request, int timeout_ms, bool is_idempotent,
                             MIVOParams& reply) {
  if (!reconnects_) return mivo::Call(*client_, name, &request, timeout_ms, reply);
  const Visitors::Visit visit(visitors_);
  const Terms terms{timeout_ms, is_idempotent};
  const Clock::time_point end = EndOf(timeout_ms);
  // Neither the thread that connects nor one that it would wait for.
  const bool may_wait = waits_while_away_ && is_keeper_of_ != this && !InsideClient::By(this);
  CallOutcome so_far = CallOutcome::kNotSent;
  for (;;) {
    reply.Clear();
    const unsigned int losses = losses_;
    if (!is_ready() && !AwaitReady(may_wait ? end : Clock::time_point())) return so_far;
    const CallOutcome outcome = mivo::Call(*client_, name, &request, LeftOf(timeout_ms, end), reply);
    so_far = Later(so_far, outcome);
    if (!may_wait || !MayGoAgain(outcome, terms, losses) || Clock::now() >= end) return so_far;
  }
}

void ClientLink::CallAsync(const char* name, MIVOParams& request, int timeout_ms, bool is_idempotent,
                           CallCompletion* completion) {
  if (!reconnects_) return mivo::CallAsync(*client_, name, &request, timeout_ms, completion);
  std::unique_ptr<CallCompletion> owned(completion);
  const Visitors::Visit visit(visitors_);
  auto call = std::make_unique<PendingCall>(name, request, Terms{timeout_ms, is_idempotent});
  call->may_wait = MayBeLeftWaiting();
  call->completion = std::move(owned);
  Begin(std::move(call));
}

void ClientLink::Post(const char* name, MIVOParams& request) {
  const Visitors::Visit visit(visitors_);
  if (MayBeLeftWaiting() && !is_ready()) {
    auto post = std::make_unique<PendingCall>(name, request, Terms{post_timeout_ms_, false});
    post->may_wait = true;
    return Begin(std::move(post));
  }
  client_->PostMsgFast(name, &request, 1);
}

// Whether it is the connection that was missing, and not sent is what it was, or may be twice.
bool ClientLink::MayGoAgain(CallOutcome outcome, const Terms& terms, unsigned int losses_before) const {
  const bool is_harmless =
      outcome == CallOutcome::kNotSent || (outcome == CallOutcome::kDisconnected && terms.is_idempotent);
  const bool was_lost = losses_ != losses_before || !is_ready();
  return is_harmless && was_lost && !is_stopping_;
}

// What is done as soon as a connection stands is done for that one alone.
bool ClientLink::MayBeLeftWaiting() const {
  return reconnects_ && waits_while_away_ && is_keeper_of_ != this;
}

void ClientLink::Begin(std::unique_ptr<PendingCall> call) {
  if (is_ready() || !call->may_wait || !waiting_.Add(call)) Issue(std::move(call));
}

// Now, whatever comes of it.
void ClientLink::Issue(std::unique_ptr<PendingCall> call) {
  if (call->completion == nullptr) {
    client_->PostMsgFast(call->name.c_str(), &call->request, 1);
    return;
  }
  const int left_ms = LeftOf(call->terms.timeout_ms, call->end);
  call->losses = losses_;
  auto attempt = std::make_unique<Attempt>(*this, std::move(call));
  PendingCall& begun = attempt->call();
  mivo::CallAsync(*client_, begun.name.c_str(), &begun.request, left_ms, attempt.release());
}

Link* OpenLink(const LinkOptions& options, TextSink& error) {
  auto link = std::make_unique<ClientLink>(options);
  return link->Open(error) ? link.release() : nullptr;
}

}  // namespace rpc
}  // namespace mivo
