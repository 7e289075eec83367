#include "calls/request_work.h"

#include <utility>

#include "calls/handler_table.h"
#include "transport/connection.h"

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
  if (reply_.Size() > 0) request_.connection->Send(Frame(std::move(*reply_.GetParamas())));
}

}  // namespace mivo
