// A libuv loop, the thread that runs it, and the end of its turns.
#ifndef MIVO_LOOP_EVENT_LOOP_H_
#define MIVO_LOOP_EVENT_LOOP_H_

#include <uv.h>

#include <array>
#include <atomic>
#include <functional>
#include <thread>
#include <vector>

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
  bool InThread() const { return thread_.load() == std::this_thread::get_id(); }

  // Whether the calling thread runs any loop of this library.
  static bool InAnyThread();

  // Loop thread. Runs until no handle and no work is left / until `done` holds.
  void Run();
  void RunUntil(const std::function<bool()>& done);

  // Loop thread. Runs `job` once before the loop waits for events again. What many callbacks of one turn have collected
  // is thus carried out together, and an object can be destroyed outside its own callback.
  void AtTurnEnd(std::function<void()> job);

  // Loop thread, or nobody runs the loop. All handles of others must be closed or closing: waits for their callbacks
  // and for work on the pool, then closes the loop. May be repeated.
  void Close();

  // Loop thread. libuv asks for a buffer, reads into it and delivers it before it asks again, and nobody keeps a chunk
  // beyond its delivery: one buffer serves every stream of the loop.
  uv_buf_t ReadBuffer() { return uv_buf_init(read_buffer_.data(), static_cast<unsigned int>(read_buffer_.size())); }

  bool is_open() const { return open_; }
  uv_loop_t* uv() { return &loop_; }

 private:
  void RunTurnEndJobs();

  uv_loop_t loop_{};
  bool open_ = false;
  // Written by the thread that starts or stops running the loop, read by any that asks whether it is the one.
  std::atomic<std::thread::id> thread_{};
  Handle<uv_prepare_t> before_wait_;
  Handle<uv_check_t> after_wait_;
  std::vector<std::function<void()>> turn_end_jobs_;
  std::array<char, 65536> read_buffer_;
};

}  // namespace mivo

#endif  // MIVO_LOOP_EVENT_LOOP_H_
