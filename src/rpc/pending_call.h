// A call that no thread waits for, or a post: until it is sent, and sent again.
#ifndef MIVO_RPC_PENDING_CALL_H_
#define MIVO_RPC_PENDING_CALL_H_

#include <mivo/calls.h>
#include <mivo/params.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace mivo {
namespace rpc {

using Clock = std::chrono::steady_clock;

// What holds for a call beside its name and arguments.
struct Terms {
  int timeout_ms;  // as <mivo/calls.h> has it
  bool is_idempotent;
};

inline Clock::time_point EndOf(int timeout_ms) {
  constexpr std::chrono::hours kNever{24 * 365 * 100};
  return Clock::now() + (timeout_ms < 1 ? kNever : std::chrono::milliseconds(timeout_ms));
}

// What is left of a time-out that is over at `end`.
inline int LeftOf(int timeout_ms, Clock::time_point end) {
  if (timeout_ms < 1) return 0;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
  return static_cast<int>(std::max<std::int64_t>(1, left));
}

// How a call has ended that was attempted again: what has been sent once stays sent.
inline CallOutcome Later(CallOutcome so_far, CallOutcome outcome) {
  return outcome == CallOutcome::kNotSent ? so_far : outcome;
}

struct PendingCall {
  // Takes the arguments.
  PendingCall(const char* method, MIVOParams& arguments, Terms its_terms)
      : name(method), terms(its_terms), end(EndOf(its_terms.timeout_ms)) {
    request.GetParamas()->swap(*arguments.GetParamas());
  }

  const std::string name;
  MIVOParams request;
  const Terms terms;
  const Clock::time_point end;
  bool may_wait = false;
  unsigned int losses = 0;                     // when it was sent
  CallOutcome so_far = CallOutcome::kNotSent;  // of all attempts
  std::unique_ptr<CallCompletion> completion;  // null: a post
};

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_PENDING_CALL_H_
