// Which process an object belongs to.
#ifndef MIVO_RPC_PROCESS_H_
#define MIVO_RPC_PROCESS_H_

#include <unistd.h>

#include <atomic>

namespace mivo {
namespace rpc {

// A child of fork has copies of its parent's objects, but none of the threads that make them work.
class ProcessMark {
 public:
  bool IsThisProcess() const { return ::getpid() == process_; }

 private:
  const pid_t process_ = ::getpid();
};

// Something that cannot be ended here stays for the rest of the process, in the sight of whoever looks for memory that
// was lost. T has a T* `left_before`.
template <class T>
void LeaveBehind(T* object) {
  static std::atomic<T*> last{nullptr};
  object->left_before = last.exchange(object);
}

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_PROCESS_H_
