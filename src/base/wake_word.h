// What one thread sleeps for, in one word.
#ifndef MIVO_BASE_WAKE_WORD_H_
#define MIVO_BASE_WAKE_WORD_H_

#include <atomic>
#include <cstdint>
#include <optional>

#include "base/futex.h"

namespace mivo {

// Bits that any thread sets and one thread, the owner, sleeps for. To set one costs a system call only while the owner
// sleeps; with a mutex and a condition the one who is woken runs into the lock of the one who wakes it.
//
// What was written before a bit was set is seen by the owner once it has seen the bit. The owner may destroy the word
// then: the one who has set it touches it no more.
class WakeWord {
 public:
  // Any thread. Not the highest bit.
  void Set(std::uint32_t bits) {
    if ((word_.fetch_or(bits, std::memory_order_acq_rel) & kAsleep) != 0) FutexWake(word_);
  }

  // Any thread.
  std::uint32_t bits() const { return word_.load(std::memory_order_acquire) & ~kAsleep; }

  // The owner, both.
  void Clear(std::uint32_t bits) { word_.fetch_and(~bits, std::memory_order_acq_rel); }
  // Until a bit is set, or until `deadline_ns` by NowNs: false if then none is.
  bool Sleep(std::optional<std::int64_t> deadline_ns = std::nullopt) {
    bool in_time = true;
    while (bits() == 0 && in_time) {
      std::uint32_t awake = 0;
      word_.compare_exchange_strong(awake, kAsleep, std::memory_order_acq_rel);
      in_time = FutexSleep(word_, kAsleep, deadline_ns);
    }
    return (word_.fetch_and(~kAsleep, std::memory_order_acq_rel) & ~kAsleep) != 0;
  }

 private:
  static constexpr std::uint32_t kAsleep = 0x80000000;

  std::atomic<std::uint32_t> word_{0};
};

}  // namespace mivo

#endif  // MIVO_BASE_WAKE_WORD_H_
