#include "calls/request_work.h"

#include <utility>

#include "calls/handler_table.h"
#include "transport/connection.h"
#include "transport/frame.h"

namespace mivo {

Request::Request(std::shared_ptr<Connection> from, std::string_view bytes, const Envelope& read,
                 InOrderMethod* in_order_method)
    : connection(std::move(from)),
      payload(bytes),
      envelope(MoveEnvelope(read, bytes, payload)),
      name(envelope.name.value_or(std::string_view())),
      in_order(in_order_method),
      in_its_place(in_order == nullptr ? nullptr : in_order->Arrive(envelope.data.value_or(std::string_view()))) {}

IServerMethod* FindHandler(const HandlerTable& handlers, const Request& request) {
  IServerMethod* const handler = handlers.Find(request.name);
  return handler != nullptr && handler == request.in_order ? request.in_its_place.get() : handler;
}

void ReadArguments(const Request& request, MIVOParams* arguments) {
  if (!request.envelope.data) return;
  arguments->GetParamas()->assign(*request.envelope.data);
  arguments->ToParams();
}

void RequestWork::Run() {
  server_.Serve(request_, &reply_);
}

void RequestWork::Finish() {
  std::string& reply = *reply_.GetParamas();
  if (reply.empty()) return;
  // A reply that is too long ends the program that has made it; but no peer may bring that about, with a name or token
  // that fills its request and would have to go back.
  const std::size_t echoed = request_.name.size() + request_.envelope.sem_id.value_or(std::string_view()).size();
  if (reply.size() > kLongestPayload && reply.size() <= kLongestPayload + echoed) {
    request_.connection->Drop();
    return;
  }
  request_.connection->Send(Frame(std::move(reply)));
}

}  // namespace mivo
