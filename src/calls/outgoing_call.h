// The middle of a synchronous call, the same on both sides: list, send, wait.
#ifndef MIVO_CALLS_OUTGOING_CALL_H_
#define MIVO_CALLS_OUTGOING_CALL_H_

#include <chrono>
#include <optional>
#include <string>

#include "calls/waiters.h"
#include "loop/event_loop.h"

namespace mivo {

// Lists `waiter`, then calls `send`, which hands the request on and says whether somebody will wake the waiter: by the
// reply, the sweep, the end of the connection, or the close. Returns the reply's payload, or nothing.
//
// Listed before sent: the reply, or the end of everything, may come before `send` returns.
//
// The sweep that ends calls runs on the loop thread of the object that calls. A loop thread that calls through another
// object may be waited for by that very thread, and looks after its own time-out, when the sweep has had its chance.
template <class Send>
std::optional<std::string> AwaitReply(Waiters& waiters, Waiter& waiter, Send send) {
  constexpr std::chrono::milliseconds kSweepAtTheLatest{600};
  waiters.List(waiter);
  bool is_sent = false;
  try {
    is_sent = send();
  } catch (...) {
    // It must not stay listed when it is gone.
    if (!waiters.Unlist(waiter)) waiter.Wait();
    throw;
  }
  if (!is_sent && waiters.Unlist(waiter)) return std::nullopt;
  if (EventLoop::InAnyThread()) {
    const std::optional<std::chrono::milliseconds> timeout = waiters.TimeoutOf(waiter);
    if (timeout && !waiter.WaitFor(*timeout + kSweepAtTheLatest) && waiters.Unlist(waiter)) return std::nullopt;
  }
  return waiter.Wait();
}

}  // namespace mivo

#endif  // MIVO_CALLS_OUTGOING_CALL_H_
