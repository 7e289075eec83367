#include "loop/loop_thread.h"

#include <cassert>
#include <system_error>
#include <utility>

#include "base/library_thread.h"

namespace mivo {

bool LoopThread::Start(std::function<void()> body) {
  MutexLock lock(mutex_);
  assert(!thread_.joinable());
  try {
    thread_ = StartThread(name_, std::move(body));
  } catch (const std::system_error&) {
    return false;
  }
  return true;
}

void LoopThread::Join() {
  MutexLock lock(mutex_);
  if (thread_.joinable()) thread_.join();
}

}  // namespace mivo
