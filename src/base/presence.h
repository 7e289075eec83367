// How many threads are inside an object's operations.
#ifndef MIVO_BASE_PRESENCE_H_
#define MIVO_BASE_PRESENCE_H_

#include <atomic>
#include <cstdint>

#include "base/futex.h"

namespace mivo {

// A caller that was woken still reads the object it called; whoever destroys that object waits here until all have
// left.
class Presence {
 public:
  class Scope {
   public:
    explicit Scope(Presence& presence) : presence_(presence) { presence_.Enter(); }
    ~Scope() { presence_.Leave(); }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    Presence& presence_;
  };

  // One thread at a time. Whoever leaves last touches nothing any more once this can return.
  void WaitUntilNobody() {
    std::uint32_t inside = inside_.fetch_or(kAwaited, std::memory_order_acq_rel) | kAwaited;
    while (inside != kAwaited) {
      FutexSleep(inside_, inside);
      inside = inside_.load(std::memory_order_acquire);
    }
    inside_.fetch_and(~kAwaited, std::memory_order_relaxed);
  }

 private:
  static constexpr std::uint32_t kAwaited = 0x80000000;

  void Enter() { inside_.fetch_add(1, std::memory_order_acq_rel); }
  void Leave() {
    if (inside_.fetch_sub(1, std::memory_order_acq_rel) == (kAwaited | 1)) FutexWake(inside_);
  }

  std::atomic<std::uint32_t> inside_{0};
};

}  // namespace mivo

#endif  // MIVO_BASE_PRESENCE_H_
