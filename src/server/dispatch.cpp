#include "server/dispatch.h"

#include <string_view>

#include "calls/handler_run.h"
#include "transport/builtin_keys.h"
#include "transport/connection.h"
#include "transport/envelope.h"

namespace mivo {

namespace {

bool IsOurBanner(const MIVOValue* value) {
  if (value == nullptr || !value->IsString()) return false;
  long length = 0;
  const char* const bytes = value->GetStream(length);
  return std::string_view(bytes, static_cast<std::size_t>(length)) == kVersionBanner;
}

void AnswerVersion(const MIVOParams& request, MIVOParams* reply) {
  reply->AddBool(IsOurBanner(request.GetMap(kVersionKey)));
  reply->AddKeyValueString(kVersionKey, kVersionBanner);
}

// Names with a meaning of their own never reach the catch-all, handler or not.
bool IsReserved(const std::string& name) {
  return name == kVersionMethod || name == kClosedNotice || name == kConnectNotice;
}

}  // namespace

void Dispatch::Serve(const Request& request, MIVOParams* reply) {
  IServerMethod* handler = FindHandler(handlers_, request);
  MIVOParams arguments;
  if (handler == nullptr || handler != request.in_its_place.get()) ReadArguments(request, &arguments);
  const int client_id = request.connection->id();

  IMethodAll* const catch_all = handlers_.CatchAll();
  if (catch_all != nullptr && handler == nullptr && !IsReserved(request.name)) {
    RunCatchAll(*catch_all, {server_, print_, request.name, client_id, &arguments, reply});
    // It may have registered one.
    handler = FindHandler(handlers_, request);
  }
  if (request.name == kVersionMethod) {
    AnswerVersion(arguments, reply);
  } else {
    Call(handler, request.name, client_id, &arguments, reply);
  }
  AppendServerReplyTail(*reply->GetParamas(), request.envelope);
}

void Dispatch::CallMethod(const std::string& name, int client_id, MIVOParams* request, MIVOParams* reply) {
  Call(handlers_.Find(name), name, client_id, request, reply);
}

void Dispatch::Call(IServerMethod* handler, const std::string& name, int client_id, MIVOParams* request,
                    MIVOParams* reply) {
  if (handler == nullptr) {
    // Also behind what a catch-all has added.
    reply->AddString(("no event: " + name).c_str());
    return;
  }
  RunHandler(*handler, {server_, print_, name, client_id, request, reply});
}

void Dispatch::Notify(const char* name, int client_id, MIVOParams* request, MIVOParams* reply) {
  IServerMethod* const handler = handlers_.Find(name);
  if (handler != nullptr) RunHandler(*handler, {server_, print_, name, client_id, request, reply});
}

}  // namespace mivo
