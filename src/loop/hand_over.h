// The queue by which other threads hand things to a loop thread.
#ifndef MIVO_LOOP_HAND_OVER_H_
#define MIVO_LOOP_HAND_OVER_H_

#include <uv.h>

#include <functional>
#include <utility>
#include <vector>

#include "base/mutex.h"
#include "loop/wakeup.h"

namespace mivo {

// First in, first out. The loop is woken once for all that came before it looked.
//
// Whoever pushes successfully may rely on it: the item reaches `drain`, or comes back from Close. So a caller that
// waits for an item's completion lists itself first and pushes then: either the push is refused, or somebody will wake
// it.
template <class Item>
class HandOver {
 public:
  using Drain = std::function<void(std::vector<Item>)>;

  // Loop thread. `drain` takes the items there. Returns libuv's result.
  int Open(uv_loop_t* loop, Drain drain) {
    drain_ = std::move(drain);
    const int status = wakeup_.Open(loop, [this] { DrainNow(); });
    if (status < 0) return status;
    MutexLock lock(mutex_);
    open_ = true;
    return 0;
  }

  // Any thread. False when closed: the item was not taken.
  bool Push(Item item) {
    bool first = false;
    {
      MutexLock lock(mutex_);
      if (!open_) return false;
      first = items_.empty();
      items_.push_back(std::move(item));
    }
    if (first) wakeup_.Send();
    return true;
  }

  // Loop thread. Hands on what is queued at this moment.
  void DrainNow() {
    std::vector<Item> items = Take();
    if (!items.empty()) drain_(std::move(items));
  }

  // Loop thread. Takes no more; returns what was pushed and not handed on. May be repeated.
  std::vector<Item> Close() {
    {
      MutexLock lock(mutex_);
      open_ = false;
    }
    wakeup_.Close();
    return Take();
  }

 private:
  std::vector<Item> Take() {
    std::vector<Item> items;
    MutexLock lock(mutex_);
    items.swap(items_);
    return items;
  }

  Drain drain_;
  Wakeup wakeup_;
  Mutex mutex_;
  bool open_ MIVO_GUARDED_BY(mutex_) = false;
  std::vector<Item> items_ MIVO_GUARDED_BY(mutex_);
};

}  // namespace mivo

#endif  // MIVO_LOOP_HAND_OVER_H_
