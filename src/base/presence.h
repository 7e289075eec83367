// How many threads are inside an object's operations.
#ifndef MIVO_BASE_PRESENCE_H_
#define MIVO_BASE_PRESENCE_H_

#include "base/mutex.h"

namespace mivo {

// A caller that was woken still reads the object it called; whoever destroys that object waits here until all have
// left.
class Presence {
 public:
  class Scope {
   public:
    explicit Scope(Presence& presence) : presence_(presence) { presence_.Enter(); }
    ~Scope() { presence_.Leave(); }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    Presence& presence_;
  };

  void WaitUntilNobody() {
    MutexLock lock(mutex_);
    while (inside_ != 0)
      left_.Wait(mutex_);
  }

 private:
  void Enter() {
    MutexLock lock(mutex_);
    ++inside_;
  }
  void Leave() {
    MutexLock lock(mutex_);
    if (--inside_ == 0) left_.NotifyAll();
  }

  Mutex mutex_;
  Condition left_;
  int inside_ MIVO_GUARDED_BY(mutex_) = 0;
};

}  // namespace mivo

#endif  // MIVO_BASE_PRESENCE_H_
