// The thread that runs an object's loop.
#ifndef MIVO_LOOP_LOOP_THREAD_H_
#define MIVO_LOOP_LOOP_THREAD_H_

#include <functional>
#include <thread>

#include "base/mutex.h"

namespace mivo {

// SIGPIPE is blocked on it: libuv writes to sockets whose peer may be gone, and the signal would end the program.
class LoopThread {
 public:
  LoopThread() = default;
  ~LoopThread() { Join(); }
  LoopThread(const LoopThread&) = delete;
  LoopThread& operator=(const LoopThread&) = delete;

  // Runs `body` on a new thread; false when the system has none left. After a Join it can be started again.
  bool Start(std::function<void()> body);

  // Waits until the body has returned. From several threads at once: each waits. Not on the thread itself.
  void Join();

 private:
  Mutex mutex_;
  std::thread thread_ MIVO_GUARDED_BY(mutex_);
};

}  // namespace mivo

#endif  // MIVO_LOOP_LOOP_THREAD_H_
