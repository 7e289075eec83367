// Calls a function on the loop thread at the wish of any other.
#ifndef MIVO_LOOP_WAKEUP_H_
#define MIVO_LOOP_WAKEUP_H_

#include <uv.h>

#include <functional>

#include "base/mutex.h"
#include "loop/handle.h"

namespace mivo {

// libuv forbids waking through a handle that is closed, and a closed loop aborts the process. The lock makes "still
// open" and "wake" one step.
class Wakeup {
 public:
  // Loop thread. `wake` will be called there, at least once after each Send. Returns libuv's result.
  int Open(uv_loop_t* loop, std::function<void()> wake);

  // Any thread. False when closed, or not yet open.
  bool Send();

  // Loop thread. May be repeated.
  void Close();

 private:
  std::function<void()> wake_;
  Mutex mutex_;
  Handle<uv_async_t> async_ MIVO_GUARDED_BY(mutex_);
};

}  // namespace mivo

#endif  // MIVO_LOOP_WAKEUP_H_
