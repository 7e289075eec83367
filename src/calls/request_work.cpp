#include "calls/request_work.h"

#include <utility>

#include "transport/connection.h"

namespace mivo {

Request::Request(std::shared_ptr<Connection> from, std::string_view bytes, const Envelope& read)
    : connection(std::move(from)),
      payload(bytes),
      envelope(MoveEnvelope(read, bytes, payload)),
      name(envelope.name.value_or(std::string_view())) {}

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
