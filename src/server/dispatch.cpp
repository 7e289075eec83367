#include "server/dispatch.h"

#include "calls/handler_run.h"
#include "transport/builtin_keys.h"
#include "transport/connection.h"
#include "transport/envelope.h"

namespace mivo {

namespace {

// Names with a meaning of their own never reach the catch-all, handler or not.
bool IsReserved(const std::string& name) {
  return name == kVersionMethod || name == kClosedNotice || name == kConnectNotice;
}

}  // namespace

void Dispatch::Serve(const Request& request, MIVOParams* reply) {
  MIVOParams arguments;
  ReadArguments(request, &arguments);
  const int client_id = request.connection->id();
  IServerMethod* handler = handlers_.Find(request.name);

  IMethodAll* const catch_all = handler == nullptr ? handlers_.CatchAll() : nullptr;
  if (catch_all != nullptr && !IsReserved(request.name)) {
    RunCatchAll(*catch_all, {server_, print_, request.name, client_id, &arguments, reply});
    // It may have registered one.
    handler = handlers_.Find(request.name);
  }
  Call(handler, request.name, client_id, &arguments, reply);
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
