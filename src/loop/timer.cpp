#include "loop/timer.h"

#include <utility>

namespace mivo {

int Timer::Start(uv_loop_t* loop, std::uint64_t first_ms, std::uint64_t repeat_ms, std::function<void()> tick) {
  tick_ = std::move(tick);
  const int status = timer_.Open(this, [loop](uv_timer_t* handle) { return uv_timer_init(loop, handle); });
  if (status < 0) return status;
  // A loop that was not run for a while has an old idea of the time and would fire early.
  uv_update_time(loop);
  return uv_timer_start(
      timer_.get(),
      [](uv_timer_t* handle) {
        if (handle->data != nullptr) static_cast<Timer*>(handle->data)->tick_();
      },
      first_ms, repeat_ms);
}

void Timer::SetRepeat(std::uint64_t repeat_ms) {
  uv_timer_set_repeat(timer_.get(), repeat_ms);
  uv_timer_again(timer_.get());
}

}  // namespace mivo
