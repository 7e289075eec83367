#include "server/serving.h"

#include <mivo/params.h>

#include <new>
#include <optional>
#include <utility>

#include "base/sigpipe_guard.h"
#include "calls/request_job.h"
#include "calls/version_check.h"
#include "largedata/result_transfer.h"
#include "transport/builtin_keys.h"
#include "transport/envelope.h"
#include "transport/served_peer.h"

namespace mivo {

// A large request that is whole: its method is called, and the results leave slice by slice when this job has ended.
// The slice that has completed it is answered after that.
class Serving::LargeRequestJob : public Job {
 public:
  LargeRequestJob(Serving& serving, RecvLargeDataServer& receiver, std::shared_ptr<Connection> client,
                  std::string_view payload, const Envelope& read, RecvLargeDataServer::Whole whole)
      : Job(serving.jobs_),
        serving_(serving),
        receiver_(receiver),
        slice_(std::make_shared<const Request>(std::move(client), payload, read)),
        whole_(std::move(whole)) {}

  void Run() override {
    const std::shared_ptr<Connection>& client = slice_->connection;
    const ServedPeer scope(*client);
    try {
      const int key = whole_.key;
      RecvLargeDataServer::Served served = receiver_.Serve(client->id(), std::move(whole_));
      // What it has left unfinished inside goes with its connection, which may have gone meanwhile.
      if (serving_.clients_.Find(client->id()) == nullptr) receiver_.Forget(client->id());
      AppendServerReplyTail(served.reply, slice_->envelope);
      const auto transfer = std::make_shared<ResultTransfer>(
          client, key, std::move(served.results),
          [calls = &serving_.calls_](Connection& to, Waiter& waiter, Frame request) {
            return calls->Begin(to, waiter, std::move(request));
          },
          [slice = slice_, reply = std::move(served.reply)] { SendReply(*slice->connection, slice->envelope, reply); });
      transfer->Start();
    } catch (const std::bad_alloc&) {
      client->EndForWantOfMemory();
    }
  }

 private:
  Serving& serving_;
  RecvLargeDataServer& receiver_;
  const std::shared_ptr<const Request> slice_;
  RecvLargeDataServer::Whole whole_;
};

Serving::Serving(const ServerParts& parts)
    : parts_(parts),
      listener_(loop_, parts.print),
      clients_(
          jobs_, parts.print,
          {[this](int client_id) { Notify(kConnectNotice, client_id); },
           [this](int client_id) {
             Notify(kClosedNotice, client_id);
             ForgetClient(client_id);
           },
           [this](Connection& client, std::string_view payload, Jobs& jobs) { TakePayload(client, payload, jobs); },
           [this](std::function<void()> task) { loop_.Post(std::move(task)); }}),
      calls_(loop_, clients_, parts.replies, parts.timeout_step_ms) {}

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

int Serving::Start(const Endpoint& endpoint) {
  TakeLoop();
  const bool is_local = endpoint.kind == Endpoint::kLocal;
  parts_.print.Debug("%s %s port:%s\n", is_local ? "Pipe" : "Tcp", kVersionBanner, endpoint.name.c_str());

  int status = loop_.Open();
  if (status >= 0) {
    status = listener_.Listen(endpoint, [this](int descriptor) { clients_.OnIncoming(descriptor, listener_.kind()); });
  }
  if (status >= 0) {
    PublishPort(endpoint.name);
    running_ = true;
  } else {
    CloseHandles();
    loop_.Close();
  }
  ReleaseLoop();
  return status;
}

int Serving::UserOf(int client_id) {
  const std::shared_ptr<Connection> client = clients_.Find(client_id);
  return client == nullptr ? -1 : client->peer_user();
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
    // CloseHere may have found a handler running and left the handlers to us.
    jobs_.WaitUntilIdle();
    parts_.async_calls.WaitUntilIdle();
    // A close tells of no client's end.
    parts_.slices.ForgetAll();
    parts_.slice_headers.ForgetAll();
    loop_.Close();
    parts_.print.sink().Delete(std::move(closed_handlers_));
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
  running_ = false;
  CloseHandles();
  Pool::OfProcess().DropWaiting(jobs_);
  parts_.replies.Retire();
  closed_handlers_ = parts_.handlers.Close();
  parts_.print.sink().Remove(closed_handlers_);
  parts_.print.Debug("Server Closed!\n");
  // Last, when all who wait for this server have been told: a destructor may wait for one of them, and so may a line
  // that is still with one of these.
  if (jobs_.IsIdle() && notices_running_ == 0) parts_.print.sink().Delete(std::move(closed_handlers_));
}

void Serving::CloseHandles() {
  listener_.Close();
  clients_.Close();
  calls_.Close();
  loop_.Shut();
}

void Serving::TakePayload(Connection& client, std::string_view payload, Jobs& jobs) {
  const Envelope envelope = ReadEnvelope(payload);
  if (!envelope.name) {
    client.SayOfPeer("event empty!\n");
  } else if (*envelope.name == kRetval) {
    calls_.DeliverReply(client.id(), envelope, payload);
  } else if (*envelope.name == kVersionMethod) {
    SendReply(client, envelope, AnswerVersionCheck(envelope));
  } else if (*envelope.name == kCloseServerMethod) {
    SendReply(client, envelope, CloseAnswer(envelope.thread_id.value_or(0)));
  } else if (parts_.handlers.IsUnder(*envelope.name, parts_.slices)) {
    TakeSlice(parts_.slices, client, payload, envelope, jobs);
  } else if (parts_.handlers.IsUnder(*envelope.name, parts_.slice_headers)) {
    TakeSlice(parts_.slice_headers, client, payload, envelope, jobs);
  } else {
    auto job = std::make_unique<RequestJob>(jobs_, parts_.dispatch, client.shared_from_this(),
                                            client.TakePayload(payload), payload, envelope);
    RequestJob::Serve(std::move(job), parts_.handlers.IsInOrder(*envelope.name), jobs);
  }
}

void Serving::TakeSlice(RecvLargeDataServer& receiver, Connection& client, std::string_view payload,
                        const Envelope& envelope, Jobs& jobs) {
  std::optional<RecvLargeDataServer::Whole> whole =
      receiver.Take(client.id(), envelope.data.value_or(std::string_view()));
  if (whole) {
    jobs.Push(std::make_unique<LargeRequestJob>(*this, receiver, client.shared_from_this(), payload, envelope,
                                                std::move(*whole)));
    return;
  }
  std::string answer = AnswerToSlice();
  AppendServerReplyTail(answer, envelope);
  SendReply(client, envelope, std::move(answer));
}

void Serving::ForgetClient(int client_id) {
  parts_.slices.Forget(client_id);
  parts_.slice_headers.Forget(client_id);
  parts_.replies.ForgetPeer(client_id);
}

void Serving::Notify(const char* name, int client_id) {
  MIVOParams request;
  MIVOParams reply;
  ++notices_running_;
  parts_.dispatch.Notify(name, client_id, &request, &reply);
  --notices_running_;
}

}  // namespace mivo
