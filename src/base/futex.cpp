#include "base/futex.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

namespace mivo {

static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t) &&
              std::atomic<std::uint32_t>::is_always_lock_free);

bool FutexSleep(std::atomic<std::uint32_t>& word, std::uint32_t expected, std::optional<std::int64_t> deadline_ns) {
  constexpr std::int64_t kNsPerS = 1'000'000'000;
  timespec deadline{};
  if (deadline_ns) deadline = {static_cast<time_t>(*deadline_ns / kNsPerS), static_cast<long>(*deadline_ns % kNsPerS)};
  // This form takes a point in time, of CLOCK_MONOTONIC.
  return ::syscall(SYS_futex, &word, FUTEX_WAIT_BITSET_PRIVATE, expected, deadline_ns ? &deadline : nullptr, nullptr,
                   FUTEX_BITSET_MATCH_ANY) == 0 ||
         errno != ETIMEDOUT;
}

void FutexWake(std::atomic<std::uint32_t>& word) {
  ::syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

}  // namespace mivo
