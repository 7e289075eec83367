// The number that a call carries for its thread.
#ifndef MIVO_TESTS_SUPPORT_THREAD_ID_H_
#define MIVO_TESTS_SUPPORT_THREAD_ID_H_

#include <sys/syscall.h>
#include <unistd.h>

namespace mivo_test {

inline int ThreadId() {
  return static_cast<int>(syscall(SYS_gettid));
}

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_THREAD_ID_H_
