#include "calls/handler_run.h"

#include <mivo/handler.h>

#include <exception>

#include "base/handler_scope.h"
#include "base/printable.h"
#include "calls/diagnostics.h"
#include "transport/served_peer.h"

namespace mivo {

namespace {

template <class Body>
void RunGuarded(const HandlerCall& call, Body body) {
  const HandlerScope scope(call.owner);
  try {
    body();
  } catch (const std::exception& error) {
    if (!ServedPeer::MayCauseLine()) return;
    call.print.Error("handler %s: %s\n", Printable(call.name).c_str(), Printable(error.what()).c_str());
  } catch (...) {
    if (!ServedPeer::MayCauseLine()) return;
    call.print.Error("handler %s: unknown exception\n", Printable(call.name).c_str());
  }
}

}  // namespace

void RunHandler(IServerMethod& handler, const HandlerCall& call) {
  RunGuarded(call, [&] { handler.OnCall(call.connection_id, call.request, call.reply); });
}

void RunCatchAll(IMethodAll& handler, const HandlerCall& call) {
  RunGuarded(call, [&] { handler.OnCall(call.name.c_str(), call.connection_id, call.request, call.reply); });
}

}  // namespace mivo
