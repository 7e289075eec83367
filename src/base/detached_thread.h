// Something that is done on a thread of its own which nobody waits for.
#ifndef MIVO_BASE_DETACHED_THREAD_H_
#define MIVO_BASE_DETACHED_THREAD_H_

#include <system_error>
#include <thread>
#include <utility>

namespace mivo {

// False when the system has no thread left.
template <class Function>
bool RunDetached(Function function) {
  try {
    std::thread(std::move(function)).detach();
  } catch (const std::system_error&) {
    return false;
  }
  return true;
}

}  // namespace mivo

#endif  // MIVO_BASE_DETACHED_THREAD_H_
