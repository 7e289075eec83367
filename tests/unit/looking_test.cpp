#include "base/looking.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>

#include "base/clock.h"

namespace mivo {
namespace {

constexpr std::int64_t kUs = 1000;
constexpr std::int64_t kMs = 1000 * kUs;
constexpr std::int64_t kPatience = 50 * kUs;
constexpr std::int64_t kShortestPause = 20 * kMs;
constexpr std::int64_t kLongestPause = 1000 * kMs;

// A look away of a millisecond that ends at `back`.
void WasAwayUntil(Looking& looking, std::int64_t back) {
  looking.WasAway(back - kMs, back);
}

// Until when looking is left; 0 if it is not.
std::int64_t LeftUntil(Looking looking) {
  const auto may_at = [&looking](std::int64_t time_ns) {
    looking.Saw(time_ns);
    return looking.MayGoOn(time_ns);
  };
  std::int64_t no = 0;
  if (may_at(no)) return 0;
  std::int64_t yes = NowNs() + 100 * kLongestPause;
  EXPECT_TRUE(may_at(yes));
  while (yes - no > 1) {
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
  const std::int64_t now = NowNs();
  WasAwayUntil(looking, now);
  EXPECT_EQ(LeftUntil(looking), 0);
  WasAwayUntil(looking, now + 2 * kMs);
  EXPECT_EQ(LeftUntil(looking), now + 2 * kMs + kShortestPause);
}

TEST(Looking, GoesOnWhenTheyWereLongButFarApart) {
  Looking looking;
  const std::int64_t now = NowNs();
  WasAwayUntil(looking, now);
  WasAwayUntil(looking, now + 10 * kMs);
  EXPECT_EQ(LeftUntil(looking), 0);
}

TEST(Looking, IsLeftForTwiceAsLongEachTimeUpToASecond) {
  Looking looking;
  std::int64_t now = NowNs();
  WasAwayUntil(looking, now);
  for (std::int64_t pause = kShortestPause; pause < 4 * kLongestPause; pause *= 2) {
    now += 2 * kMs;
    WasAwayUntil(looking, now);
    EXPECT_EQ(LeftUntil(looking), now + std::min(pause, kLongestPause)) << pause;
  }
}

TEST(Looking, IsLeftForAShortWhileAgainWhenItHasGoneWellForLong) {
  Looking looking;
  std::int64_t now = NowNs();
  for (int i = 0; i < 4; ++i) {
    WasAwayUntil(looking, now);
    now += 2 * kMs;
  }
  now = LeftUntil(looking) + 2 * kLongestPause + 10 * kMs;
  WasAwayUntil(looking, now);
  WasAwayUntil(looking, now + 2 * kMs);
  EXPECT_EQ(LeftUntil(looking), now + 2 * kMs + kShortestPause);
}

TEST(Looking, GoesOnWhenTheProcessorIsFree) {
  // On a busy machine any look away may be long: two short ones are enough.
  bool went_on = false;
  for (int i = 0; i < 10000 && !went_on; ++i) {
    Looking looking;
    const std::int64_t now = NowNs();
    looking.GiveAway(NowNs());
    looking.GiveAway(NowNs());
    went_on = LeftUntil(looking) == 0;
    if (!went_on) {
      EXPECT_GE(NowNs() - now, 400 * kUs);
    }
  }
  EXPECT_TRUE(went_on);
}

}  // namespace
}  // namespace mivo
