// A repeating timer.
#ifndef MIVO_LOOP_TIMER_H_
#define MIVO_LOOP_TIMER_H_

#include <uv.h>

#include <cstdint>
#include <functional>

#include "loop/handle.h"

namespace mivo {

// Loop thread.
class Timer {
 public:
  // Calls `tick` after `first_ms`, then every `repeat_ms`, counted from now. Returns libuv's result.
  int Start(uv_loop_t* loop, std::uint64_t first_ms, std::uint64_t repeat_ms, std::function<void()> tick);

  // From the tick: the next one comes after `repeat_ms`, and so on.
  void SetRepeat(std::uint64_t repeat_ms);

  void Close() { timer_.Close(); }
  bool is_started() const { return static_cast<bool>(timer_); }

 private:
  std::function<void()> tick_;
  Handle<uv_timer_t> timer_;
};

}  // namespace mivo

#endif  // MIVO_LOOP_TIMER_H_
