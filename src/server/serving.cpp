#include "server/serving.h"

#include <mivo/params.h>

#include <utility>

#include "base/sigpipe_guard.h"
#include "transport/builtin_keys.h"
#include "transport/envelope.h"

namespace mivo {

Serving::Serving(const ServerParts& parts)
    : parts_(parts),
      listener_(loop_, parts.print),
      clients_(loop_, listener_, parts.print,
               {[this](int client_id) { Notify(kConnectNotice, client_id); },
                [this](int client_id) { Notify(kClosedNotice, client_id); },
                [this](const std::shared_ptr<Connection>& client, std::string_view payload) {
                  DoQueueWork(client, payload);
                }}),
      calls_(parts.server, loop_, clients_, parts.replies, parts.timeout_step_ms) {}

Serving::~Serving() {
  Run();
}

bool Serving::TryTakeLoop() {
  MutexLock lock(mutex_);
  return !std::exchange(loop_taken_, true);
}

void Serving::TakeLoop() {
  MutexLock lock(mutex_);
  while (loop_taken_)
    loop_released_.Wait(mutex_);
  loop_taken_ = true;
}

void Serving::ReleaseLoop() {
  MutexLock lock(mutex_);
  loop_taken_ = false;
  loop_released_.NotifyAll();
}

bool Serving::Start(const Endpoint& endpoint) {
  TakeLoop();
  const bool is_local = endpoint.kind == Endpoint::kLocal;
  parts_.print.Debug("%s %s port:%s\n", is_local ? "Pipe" : "Tcp", kVersionBanner, endpoint.name.c_str());

  bool started =
      loop_.Open() == 0 && listener_.Listen(endpoint, [this](int descriptor) { clients_.OnIncoming(descriptor); });
  if (started) {
    PublishPort(endpoint.name);
    started = calls_.Open() == 0 && close_request_.Open(loop_.uv(), [this] { CloseHere(); }) == 0;
  }
  if (started) {
    running_ = true;
  } else {
    CloseHandles();
    loop_.Close();
  }
  ReleaseLoop();
  return started;
}

void Serving::PublishPort(const std::string& name) {
  MIVOParams params;
  params.AddString(name.c_str());
  params.ToParams();
  parts_.dispatch.Notify(kCreatePortNotice, 0, &params, nullptr);
}

void Serving::Run() {
  TakeLoop();
  if (loop_.is_open()) {
    const SigpipeGuard guard;
    const EventLoop::ThreadScope scope(loop_);
    loop_.Run();
    loop_.Close();
    // Nothing runs any more. CloseHere may have found a handler running and left this to us.
    closed_handlers_.Delete();
  }
  ReleaseLoop();
}

void Serving::Close(Wait wait) {
  if (InThread()) {
    CloseHere();
  } else if (TryTakeLoop()) {
    {
      const EventLoop::ThreadScope scope(loop_);
      CloseHere();
    }
    ReleaseLoop();
  } else {
    RequestClose();
    if (wait == Wait::kNo) return;
    // Whoever holds the loop gives it back when it has ended.
    TakeLoop();
    ReleaseLoop();
  }
}

void Serving::CloseHere() {
  // State first: a log sink or a handler's destructor may lead straight back in here.
  if (!running_ || std::exchange(closing_, true)) return;
  parts_.print.Debug("Server Closing!\n");
  work_.DropWaiting();
  closed_handlers_ = parts_.handlers.Close();
  if (closed_handlers_.Contains(parts_.print.sink())) parts_.print.SetSink(nullptr);
  if (work_.IsIdle() && notices_running_ == 0) closed_handlers_.Delete();
  parts_.replies.Retire();
  running_ = false;
  CloseHandles();
  parts_.print.Debug("Server Closed!\n");
}

void Serving::CloseHandles() {
  calls_.Close();
  clients_.Close();
  listener_.Close();
  close_request_.Close();
}

void Serving::DoQueueWork(const std::shared_ptr<Connection>& client, std::string_view payload) {
  const Envelope envelope = ReadEnvelope(payload);
  if (!envelope.name) {
    PrintDirect("event empty!\n");
  } else if (*envelope.name == kRetval) {
    calls_.DeliverReply(client->id(), envelope, payload);
  } else if (*envelope.name == kCloseServerMethod) {
    AnswerCloseServer(*client, envelope);
  } else {
    work_.Queue(loop_.uv(), std::make_unique<RequestWork>(parts_.dispatch, client, payload, envelope,
                                                          parts_.handlers.FindInOrder(*envelope.name)));
  }
}

void Serving::AnswerCloseServer(Connection& client, const Envelope& request) {
  // At once, whatever keeps the pool busy. It closes nothing, and names no waiter.
  MIVOParams reply;
  reply.AddBool(true);
  reply.AddKeyValueString(kNameKey, kRetval);
  reply.AddKeyValueInt(kThreadIdKey, request.thread_id.value_or(0));
  client.Send(Frame(std::move(*reply.GetParamas())));
}

void Serving::Notify(const char* name, int client_id) {
  MIVOParams request;
  MIVOParams reply;
  ++notices_running_;
  parts_.dispatch.Notify(name, client_id, &request, &reply);
  --notices_running_;
}

}  // namespace mivo
