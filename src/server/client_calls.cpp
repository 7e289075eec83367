#include "server/client_calls.h"

#include <pthread.h>

#include <memory>
#include <utility>

#include "base/clock.h"
#include "base/pointer_text.h"
#include "calls/outgoing_call.h"
#include "calls/waiters.h"

namespace mivo {

namespace {

constexpr std::uint64_t kFirstSweepMs = 500;

// Never destroyed: loop threads may outlive main.
Waiters*& AllWaitersPointer() {
  static Waiters* waiters = new Waiters(Waiters::ZeroTimeout::kEndsAtNextSweep);
  return waiters;
}

Waiters& AllWaiters() {
  return *AllWaitersPointer();
}

// A child of fork has none of the callers, and perhaps a lock that nobody will give back.
[[maybe_unused]] const int renewed_in_child = ::pthread_atfork(
    nullptr, nullptr, [] { AllWaitersPointer() = new Waiters(Waiters::ZeroTimeout::kEndsAtNextSweep); });

}  // namespace

ClientCalls::ClientCalls(const void* server, EventLoop& loop, ClientTable& clients, ReplyTable& replies,
                         const std::atomic<int>& timeout_step_ms)
    : server_(server), loop_(loop), clients_(clients), replies_(replies), timeout_step_ms_(timeout_step_ms) {}

int ClientCalls::Open() {
  return outgoing_.Open(loop_.uv(), [this](std::vector<Outgoing> queued) { SendQueued(std::move(queued)); });
}

std::optional<std::string> ClientCalls::Call(int client_id, std::string_view name, const MIVOParams* params, int key,
                                             int timeout_ms) {
  Waiter waiter(server_, client_id, key, timeout_ms);
  Outgoing request{client_id, Frame(EncodeRequest(name, key, params, waiter.token())), waiter.token(), nullptr};
  if (loop_.InThread()) {
    outgoing_.DrainNow();
    SendNow(client_id, std::move(request.frame));
    return std::nullopt;
  }
  return AwaitReply(AllWaiters(), waiter, [&] { return outgoing_.Push(std::move(request)); });
}

void ClientCalls::Post(int client_id, std::string_view name, const MIVOParams* params, int key) {
  OneShot written;
  // Two loop threads that post through each other's objects would wait for one another.
  const bool may_wait = !EventLoop::InAnyThread();
  Outgoing request{client_id, Frame(EncodeRequest(name, key, params, 0)), 0, may_wait ? &written : nullptr};
  if (loop_.InThread()) {
    outgoing_.DrainNow();
    SendNow(client_id, std::move(request.frame));
  } else if (outgoing_.Push(std::move(request)) && may_wait) {
    written.Wait();
  }
}

void ClientCalls::SendQueued(std::vector<Outgoing> queued) {
  std::vector<std::shared_ptr<Connection>> used;
  for (Outgoing& outgoing : queued) {
    if (std::shared_ptr<Connection> client = SendNow(outgoing.client_id, std::move(outgoing.frame))) {
      used.push_back(std::move(client));
    } else if (outgoing.token != 0) {
      AllWaiters().Release(outgoing.token);
    }
  }
  for (const std::shared_ptr<Connection>& client : used)
    client->Flush();
  for (const Outgoing& outgoing : queued) {
    if (outgoing.written != nullptr) outgoing.written->Set();
  }
}

std::shared_ptr<Connection> ClientCalls::SendNow(int client_id, Frame frame) {
  StartTimer();
  std::shared_ptr<Connection> client = clients_.Find(client_id);
  if (client != nullptr) client->Send(std::move(frame));
  return client;
}

void ClientCalls::StartTimer() {
  if (sweep_timer_.is_started()) return;
  timer_step_ms_ = timeout_step_ms_;
  sweep_timer_.Start(loop_.uv(), kFirstSweepMs, static_cast<std::uint64_t>(timer_step_ms_), [this] { Sweep(); });
}

void ClientCalls::Sweep() {
  AllWaiters().Sweep(NowMs());
  const int step_ms = timeout_step_ms_;
  if (step_ms == timer_step_ms_) return;
  timer_step_ms_ = step_ms;
  sweep_timer_.SetRepeat(static_cast<std::uint64_t>(step_ms));
}

void ClientCalls::DeliverReply(int client_id, const Envelope& envelope, std::string_view payload) {
  if (!envelope.thread_id) return;
  const int key = *envelope.thread_id;
  std::string reply(payload);
  if (envelope.sem_id) {
    const std::uintptr_t token = TextToPointer(*envelope.sem_id);
    if (AllWaiters().WakeByToken(token, client_id, key, &reply) == Waiters::Woken::kWithReply) return;
  }
  // Late, foreign, or unsigned: a call on the key that gets no reply of its own returns it.
  replies_.Store(key, std::move(reply));
}

void ClientCalls::Close() {
  outgoing_.DrainNow();
  for (const Outgoing& unsent : outgoing_.Close()) {
    if (unsent.written != nullptr) unsent.written->Set();
  }
  AllWaiters().ReleaseAll(server_);
  sweep_timer_.Close();
}

}  // namespace mivo
