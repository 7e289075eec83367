#include "client/session.h"

#include <mivo/handler.h>

#include <cerrno>
#include <utility>

#include "base/clock.h"
#include "base/identity.h"
#include "base/pointer_text.h"
#include "base/spare_memory.h"
#include "calls/async_call.h"
#include "calls/handler_run.h"
#include "calls/outgoing_call.h"
#include "client/call_turn.h"
#include "transport/builtin_keys.h"
#include "transport/envelope.h"

namespace mivo {

namespace {

constexpr std::int64_t kFirstSweepMs = 500;
constexpr std::int64_t kSweepMs = 100;
constexpr std::int64_t kNsPerMs = 1'000'000;
// How long a close waits for a peer that does not read what was sent to it.
constexpr std::int64_t kDrainMs = 500;

}  // namespace

Session::Session(const ClientParts& parts, Endpoint endpoint, std::int64_t connect_deadline_ms)
    : parts_(parts),
      endpoint_(std::move(endpoint)),
      connect_deadline_ms_(connect_deadline_ms),
      connection_(std::make_shared<Connection>(static_cast<Connection::Owner&>(*this), jobs_, NextConnectionId())) {}

Session::~Session() {
  thread_.Join();
}

int Session::Connect() {
  if (!thread_.Start([this] { RunThread(); })) return -EAGAIN;
  started_.Wait();
  if (state_ != State::kClosed) return 0;
  thread_.Join();
  // It stood, and was closed at once.
  return start_status_ < 0 ? start_status_ : -ECANCELED;
}

bool Session::is_connected() const {
  const State state = state_;
  return state == State::kConnected || state == State::kEnding;
}

std::optional<std::string> Session::Call(Waiter::Of of, std::string_view name, const MIVOParams* params, int key,
                                         int timeout_ms) {
  OutgoingCall call(connection_->id(), key, timeout_ms, of);
  Frame request(EncodeRequest(name, key, params, call.token()));
  if (of == Waiter::Of::kApplication) parts_.replies.BeginCall(key);
  if (name == kCloseServerMethod) post_answers_.ExpectOfClose(key);
  if (InThread()) {
    connection_->Send(std::move(request));
    return std::nullopt;
  }
  return call.Await(waiters_, connection_.get(), [&] { return connection_->Send(std::move(request)); });
}

CallOutcome Session::CallApart(std::string_view name, const MIVOParams* params, int timeout_ms, std::string* reply) {
  if (InThread()) return CallOutcome::kNotSent;
  OutgoingCall call(connection_->id(), kKeyApart, timeout_ms, Waiter::Of::kLibrary);
  Frame request(EncodeRequest(name, kKeyApart, params, call.token()));
  std::optional<std::string> answer =
      call.Await(waiters_, connection_.get(), [&] { return connection_->Send(std::move(request)); });
  if (!answer) return OutcomeWithout(call.was_sent(), *connection_);
  *reply = std::move(*answer);
  return CallOutcome::kAnswered;
}

void Session::CallAsync(std::string_view name, const MIVOParams* params, int timeout_ms,
                        std::unique_ptr<CallCompletion> completion) {
  auto call = std::make_unique<AsyncCall>(parts_.async_calls, CompletionOwner{parts_.client, parts_.print},
                                          connection_->id(), kKeyApart, timeout_ms, std::move(completion));
  Frame request(EncodeRequest(name, kKeyApart, params, call->token()));
  AsyncCall::Begin(std::move(call), waiters_, connection_, std::move(request));
}

void Session::Post(std::string_view name, const MIVOParams* params, int key) {
  Frame request(EncodeRequest(name, key, params, 0));
  post_answers_.Expect(key);
  // A dropped post will not be answered.
  if (!connection_->Send(std::move(request))) post_answers_.Take(key);
}

std::optional<std::string> Session::CallLarge(int key, int timeout_ms, const std::function<void()>& send) {
  OutgoingCall call(connection_->id(), key, timeout_ms);
  return call.Await(large_waiters_, nullptr, [&] {
    send();
    // Waiters are woken after the state was left: still connected now, this one will be.
    return is_connected() && !InThread();
  });
}

void Session::Close(Closing how) {
  Closing before = closing_;
  while (before < how && !closing_.compare_exchange_weak(before, how)) {
  }
  // Too early, the loop thread looks at the wish when it has a loop; too late, there is nothing left to close.
  connector_.Close();
  loop_.Post([this] { CloseClient(); });
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
  start_status_ = Start();
  if (start_status_ < 0) {
    state_ = State::kClosed;
    connection_->Close();
    sweep_timer_.Close();
    loop_.Close();
    started_.Set();
    return;
  }
  // Before anybody can know that it runs.
  SayThatItRuns("runing .....\n", "run\n");
  started_.Set();
  loop_.Run();
  SayThatItRuns("out run .....\n", "run out\n");
  // CloseClient may have found a handler running and left the handlers to us.
  jobs_.WaitUntilIdle();
  parts_.async_calls.WaitUntilIdle();
  loop_.Close();
  closed_handlers_.Delete();
}

int Session::Start() {
  if (const int status = loop_.Open(); status < 0) {
    ReportConnectFailure(endpoint_, "uv_loop_init error");
    return status;
  }
  if (closing_ != Closing::kNo) return -ECANCELED;
  if (parts_.print.is_quiet()) {
    connector_.BeQuiet();
    connection_->BeQuiet();
  }
  const int descriptor = connector_.Connect(endpoint_, connect_deadline_ms_);
  if (descriptor < 0) return descriptor;
  waiters_.AnnounceSweep(NowNs() + kFirstSweepMs * kNsPerMs, kSweepMs * kNsPerMs);
  large_waiters_.AnnounceSweep(NowNs() + kFirstSweepMs * kNsPerMs, kSweepMs * kNsPerMs);
  // First, for the end may be found before this has returned.
  state_ = State::kConnected;
  if (const int status = connection_->Open(descriptor); status < 0) return status;
  connection_->StartReading();
  return sweep_timer_.Start(loop_.uv(), kFirstSweepMs, kSweepMs, [this] { Sweep(); });
}

void Session::SayThatItRuns(const char* local_text, const char* tcp_text) {
  if (endpoint_.kind == Endpoint::kLocal) {
    parts_.print.Debug("%s", local_text);
  } else if (!parts_.print.is_quiet()) {
    PrintDirect("%s", tcp_text);
  }
}

void Session::Sweep() {
  const std::int64_t now_ns = NowNs();
  AgeSpareMemory(now_ns);
  for (Waiters* const waiters : {&waiters_, &large_waiters_}) {
    waiters->Sweep(now_ns);
    waiters->AnnounceSweep(now_ns + kSweepMs * kNsPerMs, kSweepMs * kNsPerMs);
  }
}

void Session::OnEnd(Connection&, int) {
  // A client that is initialised again from now on does not take this connection for one that stands.
  State connected = State::kConnected;
  state_.compare_exchange_strong(connected, State::kEnding);
  loop_.Post([this] { EndConnection(); });
}

void Session::EndConnection() {
  if (state_ != State::kEnding) return;
  parts_.print.Debug("Server Closed: %d\n", connection_->id());
  RunNotice(kClosedNotice);
  RunNotice(kBuiltinClosedNotice);
  connection_->Close();
  // First not connected, then woken: a woken call must find the truth. And the notices have run before that.
  if (state_ == State::kEnding) state_ = State::kEnded;
  WakeCalls();
}

void Session::CloseClient() {
  // A second wish finds it done; one that came while connecting has ended the attempt.
  if (state_ == State::kClosed || state_ == State::kConnecting) return;
  parts_.print.Debug("async_closeing Client!\n");
  parts_.print.Debug("closeClient!\n");
  connection_->Drain(NowMs() + kDrainMs);
  state_ = State::kClosed;
  connection_->Close();
  WakeCalls();
  Pool::OfProcess().DropWaiting(jobs_);
  if (closing_ == Closing::kReleaseHandlers) {
    closed_handlers_ = parts_.handlers.Close();
    if (jobs_.IsIdle() && notices_running_ == 0) closed_handlers_.Delete();
  }
  sweep_timer_.Close();
  parts_.replies.Retire();
  parts_.large_replies.Retire();
  parts_.print.Debug("Closed!\n");
  parts_.print.Debug("async_closed Client!\n");
  loop_.Shut();
}

void Session::WakeCalls() {
  parts_.large_results.Forget(connection_->id());
  waiters_.ReleaseAll();
  large_waiters_.ReleaseAll();
  CallTurn::AskAgain();
}

void Session::OnFrameDropped(Connection& connection) {
  // The connection has reported what it dropped; what comes after the close it has not.
  if (connection.is_closed() && !parts_.print.is_quiet()) PrintDirect("write error\n");
  parts_.print.Error("write data error\n");
}

void Session::OnPayload(Connection& connection, std::string_view payload, Jobs& jobs) {
  const Envelope envelope = ReadEnvelope(payload);
  if (!envelope.well_formed) return;
  if (!envelope.name) {
    connection.SayOfPeer("event empty!\n");
  } else if (*envelope.name == kRetval) {
    DeliverReply(envelope, payload);
  } else if (*envelope.name == kSliceMethod) {
    TakeSlice(envelope);
  } else {
    auto job = std::make_unique<RequestJob>(jobs_, parts_.requests, connection.shared_from_this(),
                                            connection.TakePayload(payload), payload, envelope);
    RequestJob::Serve(std::move(job), parts_.handlers.IsInOrder(*envelope.name), jobs);
  }
}

void Session::TakeSlice(const Envelope& envelope) {
  parts_.large_results.Take(connection_->id(), envelope.data.value_or(std::string_view()));
  std::string reply;
  AppendClientReplyTail(reply, envelope);
  SendReply(*connection_, envelope, std::move(reply));
}

void Session::DeliverReply(const Envelope& envelope, std::string_view payload) {
  if (!envelope.thread_id) return;
  const int key = *envelope.thread_id;
  std::string reply = TakeSpareString(payload.size());
  reply.assign(payload);
  if (envelope.sem_id) {
    const std::uintptr_t token = TextToPointer(*envelope.sem_id);
    const Waiters::Woken woken = waiters_.WakeByToken(token, connection_->id(), key, &reply);
    if (woken == Waiters::Woken::kWithReply) return;
    // Ours, and its call is over: too late for anybody.
    if (woken == Waiters::Woken::kNobody && IsToken(token)) return;
  } else if (!post_answers_.TakeOfClose(key, reply) && post_answers_.Take(key)) {
    return;
  }
  // It says under which key it belongs, but not to which call: a call on that key takes it when its wait is over.
  parts_.replies.Store(key, std::move(reply));
}

void Session::RunNotice(const char* name) {
  IServerMethod* const handler = parts_.handlers.Find(name);
  if (handler == nullptr) return;
  ++notices_running_;
  RunHandler(*handler, {parts_.client, parts_.print, name, connection_->id(), nullptr, nullptr});
  --notices_running_;
}

}  // namespace mivo
