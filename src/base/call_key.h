// The number that ties a call to its reply.
#ifndef MIVO_BASE_CALL_KEY_H_
#define MIVO_BASE_CALL_KEY_H_

#include <sys/syscall.h>
#include <unistd.h>

#include "base/process.h"

namespace mivo {

// The calling thread's id, as the kernel counts. Asked once a thread: only a child of fork has another.
inline int KernelThreadId() {
  thread_local unsigned int generation = 0;
  thread_local int id = 0;
  const unsigned int now = ForkGeneration();
  if (id == 0 || generation != now) {
    id = static_cast<int>(::syscall(SYS_gettid));
    generation = now;
  }
  return id;
}

// `key` if it is not 0, else the calling thread's id.
inline int CallKey(int key) {
  return key != 0 ? key : KernelThreadId();
}

}  // namespace mivo

#endif  // MIVO_BASE_CALL_KEY_H_
