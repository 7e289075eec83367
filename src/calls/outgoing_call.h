// The middle of a synchronous call, the same on both sides: list, send, wait.
#ifndef MIVO_CALLS_OUTGOING_CALL_H_
#define MIVO_CALLS_OUTGOING_CALL_H_

#include <optional>
#include <string>

#include "calls/waiters.h"

namespace mivo {

// Lists `waiter`, then calls `send`, which hands the request on and says whether somebody will wake the waiter: by the
// reply, the sweep, the end of the connection, or the close. Returns the reply's payload, or nothing.
//
// Listed before sent: the reply, or the end of everything, may come before `send` returns.
template <class Send>
std::optional<std::string> AwaitReply(Waiters& waiters, Waiter& waiter, Send send) {
  waiters.List(waiter);
  if (!send() && waiters.Unlist(waiter)) return std::nullopt;
  return waiter.Wait();
}

}  // namespace mivo

#endif  // MIVO_CALLS_OUTGOING_CALL_H_
