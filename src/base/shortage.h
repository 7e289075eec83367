// Telling a shortage from other failures.
#ifndef MIVO_BASE_SHORTAGE_H_
#define MIVO_BASE_SHORTAGE_H_

#include <cerrno>

namespace mivo {

// Whether accepting has failed because the process or the system has run out of descriptors or memory. `status` is the
// negative errno, as libuv gives it.
//
// Such a failure leaves the connection where it is, and comes back for as long as the shortage lasts, with the next
// connection or without one. libuv then asks and reports without ever returning to its loop; all that stops it is that
// the listening handle is closed in the report. Other failures take the connection with them.
constexpr bool IsShortage(int status) {
  return status == -EMFILE || status == -ENFILE || status == -ENOBUFS || status == -ENOMEM;
}

}  // namespace mivo

#endif  // MIVO_BASE_SHORTAGE_H_
