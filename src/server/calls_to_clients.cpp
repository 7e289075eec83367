#include "server/calls_to_clients.h"

#include <utility>

#include "base/clock.h"
#include "base/identity.h"
#include "base/pointer_text.h"
#include "calls/async_call.h"
#include "calls/outgoing_call.h"

namespace mivo {

namespace {

constexpr std::int64_t kFirstSweepMs = 500;
constexpr std::int64_t kNsPerMs = 1'000'000;

}  // namespace

CallsToClients::CallsToClients(EventLoop& loop, ClientTable& clients, ReplyTable& replies,
                               const std::atomic<int>& timeout_step_ms)
    : loop_(loop), clients_(clients), replies_(replies), timeout_step_ms_(timeout_step_ms) {}

std::optional<std::string> CallsToClients::Call(int client_id, std::string_view name, const MIVOParams* params, int key,
                                                int timeout_ms) {
  NeedTimer();
  const std::shared_ptr<Connection> client = Find(client_id);
  if (client == nullptr) return std::nullopt;
  OutgoingCall call(client_id, key, timeout_ms);
  Frame request(EncodeRequest(name, key, params, call.token()));
  if (loop_.InThread()) {
    client->Send(std::move(request));
    return std::nullopt;
  }
  return call.Await(waiters_, client.get(), [&] { return client->Send(std::move(request)); });
}

CallOutcome CallsToClients::CallApart(int client_id, std::string_view name, const MIVOParams* params, int timeout_ms,
                                      std::string* reply) {
  NeedTimer();
  const std::shared_ptr<Connection> client = Find(client_id);
  if (client == nullptr || loop_.InThread()) return CallOutcome::kNotSent;
  OutgoingCall call(client_id, kKeyApart, timeout_ms, Waiter::Of::kLibrary);
  Frame request(EncodeRequest(name, kKeyApart, params, call.token()));
  std::optional<std::string> answer =
      call.Await(waiters_, client.get(), [&] { return client->Send(std::move(request)); });
  if (!answer) return OutcomeWithout(call.was_sent(), *client);
  *reply = std::move(*answer);
  return CallOutcome::kAnswered;
}

void CallsToClients::CallAsync(int client_id, std::string_view name, const MIVOParams* params,
                               std::unique_ptr<AsyncCall> call) {
  NeedTimer();
  const std::shared_ptr<Connection> client = Find(client_id);
  if (client == nullptr) return AsyncCall::Refuse(std::move(call));
  Frame request(EncodeRequest(name, kKeyApart, params, call->token()));
  AsyncCall::Begin(std::move(call), waiters_, client, std::move(request));
}

void CallsToClients::Post(int client_id, std::string_view name, const MIVOParams* params, int key) {
  NeedTimer();
  const std::shared_ptr<Connection> client = Find(client_id);
  if (client != nullptr) client->Send(Frame(EncodeRequest(name, key, params, 0)));
}

bool CallsToClients::Begin(Connection& client, Waiter& waiter, Frame request) {
  NeedTimer();
  waiters_.List(waiter);
  try {
    return client.Send(std::move(request)) || !waiters_.Unlist(waiter);
  } catch (...) {
    if (waiters_.Unlist(waiter)) throw;
    return true;
  }
}

std::shared_ptr<Connection> CallsToClients::Find(int client_id) {
  // A notice that announces a client cannot reach it yet; whoever has its id from there can.
  return loop_.InThread() && clients_.IsArriving(client_id) ? nullptr : clients_.Find(client_id);
}

void CallsToClients::NeedTimer() {
  if (timer_needed_.load(std::memory_order_relaxed) || timer_needed_.exchange(true)) return;
  waiters_.AnnounceSweep(NowNs() + kFirstSweepMs * kNsPerMs, timeout_step_ms_ * kNsPerMs);
  if (loop_.InThread()) {
    StartTimer();
  } else {
    loop_.Post([this] { StartTimer(); });
  }
}

void CallsToClients::StartTimer() {
  if (is_closed_) return;
  timer_step_ms_ = timeout_step_ms_;
  sweep_timer_.Start(loop_.uv(), kFirstSweepMs, static_cast<std::uint64_t>(timer_step_ms_), [this] { Sweep(); });
}

void CallsToClients::Sweep() {
  const int step_ms = timeout_step_ms_;
  const std::int64_t now_ns = NowNs();
  waiters_.Sweep(now_ns);
  waiters_.AnnounceSweep(now_ns + step_ms * kNsPerMs, step_ms * kNsPerMs);
  if (step_ms == timer_step_ms_) return;
  timer_step_ms_ = step_ms;
  sweep_timer_.SetRepeat(static_cast<std::uint64_t>(step_ms));
}

void CallsToClients::DeliverReply(int client_id, const Envelope& envelope, std::string_view payload) {
  if (!envelope.thread_id) return;
  const int key = *envelope.thread_id;
  std::string reply(payload);
  if (envelope.sem_id) {
    const std::uintptr_t token = TextToPointer(*envelope.sem_id);
    if (waiters_.WakeByToken(token, client_id, key, &reply) == Waiters::Woken::kWithReply) return;
    // Of no interest to the application.
    if (IsLibraryToken(token)) return;
  }
  // Late, foreign, or unsigned: a call to this client on the key that gets no reply of its own returns it.
  replies_.Store({key, client_id}, std::move(reply));
}

void CallsToClients::Close() {
  is_closed_ = true;
  waiters_.ReleaseAll();
  sweep_timer_.Close();
}

}  // namespace mivo
