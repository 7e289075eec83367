#include "client/session.h"

#include <mivo/handler.h>

#include <utility>

#include "base/clock.h"
#include "base/identity.h"
#include "base/pointer_text.h"
#include "calls/handler_run.h"
#include "calls/outgoing_call.h"
#include "transport/builtin_keys.h"
#include "transport/envelope.h"
#include "transport/framed_write.h"

namespace mivo {

namespace {

constexpr std::uint64_t kFirstSweepMs = 500;
constexpr std::uint64_t kSweepMs = 100;

}  // namespace

Session::Session(const ClientParts& parts, Endpoint endpoint)
    : parts_(parts),
      endpoint_(std::move(endpoint)),
      connection_(std::make_shared<Connection>(loop_, static_cast<Connection::Owner&>(*this), NextConnectionId())) {}

Session::~Session() {
  thread_.Join();
}

bool Session::Connect() {
  if (!thread_.Start([this] { RunThread(); })) return false;
  started_.Wait();
  if (is_up_) return true;
  thread_.Join();
  return false;
}

std::optional<std::string> Session::Call(std::string_view name, const MIVOParams* params, int key, int timeout_ms) {
  Waiter waiter(parts_.client, connection_->id(), key, timeout_ms);
  Frame request(EncodeRequest(name, key, params, waiter.token()));
  parts_.replies.BeginCall(key);
  if (InThread()) {
    outgoing_.DrainNow();
    connection_->Send(std::move(request));
    return std::nullopt;
  }
  return AwaitReply(waiters_, waiter, [&] { return outgoing_.Push({std::move(request), key, false, nullptr}); });
}

void Session::Post(std::string_view name, const MIVOParams* params, int key) {
  Frame request(EncodeRequest(name, key, params, 0));
  posts_.Sent(key);
  if (InThread()) {
    outgoing_.DrainNow();
    connection_->Send(std::move(request));
    return;
  }
  if (EventLoop::InAnyThread()) {
    // Two loop threads that post to each other's connections would wait for one another.
    outgoing_.Push({std::move(request), key, true, nullptr});
    return;
  }
  OneShot written;
  if (outgoing_.Push({std::move(request), key, true, &written})) written.Wait();
}

std::optional<std::string> Session::CallLarge(int key, int timeout_ms, const std::function<void()>& send) {
  Waiter waiter(parts_.client, connection_->id(), key, timeout_ms);
  return AwaitReply(large_waiters_, waiter, [&] {
    send();
    // Waiters are woken after connected_ was cleared: still connected now, this one will be.
    return connected_ && !InThread();
  });
}

void Session::Close(Handlers handlers) {
  if (handlers == Handlers::kRelease) release_handlers_ = true;
  ending_ = true;
  connector_.Close();
  // Too early or too late, the wake-up goes nowhere: a loop that is not open yet looks at the wish when it is.
  close_request_.Send();
}

void Session::RunThread() {
  const EventLoop::ThreadScope scope(loop_);
  switch (endpoint_.kind) {
    case Endpoint::kLocal:
      parts_.print.Debug("%s\n", kVersionBanner);
      break;
    case Endpoint::kTcp4:
      parts_.print.Debug("Tcp4: %s\n", kVersionBanner);
      break;
    case Endpoint::kTcp6:
      parts_.print.Debug("Tcp6: %s\n", kVersionBanner);
      break;
  }
  is_up_ = OpenLoop() && ConnectStream() && StartServing();
  if (!is_up_) {
    CloseHandles();
    loop_.Close();
    started_.Set();
    return;
  }

  connected_ = true;
  started_.Set();
  if (endpoint_.kind == Endpoint::kLocal) {
    parts_.print.Debug("runing .....\n");
  } else {
    PrintDirect("run\n");
  }
  loop_.Run();
  if (endpoint_.kind == Endpoint::kLocal) {
    parts_.print.Debug("out run .....\n");
  } else {
    PrintDirect("run out\n");
  }
  loop_.Close();
  // Nothing runs any more. CloseClient may have found a handler running and left this to us.
  closed_handlers_.Delete();
}

bool Session::OpenLoop() {
  if (loop_.Open() < 0) {
    ReportConnectFailure(endpoint_, "uv_loop_init error");
    return false;
  }
  return close_request_.Open(loop_.uv(), [this] { AsyncClose(); }) == 0;
}

bool Session::ConnectStream() {
  if (ending_) return false;
  const int descriptor = connector_.Connect(endpoint_);
  return descriptor >= 0 && connection_->Adopt(descriptor, endpoint_.kind) >= 0;
}

bool Session::StartServing() {
  return outgoing_.Open(loop_.uv(), [this](std::vector<Outgoing> queued) { SendQueued(std::move(queued)); }) == 0 &&
         connection_->StartReading() == 0 && sweep_timer_.Start(loop_.uv(), kFirstSweepMs, kSweepMs, [this] {
           const std::int64_t now_ms = NowMs();
           waiters_.Sweep(now_ms);
           large_waiters_.Sweep(now_ms);
         }) == 0;
}

void Session::AsyncClose() {
  parts_.print.Debug("async_closeing Client!\n");
  CloseClient();
  parts_.print.Debug("async_closed Client!\n");
}

void Session::CloseClient() {
  parts_.print.Debug("closeClient!\n");
  outgoing_.DrainNow();
  connected_ = false;
  ShutQueueAndWakeCalls();
  work_.DropWaiting();
  if (release_handlers_) {
    closed_handlers_ = parts_.handlers.Close();
    if (work_.IsIdle() && notices_running_ == 0) closed_handlers_.Delete();
  }
  CloseHandles();
  parts_.replies.Retire();
  parts_.large_replies.Retire();
  parts_.print.Debug("Closed!\n");
}

void Session::CloseHandles() {
  sweep_timer_.Close();
  close_request_.Close();
  outgoing_.Close();
  connection_->Close();
}

void Session::ShutQueueAndWakeCalls() {
  for (const Outgoing& unsent : outgoing_.Close()) {
    if (unsent.written != nullptr) unsent.written->Set();
  }
  waiters_.ReleaseAll(parts_.client);
  large_waiters_.ReleaseAll(parts_.client);
}

void Session::SendQueued(std::vector<Outgoing> queued) {
  for (Outgoing& outgoing : queued)
    connection_->Send(std::move(outgoing.frame));
  const bool is_sent = connection_->Flush();
  for (const Outgoing& outgoing : queued) {
    // A dropped post will not be answered.
    if (outgoing.is_post && !is_sent) posts_.TakeAnswer(outgoing.key);
    if (outgoing.written != nullptr) outgoing.written->Set();
  }
}

void Session::OnFrameDropped(Connection& connection) {
  // FramedWrite has reported what it dropped; what comes after the close never gets there.
  if (connection.is_closed()) ReportDroppedFrame();
  parts_.print.Error("write data error\n");
}

void Session::DoQueueWork(std::string_view payload) {
  const Envelope envelope = ReadEnvelope(payload);
  if (!envelope.well_formed) return;
  if (!envelope.name) {
    PrintDirect("event empty!\n");
    return;
  }
  if (*envelope.name == kRetval) {
    DeliverReply(envelope, payload);
    return;
  }
  work_.Queue(loop_.uv(), std::make_unique<RequestWork>(parts_.requests, connection_, payload, envelope,
                                                        parts_.handlers.FindInOrder(*envelope.name)));
}

void Session::DeliverReply(const Envelope& envelope, std::string_view payload) {
  if (!envelope.thread_id) return;
  const int key = *envelope.thread_id;
  std::string reply(payload);
  if (envelope.sem_id) {
    const std::uintptr_t token = TextToPointer(*envelope.sem_id);
    const Waiters::Woken woken = waiters_.WakeByToken(token, connection_->id(), key, &reply);
    if (woken == Waiters::Woken::kWithReply) return;
    // Ours, and its call is over: too late for anybody.
    if (woken == Waiters::Woken::kNobody && IsWaiterToken(token)) return;
  } else if (posts_.TakeAnswer(key)) {
    return;
  }
  // It says under which key it belongs, but not to which call: a call on that key takes it when its wait is over.
  parts_.replies.Store(key, std::move(reply));
}

void Session::OnEnd(Connection& connection, int) {
  // A client that is initialised again from now on does not take this connection for one that stands.
  ending_ = true;
  parts_.print.Debug("Server Closed: %d\n", connection.id());
  RunNotice(kClosedNotice);
  RunNotice(kBuiltinClosedNotice);
  connection.Close();
  // First not connected, then woken: a woken call must find the truth. And the notices have run before that.
  connected_ = false;
  ShutQueueAndWakeCalls();
}

void Session::RunNotice(const char* name) {
  IServerMethod* const handler = parts_.handlers.Find(name);
  if (handler == nullptr) return;
  ++notices_running_;
  RunHandler(*handler, {parts_.client, parts_.print, name, connection_->id(), nullptr, nullptr});
  --notices_running_;
}

}  // namespace mivo
