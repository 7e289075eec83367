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

// Deletes what has a ProcessMark `process`, but not in a child: what its threads were waiting for would be waited for
// there, too, for ever.
struct DeleteInOwnProcess {
  template <class T>
  void operator()(T* object) const {
    if (object->process.IsThisProcess()) delete object;
  }
};

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_PROCESS_H_
