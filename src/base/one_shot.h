// Something that happens once, and a thread that waits for it.
#ifndef MIVO_BASE_ONE_SHOT_H_
#define MIVO_BASE_ONE_SHOT_H_

#include <chrono>

#include "base/mutex.h"

namespace mivo {

// May live on the waiter's stack: Set touches nothing any more once Wait can return.
class OneShot {
 public:
  // Any thread, once.
  void Set() {
    MutexLock lock(mutex_);
    set_ = true;
    condition_.NotifyAll();
  }

  // Any thread. Returns once Set was called, before or after.
  void Wait() {
    MutexLock lock(mutex_);
    while (!set_)
      condition_.Wait(mutex_);
  }

  // The same, but for `timeout` at most. Returns whether Set was called.
  bool WaitFor(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    MutexLock lock(mutex_);
    while (!set_ && condition_.WaitUntil(mutex_, deadline)) {
    }
    return set_;
  }

 private:
  Mutex mutex_;
  Condition condition_;
  bool set_ MIVO_GUARDED_BY(mutex_) = false;
};

}  // namespace mivo

#endif  // MIVO_BASE_ONE_SHOT_H_
