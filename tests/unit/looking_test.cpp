#include "base/looking.h"

#include <gtest/gtest.h>

#include <cstdint>

#include "base/clock.h"

namespace mivo {
namespace {

constexpr std::int64_t kUs = 1000;
constexpr std::int64_t kMs = 1000 * kUs;
constexpr std::int64_t kPatience = 50 * kUs;
constexpr std::int64_t kShortestPause = 20 * kMs;
constexpr std::int64_t kLongestPause = 1000 * kMs;

// The time is given by hand: a look away that began `ago` has taken at least as long.
void GiveAwaySince(Looking& looking, std::int64_t ago) {
  looking.GiveAway(NowNs() - ago);
}

// Until when looking is left, to the microsecond; 0 if it is not.
std::int64_t LeftUntil(Looking looking) {
  const auto may_at = [&looking](std::int64_t time_ns) {
    looking.Saw(time_ns);
    return looking.MayGoOn(time_ns);
  };
  std::int64_t no = 0;
  if (may_at(no)) return 0;
  std::int64_t yes = NowNs() + 10 * kLongestPause;
  EXPECT_TRUE(may_at(yes));
  while (yes - no > kUs) {
    const std::int64_t middle = no + (yes - no) / 2;
    (may_at(middle) ? yes : no) = middle;
  }
  return yes;
}

TEST(Looking, BeginsWithTheFirstThatCame) {
  Looking looking;
  EXPECT_FALSE(looking.MayGoOn(0));
  EXPECT_FALSE(looking.MayGoOn(kPatience));
  EXPECT_FALSE(looking.MayGoOn(NowNs()));
  looking.Saw(NowNs());
  const std::int64_t saw = NowNs();
  looking.Saw(saw);
  EXPECT_TRUE(looking.MayGoOn(saw));
}

TEST(Looking, EndsWhenNothingHasComeForAWhile) {
  Looking looking;
  looking.Saw(1000 * kMs);
  EXPECT_TRUE(looking.MayGoOn(1000 * kMs + kPatience - 1));
  EXPECT_FALSE(looking.MayGoOn(1000 * kMs + kPatience));
  // Each thing that comes begins the while anew.
  looking.Saw(1000 * kMs + kPatience);
  EXPECT_TRUE(looking.MayGoOn(1000 * kMs + 2 * kPatience - 1));
  EXPECT_FALSE(looking.MayGoOn(1000 * kMs + 2 * kPatience));
}

TEST(Looking, IsLeftForAWhileWhenTwoLooksAwayWereLong) {
  Looking looking;
  GiveAwaySince(looking, kMs);
  const std::int64_t before = NowNs();
  GiveAwaySince(looking, kMs);
  const std::int64_t after = NowNs();
  const std::int64_t until = LeftUntil(looking);
  EXPECT_GE(until, before + kShortestPause);
  EXPECT_LE(until, after + kShortestPause + kUs);
}

TEST(Looking, GoesOnAfterOneThatWasLong) {
  // Where the machine holds this thread up by itself, there may have been two: one time without that is enough.
  bool went_on = false;
  for (int i = 0; i < 1000 && !went_on; ++i) {
    Looking looking;
    GiveAwaySince(looking, kMs);
    went_on = LeftUntil(looking) == 0;
  }
  EXPECT_TRUE(went_on);
}

TEST(Looking, IsLeftForTwiceAsLongEachTimeUpToASecond) {
  Looking looking;
  GiveAwaySince(looking, kMs);
  for (std::int64_t pause = kShortestPause; pause < 4 * kLongestPause; pause *= 2) {
    const std::int64_t before = NowNs();
    GiveAwaySince(looking, kMs);
    const std::int64_t after = NowNs();
    const std::int64_t expected = pause < kLongestPause ? pause : kLongestPause;
    EXPECT_GE(LeftUntil(looking), before + expected) << pause;
    EXPECT_LE(LeftUntil(looking), after + expected + kUs) << pause;
  }
}

TEST(Looking, GoesOnWhenTheProcessorIsFree) {
  // On a busy machine a single look away may be long: one short one is enough.
  bool was_short = false;
  for (int i = 0; i < 10000 && !was_short; ++i) {
    Looking looking;
    const std::int64_t now = NowNs();
    looking.GiveAway(now);
    was_short = LeftUntil(looking) == 0;
    if (was_short) {
      looking.Saw(now);
      EXPECT_TRUE(looking.MayGoOn(now));
    } else {
      EXPECT_GE(NowNs() - now, 200 * kUs);
    }
  }
  EXPECT_TRUE(was_short);
}

}  // namespace
}  // namespace mivo
