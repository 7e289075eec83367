#include "loop/wakeup.h"

#include <utility>

namespace mivo {

int Wakeup::Open(uv_loop_t* loop, std::function<void()> wake) {
  wake_ = std::move(wake);
  MutexLock lock(mutex_);
  return async_.Open(this, [loop](uv_async_t* handle) {
    return uv_async_init(loop, handle, [](uv_async_t* async) {
      if (async->data != nullptr) static_cast<Wakeup*>(async->data)->wake_();
    });
  });
}

bool Wakeup::Send() {
  MutexLock lock(mutex_);
  return async_ && uv_async_send(async_.get()) == 0;
}

void Wakeup::Close() {
  MutexLock lock(mutex_);
  async_.Close();
}

}  // namespace mivo
