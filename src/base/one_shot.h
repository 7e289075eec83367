// Something that happens once, and a thread that waits for it.
#ifndef MIVO_BASE_ONE_SHOT_H_
#define MIVO_BASE_ONE_SHOT_H_

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

 private:
  Mutex mutex_;
  Condition condition_;
  bool set_ MIVO_GUARDED_BY(mutex_) = false;
};

}  // namespace mivo

#endif  // MIVO_BASE_ONE_SHOT_H_
