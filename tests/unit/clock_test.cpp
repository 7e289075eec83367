#include "base/clock.h"

#include <gtest/gtest.h>
#include <time.h>

#include <cstdint>

namespace mivo {
namespace {

std::int64_t MonotonicMs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

TEST(Clock, CountsMillisecondsOfTheMonotonicClock) {
  const std::int64_t before = MonotonicMs();
  const std::int64_t now = NowMs();
  const std::int64_t after = MonotonicMs();
  EXPECT_LE(before, now);
  EXPECT_LE(now, after);
}

TEST(Clock, DoesNotGoBack) {
  std::int64_t last = NowMs();
  for (int i = 0; i < 10000; ++i) {
    const std::int64_t now = NowMs();
    ASSERT_GE(now, last);
    last = now;
  }
}

}  // namespace
}  // namespace mivo
