#include "calls/request_job.h"

#include <mivo/params.h>

#include <new>
#include <utility>

#include "base/process.h"
#include "transport/connection.h"
#include "transport/frame.h"
#include "transport/served_peer.h"
#include "values/params_bytes.h"

namespace mivo {

namespace {

OwnedPayload CopyOf(std::string_view bytes) {
  ByteBuffer storage;
  storage.Append(bytes);
  const std::string_view copied = storage.view();
  return {std::move(storage), copied};
}

// A handler that calls and waits may have to read, and hand on a request of another connection meanwhile.
thread_local RequestJob* current = nullptr;

bool FitsAFrame(const std::string& reply, const Envelope& request) {
  const std::size_t echoed =
      request.name.value_or(std::string_view()).size() + request.sem_id.value_or(std::string_view()).size();
  return reply.size() <= kLongestPayload || reply.size() > kLongestPayload + echoed;
}

// Keeps of the request what its reply has to name.
class TakenReply final : public LateReply {
 public:
  TakenReply(std::shared_ptr<Connection> connection, const Envelope& request, ReplyTail tail)
      : connection_(std::move(connection)),
        name_(request.name.value_or(std::string_view())),
        token_(request.sem_id.value_or(std::string_view())),
        envelope_(request),
        tail_(tail) {
    if (envelope_.name) envelope_.name = name_;
    if (envelope_.sem_id) envelope_.sem_id = token_;
    envelope_.data.reset();
  }
  ~TakenReply() override {
    try {
      MIVOParams nothing;
      if (!is_sent_) Send(nothing);
    } catch (const std::bad_alloc&) {
      if (process_.IsThisProcess()) connection_->EndForWantOfMemory();
    }
  }

  void Send(MIVOParams& reply) override {
    if (is_sent_ || !process_.IsThisProcess()) return;
    std::string& bytes = *reply.GetParamas();
    tail_(bytes, envelope_);
    is_sent_ = true;
    if (FitsAFrame(bytes, envelope_)) connection_->SendLate(Frame(std::move(bytes)));
  }

 private:
  const std::shared_ptr<Connection> connection_;
  const std::string name_;
  const std::string token_;
  Envelope envelope_;
  const ReplyTail tail_;
  const ProcessMark process_;
  bool is_sent_ = false;
};

}  // namespace

Request::Request(std::shared_ptr<Connection> from, std::string_view bytes, const Envelope& read)
    : Request(std::move(from), CopyOf(bytes), bytes, read) {}

Request::Request(std::shared_ptr<Connection> from, OwnedPayload taken, std::string_view bytes, const Envelope& read)
    : connection(std::move(from)),
      owned(std::move(taken)),
      payload(owned.bytes),
      envelope(MoveEnvelope(read, bytes, payload)),
      name(envelope.name.value_or(std::string_view())) {}

void ReadArguments(const Request& request, MIVOParams* arguments) {
  if (!request.envelope.data) return;
  // The payload outlives the set that the handler sees.
  ParamsBytes::DecodeBorrowed(*arguments, *request.envelope.data);
}

void SendReply(Connection& connection, const Envelope& request, std::string reply) {
  if (reply.empty()) return;
  if (!FitsAFrame(reply, request)) {
    connection.Drop();
    return;
  }
  connection.Send(Frame(std::move(reply)));
}

void RequestJob::Serve(std::unique_ptr<RequestJob> job, bool now, Jobs& jobs) {
  if (!now) return jobs.Push(std::move(job));
  job->Run();
  job->Finish();
}

RequestJob* RequestJob::Current() {
  return current;
}

void RequestJob::Run() {
  const ServedPeer scope(*request_.connection);
  RequestJob* const outer = std::exchange(current, this);
  try {
    server_.Serve(request_, &reply_);
  } catch (const std::bad_alloc&) {
    request_.connection->EndForWantOfMemory();
  }
  current = outer;
}

std::unique_ptr<LateReply> RequestJob::TakeReply() {
  if (is_taken_) return nullptr;
  auto taken = std::make_unique<TakenReply>(request_.connection, request_.envelope, server_.tail());
  is_taken_ = true;
  return taken;
}

void RequestJob::Finish() {
  if (is_taken_) return;
  SendReply(*request_.connection, request_.envelope, std::move(*reply_.GetParamas()));
}

LateReply* ReplyLater() {
  RequestJob* const job = RequestJob::Current();
  return job == nullptr ? nullptr : job->TakeReply().release();
}

}  // namespace mivo
