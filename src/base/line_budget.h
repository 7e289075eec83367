// How many lines one peer may cause.
#ifndef MIVO_BASE_LINE_BUDGET_H_
#define MIVO_BASE_LINE_BUDGET_H_

#include <cstdint>

#include "base/mutex.h"
#include "base/thread_annotations.h"

namespace mivo {

// One for each connection: whoever prints because of what came over it asks here first. Any thread.
//
//   if (!budget.Allow(NowMs())) return;
//   if (const std::int64_t count = budget.TakeSuppressed(NowMs())) WriteLine(CountedLines(count, "suppressed"));
//   ... the line ...
//
// and once more at the connection's end, with TakeAllSuppressed.
class LineBudget {
 public:
  static constexpr int kLinesASecond = 1000;
  static constexpr std::int64_t kSecondMs = 1000;

  // Whether one more line is within the present second's budget; if not, it is counted. The second begins with the
  // first line after the one before.
  bool Allow(std::int64_t now_ms) {
    MutexLock lock(mutex_);
    if (used_ == 0 || IsOver(now_ms)) {
      second_began_ms_ = now_ms;
      used_ = 0;
    }
    if (used_ < kLinesASecond) {
      ++used_;
      return true;
    }
    ++suppressed_;
    return false;
  }

  // How many lines were left out, once the second in which that happened is over; 0 before, or if none were. They are
  // told then: the next call counts anew.
  std::int64_t TakeSuppressed(std::int64_t now_ms) {
    MutexLock lock(mutex_);
    // Lines are left out only when the whole budget is used.
    if (used_ == kLinesASecond && !IsOver(now_ms)) return 0;
    return Take();
  }

  // The same without waiting for the second's end.
  std::int64_t TakeAllSuppressed() {
    MutexLock lock(mutex_);
    return Take();
  }

 private:
  bool IsOver(std::int64_t now_ms) const MIVO_REQUIRES(mutex_) { return now_ms - second_began_ms_ >= kSecondMs; }
  std::int64_t Take() MIVO_REQUIRES(mutex_) {
    const std::int64_t count = suppressed_;
    suppressed_ = 0;
    return count;
  }

  Mutex mutex_;
  std::int64_t second_began_ms_ MIVO_GUARDED_BY(mutex_) = 0;
  int used_ MIVO_GUARDED_BY(mutex_) = 0;
  std::int64_t suppressed_ MIVO_GUARDED_BY(mutex_) = 0;
};

}  // namespace mivo

#endif  // MIVO_BASE_LINE_BUDGET_H_
