// Which process this is.
#ifndef MIVO_BASE_PROCESS_H_
#define MIVO_BASE_PROCESS_H_

#include <sys/types.h>
#include <unistd.h>

namespace mivo {

// Remembers the process it was made in. A child of fork has copies of its parent's objects, but none of the threads
// that make them work, and their locks as they happened to be.
class ProcessMark {
 public:
  bool IsThisProcess() const { return ::getpid() == process_; }

 private:
  const pid_t process_ = ::getpid();
};

}  // namespace mivo

#endif  // MIVO_BASE_PROCESS_H_
