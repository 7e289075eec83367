// Telling a lack of descriptors or memory from other failures.
#ifndef MIVO_BASE_OUT_OF_RESOURCES_H_
#define MIVO_BASE_OUT_OF_RESOURCES_H_

#include <cerrno>

namespace mivo {

// Whether a call has failed because the process or the system has run out of descriptors or memory. `status` is the
// negative errno.
//
// Accepting then leaves the connection where it is, and fails again for as long as the lack lasts; asking again at once
// would be asking for ever. Other failures take the connection with them.
constexpr bool IsOutOfResources(int status) {
  return status == -EMFILE || status == -ENFILE || status == -ENOBUFS || status == -ENOMEM;
}

}  // namespace mivo

#endif  // MIVO_BASE_OUT_OF_RESOURCES_H_
