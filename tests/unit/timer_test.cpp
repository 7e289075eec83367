#include "loop/timer.h"

#include <gtest/gtest.h>
#include <uv.h>

#include "support/uv_faults.h"
#include "unit/test_loop.h"

namespace mivo {
namespace {

using mivo_test::Fault;
using mivo_test::ScopedFault;
// libuv counts whole milliseconds of its clock: between two readings of another one a millisecond may be missing.
constexpr long long kGranularityMs = 1;

TEST(Timer, TicksFirstAndThenAgainAndAgain) {
  TestLoop loop;
  Timer timer;
  EXPECT_FALSE(timer.is_started());
  const mivo_test::Stopwatch watch;
  int ticks = 0;
  long long first_ms = 0;
  ASSERT_EQ(timer.Start(loop.uv(), 30, 5,
                        [&] {
                          if (++ticks == 1) first_ms = watch.ElapsedMs();
                        }),
            0);
  EXPECT_TRUE(timer.is_started());
  EXPECT_TRUE(loop.RunUntil([&] { return ticks == 4; }));
  EXPECT_GE(first_ms, 30 - kGranularityMs);
  EXPECT_GE(watch.ElapsedMs(), 30 + 3 * 5 - kGranularityMs);
  timer.Close();
  EXPECT_FALSE(timer.is_started());
}

TEST(Timer, CountsFromTheStartAlsoOnALoopThatWasNotRun) {
  TestLoop loop;
  // Nothing waits for this: it only makes the loop's idea of the time an old one.
  uv_sleep(60);
  const mivo_test::Stopwatch watch;
  long long first_ms = -1;
  Timer timer;
  ASSERT_EQ(timer.Start(loop.uv(), 50, 0, [&] { first_ms = watch.ElapsedMs(); }), 0);
  EXPECT_TRUE(loop.RunUntil([&] { return first_ms >= 0; }));
  EXPECT_GE(first_ms, 50 - kGranularityMs);
  timer.Close();
}

TEST(Timer, TakesAnotherPeriodFromItsTick) {
  TestLoop loop;
  Timer timer;
  const mivo_test::Stopwatch watch;
  int ticks = 0;
  long long first_ms = 0;
  long long second_ms = 0;
  ASSERT_EQ(timer.Start(loop.uv(), 1, 1000000,
                        [&] {
                          if (++ticks == 1) {
                            first_ms = watch.ElapsedMs();
                            timer.SetRepeat(40);
                          } else if (ticks == 2) {
                            second_ms = watch.ElapsedMs();
                          }
                        }),
            0);
  EXPECT_TRUE(loop.RunUntil([&] { return ticks == 3; }));
  EXPECT_GE(second_ms - first_ms, 40 - 2 * kGranularityMs);
  timer.Close();
}

TEST(Timer, IsSilentOnceClosedAlsoByItsTick) {
  TestLoop loop;
  Timer timer;
  int ticks = 0;
  ASSERT_EQ(timer.Start(loop.uv(), 1, 1,
                        [&] {
                          ++ticks;
                          timer.Close();
                        }),
            0);
  loop.RunOut();
  EXPECT_EQ(ticks, 1);
  timer.Close();
}

TEST(Timer, CanBeStartedAgainAfterAClose) {
  TestLoop loop;
  Timer timer;
  ASSERT_EQ(timer.Start(loop.uv(), 1000000, 0, [] {}), 0);
  timer.Close();
  bool ticked = false;
  ASSERT_EQ(timer.Start(loop.uv(), 1, 0, [&] { ticked = true; }), 0);
  EXPECT_TRUE(loop.RunUntil([&] { return ticked; }));
  timer.Close();
}

TEST(Timer, SaysWhatLibuvSaysWhenItCannotStart) {
  TestLoop loop;
  Timer timer;
  {
    const ScopedFault fault(Fault::kTimerInit, 1, 1, UV_ENOMEM);
    EXPECT_EQ(timer.Start(loop.uv(), 1, 1, [] {}), UV_ENOMEM);
    EXPECT_FALSE(timer.is_started());
  }
  {
    const ScopedFault fault(Fault::kTimerStart, 1, 1, UV_EINVAL);
    EXPECT_EQ(timer.Start(loop.uv(), 1, 1, [] {}), UV_EINVAL);
  }
  timer.Close();
}

}  // namespace
}  // namespace mivo
