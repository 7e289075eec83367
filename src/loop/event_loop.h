// A libuv loop, the thread that runs it, and what other threads ask of it.
#ifndef MIVO_LOOP_EVENT_LOOP_H_
#define MIVO_LOOP_EVENT_LOOP_H_

#include <uv.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "loop/handle.h"

namespace mivo {

class EventLoop {
 public:
  EventLoop() = default;
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // Before anything else. Returns libuv's result; after a failure the object is as new.
  int Open();

  // Makes the calling thread the loop thread for as long as the scope lives.
  class ThreadScope {
   public:
    explicit ThreadScope(EventLoop& loop);
    ~ThreadScope();
    ThreadScope(const ThreadScope&) = delete;
    ThreadScope& operator=(const ThreadScope&) = delete;

   private:
    EventLoop& loop_;
  };

  // Whether the calling thread is the one that runs this loop now. Any thread.
  bool InThread() const { return thread_.load(std::memory_order_relaxed) == std::this_thread::get_id(); }

  // Whether the calling thread runs a loop of the library's at all. Others may be waiting for that one.
  static bool InAnyThread();

  // Any thread. Has the loop thread run `task`, after those posted before it. False before Open and after Shut: the
  // task was not taken. One that was taken runs, unless the loop is shut before its turn comes.
  bool Post(std::function<void()> task);

  // Loop thread, or nobody runs the loop. Runs what was posted so far, then takes no more. The loop runs until this was
  // called and every other handle is closed. May be repeated.
  void Shut();

  // Loop thread. Turns the loop until nothing is left that could happen.
  void Run();

  // Loop thread, or nobody runs the loop. All handles of others must be closed or closing: shuts the loop, waits for
  // their callbacks, then closes it. May be repeated.
  void Close();

  bool is_open() const { return open_; }
  uv_loop_t* uv() { return &loop_; }

 private:
  void RunTasks();

  uv_loop_t loop_{};
  bool open_ = false;
  // Written by the thread that starts or stops running the loop, read by any that asks whether it is the one.
  std::atomic<std::thread::id> thread_{};

  Mutex mutex_;
  // libuv forbids waking through a closed handle: the lock makes "still there" and "wake" one step.
  Handle<uv_async_t> wake_ MIVO_GUARDED_BY(mutex_);
  std::vector<std::function<void()>> tasks_ MIVO_GUARDED_BY(mutex_);
};

}  // namespace mivo

#endif  // MIVO_LOOP_EVENT_LOOP_H_
