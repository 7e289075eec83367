// The number that ties a call to its reply.
#ifndef MIVO_BASE_CALL_KEY_H_
#define MIVO_BASE_CALL_KEY_H_

#include <sys/syscall.h>
#include <unistd.h>

namespace mivo {

// `key` if it is not 0, else the calling thread's id, asked of the kernel each time: a child of fork has another.
inline int CallKey(int key) {
  return key != 0 ? key : static_cast<int>(::syscall(SYS_gettid));
}

}  // namespace mivo

#endif  // MIVO_BASE_CALL_KEY_H_
