// Calls whose replies are their caller's own: <mivo/calls.h> for servers.
#include <mivo/calls.h>
#include <mivo/params.h>

#include <utility>

#include "calls/async_call.h"
#include "server/mivo_server.h"
#include "server/serving.h"
#include "values/params_bytes.h"

namespace mivo {

namespace {

// Calls to clients take 0 for the next look; what is below is some 50 days.
int TimeoutOf(int timeout_ms) {
  return timeout_ms < 1 ? -1 : timeout_ms;
}

}  // namespace

CallOutcome MIVOServer::CallApart(int client_id, const char* name, const MIVOParams* params, int timeout_ms,
                                  MIVOParams& reply) {
  CallOutcome outcome = CallOutcome::kNotSent;
  std::string answer;
  if (IsOfThisProcess()) {
    const Presence::Scope inside(callers_);
    const std::shared_ptr<Serving> serving = CurrentServing();
    if (serving && serving->is_running()) {
      outcome =
          serving->calls().CallApart(client_id, name == nullptr ? "" : name, params, TimeoutOf(timeout_ms), &answer);
    }
  }
  ParamsBytes::Decode(reply, std::move(answer));
  return outcome;
}

void MIVOServer::CallAsync(int client_id, const char* name, const MIVOParams* params, int timeout_ms,
                           std::unique_ptr<CallCompletion> completion) {
  // In a child of fork nothing of this object works, its groups included.
  if (!IsOfThisProcess()) return Tell(*completion, {this, print_}, CallOutcome::kNotSent, std::string());
  const Presence::Scope inside(callers_);
  auto call = std::make_unique<AsyncCall>(async_calls_, CompletionOwner{this, print_}, client_id, kKeyApart,
                                          TimeoutOf(timeout_ms), std::move(completion));
  const std::shared_ptr<Serving> serving = CurrentServing();
  if (serving && serving->is_running()) {
    serving->calls().CallAsync(client_id, name == nullptr ? "" : name, params, std::move(call));
  } else {
    AsyncCall::Refuse(std::move(call));
  }
}

CallOutcome Call(IServer& server, int client_id, const char* name, const MIVOParams* params, int timeout_ms,
                 MIVOParams& reply) {
  auto* const own = dynamic_cast<MIVOServer*>(&server);
  if (own != nullptr) return own->CallApart(client_id, name, params, timeout_ms, reply);
  reply.Clear();
  return CallOutcome::kNotSent;
}

void CallAsync(IServer& server, int client_id, const char* name, const MIVOParams* params, int timeout_ms,
               CallCompletion* completion) {
  std::unique_ptr<CallCompletion> owned(completion);
  if (auto* const own = dynamic_cast<MIVOServer*>(&server)) {
    own->CallAsync(client_id, name, params, timeout_ms, std::move(owned));
  } else {
    MIVOParams reply;
    owned->OnCompleted(CallOutcome::kNotSent, reply);
  }
}

}  // namespace mivo
