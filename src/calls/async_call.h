// A call that no thread waits for.
#ifndef MIVO_CALLS_ASYNC_CALL_H_
#define MIVO_CALLS_ASYNC_CALL_H_

#include <mivo/calls.h>

#include <memory>
#include <optional>
#include <string>

#include "calls/waiters.h"
#include "pool/job.h"
#include "transport/frame.h"

namespace mivo {

class Connection;
class Diagnostics;

// Whom the completion is told for, see HandlerCall.
struct CompletionOwner {
  const void* object;
  Diagnostics& print;
};

// The key of calls that are nobody's but their caller's. Their replies name them by their token.
inline constexpr int kKeyApart = 1;

// How a call has ended that got no reply.
CallOutcome OutcomeWithout(bool was_sent, const Connection& connection);

// Tells it on this thread. An exception goes no further.
void Tell(CallCompletion& completion, const CompletionOwner& owner, CallOutcome outcome, std::string reply);

// Waits in a list until somebody wakes it, and is a job of the pool then. Its group counts it from the beginning, so
// that the end of an object waits until every call on it was told: the object wakes them all before.
class AsyncCall final : public Waiter, public Job {
 public:
  AsyncCall(JobGroup& group, CompletionOwner owner, int peer, int key, int timeout_ms,
            std::unique_ptr<CallCompletion> completion);

  // Lists the call and sends its request. Whatever comes of it is told, unless this throws.
  static void Begin(std::unique_ptr<AsyncCall> call, Waiters& waiters, const std::shared_ptr<Connection>& connection,
                    Frame request);
  // Has it told that nothing was sent.
  static void Refuse(std::unique_ptr<AsyncCall> call);

  void Run() override;

 private:
  void OnWoken(std::optional<std::string> reply) override;
  void End(CallOutcome outcome);

  const CompletionOwner owner_;
  const std::unique_ptr<CallCompletion> completion_;
  std::shared_ptr<Connection> connection_;
  CallOutcome outcome_ = CallOutcome::kNotSent;
  std::string reply_;
};

}  // namespace mivo

#endif  // MIVO_CALLS_ASYNC_CALL_H_
