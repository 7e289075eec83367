// Calls whose replies are their caller's own: <mivo/calls.h> for clients.
#include <mivo/calls.h>
#include <mivo/params.h>

#include <algorithm>
#include <utility>

#include "calls/async_call.h"
#include "client/mivo_client.h"
#include "client/session.h"
#include "transport/connection.h"
#include "values/params_bytes.h"

namespace mivo {

namespace {

// A session takes 0 for no limit.
int TimeoutOf(int timeout_ms) {
  return std::max(timeout_ms, 0);
}

}  // namespace

CallOutcome MIVOClient::CallApart(const char* name, const MIVOParams* params, int timeout_ms, MIVOParams& reply) {
  CallOutcome outcome = CallOutcome::kNotSent;
  std::string answer;
  if (IsOfThisProcess()) {
    const Presence::Scope inside(callers_);
    const std::shared_ptr<Session> session = CurrentSession();
    if (session && session->is_connected()) {
      outcome = session->CallApart(name == nullptr ? "" : name, params, TimeoutOf(timeout_ms), &answer);
    }
  }
  ParamsBytes::Decode(reply, std::move(answer));
  return outcome;
}

void MIVOClient::CallAsync(const char* name, const MIVOParams* params, int timeout_ms,
                           std::unique_ptr<CallCompletion> completion) {
  // In a child of fork nothing of this object works, its groups included.
  if (!IsOfThisProcess()) return Tell(*completion, {this, print_}, CallOutcome::kNotSent, std::string());
  const Presence::Scope inside(callers_);
  const std::shared_ptr<Session> session = CurrentSession();
  if (session && session->is_connected()) {
    session->CallAsync(name == nullptr ? "" : name, params, TimeoutOf(timeout_ms), std::move(completion));
  } else {
    AsyncCall::Refuse(std::make_unique<AsyncCall>(async_calls_, CompletionOwner{this, print_}, 0, kKeyApart, 0,
                                                  std::move(completion)));
  }
}

CallOutcome Call(IClient& client, const char* name, const MIVOParams* params, int timeout_ms, MIVOParams& reply) {
  auto* const own = dynamic_cast<MIVOClient*>(&client);
  if (own != nullptr) return own->CallApart(name, params, timeout_ms, reply);
  reply.Clear();
  return CallOutcome::kNotSent;
}

void CallAsync(IClient& client, const char* name, const MIVOParams* params, int timeout_ms,
               CallCompletion* completion) {
  std::unique_ptr<CallCompletion> owned(completion);
  if (auto* const own = dynamic_cast<MIVOClient*>(&client)) {
    own->CallAsync(name, params, timeout_ms, std::move(owned));
  } else {
    MIVOParams reply;
    owned->OnCompleted(CallOutcome::kNotSent, reply);
  }
}

}  // namespace mivo
