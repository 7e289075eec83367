// Which process an object belongs to.
#ifndef MIVO_RPC_PROCESS_H_
#define MIVO_RPC_PROCESS_H_

#include <unistd.h>

namespace mivo {
namespace rpc {

// A child of fork has copies of its parent's objects, but none of the threads that make them work.
class ProcessMark {
 public:
  bool IsThisProcess() const { return ::getpid() == process_; }

 private:
  const pid_t process_ = ::getpid();
};

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_PROCESS_H_
