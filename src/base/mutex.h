// The mutex of this library: std::mutex with annotations that clang can check.
#ifndef MIVO_BASE_MUTEX_H_
#define MIVO_BASE_MUTEX_H_

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "base/thread_annotations.h"

namespace mivo {

// Constant-initialised and trivially destroyed, so that a process-wide one works before main and during exit.
class MIVO_CAPABILITY("mutex") Mutex {
 public:
  constexpr Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() MIVO_ACQUIRE() { mutex_.lock(); }
  void unlock() MIVO_RELEASE() { mutex_.unlock(); }

 private:
  friend class Condition;
  std::mutex mutex_;
};

class MIVO_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) MIVO_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() MIVO_RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

// A condition of what a Mutex guards. Notify while holding the mutex: then a waiter that destroys the condition as soon
// as it wakes cannot do so under the notifier's feet.
class Condition {
 public:
  void Wait(Mutex& mutex) MIVO_REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
    condition_.wait(lock);
    lock.release();
  }
  // False once the time is over.
  bool WaitUntil(Mutex& mutex, std::chrono::steady_clock::time_point deadline) MIVO_REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
    const std::cv_status status = condition_.wait_until(lock, deadline);
    lock.release();
    return status == std::cv_status::no_timeout;
  }
  void NotifyOne() { condition_.notify_one(); }
  void NotifyAll() { condition_.notify_all(); }

 private:
  std::condition_variable condition_;
};

}  // namespace mivo

#endif  // MIVO_BASE_MUTEX_H_
