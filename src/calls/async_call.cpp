#include "calls/async_call.h"

#include <mivo/params.h>

#include <exception>
#include <utility>

#include "base/handler_scope.h"
#include "base/printable.h"
#include "calls/diagnostics.h"
#include "pool/pool.h"
#include "transport/connection.h"
#include "values/params_bytes.h"

namespace mivo {

CallOutcome OutcomeWithout(bool was_sent, const Connection& connection) {
  if (!was_sent) return CallOutcome::kNotSent;
  return connection.is_closed() ? CallOutcome::kDisconnected : CallOutcome::kNoAnswer;
}

void Tell(CallCompletion& completion, const CompletionOwner& owner, CallOutcome outcome, std::string reply) {
  const HandlerScope scope(owner.object);
  try {
    MIVOParams decoded;
    ParamsBytes::Decode(decoded, std::move(reply));
    completion.OnCompleted(outcome, decoded);
  } catch (const std::exception& error) {
    owner.print.Error("completion of a call: %s\n", Printable(error.what()).c_str());
  } catch (...) {
    owner.print.Error("completion of a call: unknown exception\n");
  }
}

AsyncCall::AsyncCall(JobGroup& group, CompletionOwner owner, int peer, int key, int timeout_ms,
                     std::unique_ptr<CallCompletion> completion)
    : Waiter(peer, key, timeout_ms, Of::kLibrary), Job(group), owner_(owner), completion_(std::move(completion)) {}

void AsyncCall::Begin(std::unique_ptr<AsyncCall> call, Waiters& waiters, const std::shared_ptr<Connection>& connection,
                      Frame request) {
  call->connection_ = connection;
  const std::uintptr_t token = call->token();
  waiters.List(*call);
  // It belongs to whoever wakes it now, and that may be before the request is sent.
  AsyncCall* const listed = call.release();
  bool is_sent = false;
  try {
    is_sent = connection->Send(std::move(request));
  } catch (...) {
    if (!waiters.Unlist(token)) return;
    delete listed;
    throw;
  }
  if (!is_sent && waiters.Unlist(token)) listed->End(CallOutcome::kNotSent);
}

void AsyncCall::Refuse(std::unique_ptr<AsyncCall> call) {
  call.release()->End(CallOutcome::kNotSent);
}

void AsyncCall::OnWoken(std::optional<std::string> reply) {
  if (!reply) {
    End(OutcomeWithout(true, *connection_));
    return;
  }
  reply_ = std::move(*reply);
  End(CallOutcome::kAnswered);
}

void AsyncCall::End(CallOutcome outcome) {
  outcome_ = outcome;
  connection_.reset();
  Pool::OfProcess().Push(std::unique_ptr<Job>(this));
}

void AsyncCall::Run() {
  Tell(*completion_, owner_, outcome_, std::move(reply_));
}

}  // namespace mivo
