#include "calls/request_job.h"

#include <mivo/params.h>

#include <new>
#include <utility>

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
  const std::size_t echoed =
      request.name.value_or(std::string_view()).size() + request.sem_id.value_or(std::string_view()).size();
  if (reply.size() > kLongestPayload && reply.size() <= kLongestPayload + echoed) {
    connection.Drop();
    return;
  }
  connection.Send(Frame(std::move(reply)));
}

void RequestJob::Run() {
  const ServedPeer scope(*request_.connection);
  try {
    server_.Serve(request_, &reply_);
  } catch (const std::bad_alloc&) {
    request_.connection->EndForWantOfMemory();
  }
}

void RequestJob::Finish() {
  SendReply(*request_.connection, request_.envelope, std::move(*reply_.GetParamas()));
}

}  // namespace mivo
