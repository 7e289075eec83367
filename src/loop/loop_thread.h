// The thread that runs an object's loop.
#ifndef MIVO_LOOP_LOOP_THREAD_H_
#define MIVO_LOOP_LOOP_THREAD_H_

#include <functional>
#include <thread>

#include "base/mutex.h"

namespace mivo {

// SIGPIPE is blocked on it, and in what is started there.
class LoopThread {
 public:
  // `name` is seen by debuggers; it outlives this object and has at most 15 characters.
  explicit LoopThread(const char* name) : name_(name) {}
  ~LoopThread() { Join(); }
  LoopThread(const LoopThread&) = delete;
  LoopThread& operator=(const LoopThread&) = delete;

  // Runs `body` on a new thread; false when the system has none left. After a Join it can be started again.
  bool Start(std::function<void()> body);

  // Waits until the body has returned. From several threads at once: each waits. Not on the thread itself.
  void Join();

 private:
  const char* const name_;
  Mutex mutex_;
  std::thread thread_ MIVO_GUARDED_BY(mutex_);
};

}  // namespace mivo

#endif  // MIVO_LOOP_LOOP_THREAD_H_
