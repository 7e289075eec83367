#include "pool/usual_times.h"

#include <gtest/gtest.h>

namespace mivo {
namespace {

constexpr std::size_t kFast = 3;
constexpr std::size_t kSlow = 4;
constexpr std::int64_t kUs = 1000;

TEST(UsualTimes, TakeWhatIsNotKnownForFast) {
  const UsualTimes times;
  EXPECT_FALSE(times.IsSlow(0));
  EXPECT_FALSE(times.IsSlow(kSlow));
}

TEST(UsualTimes, KnowWhatWasSlowTwice) {
  UsualTimes times;
  times.Count(kSlow, 300 * kUs);
  times.Count(kSlow, 300 * kUs);
  EXPECT_TRUE(times.IsSlow(kSlow));
  EXPECT_FALSE(times.IsSlow(kFast)) << "other kinds are no slower for it";
}

TEST(UsualTimes, DoNotTakeOneDelayForSlowness) {
  UsualTimes times;
  for (int i = 0; i < 100; ++i)
    times.Count(kFast, kUs);
  times.Count(kFast, 3'000'000 * kUs);
  for (int i = 0; i < 3; ++i)
    times.Count(kFast, kUs);
  EXPECT_FALSE(times.IsSlow(kFast));
}

TEST(UsualTimes, ForgetWhatIsOver) {
  UsualTimes times;
  for (int i = 0; i < 100; ++i)
    times.Count(kSlow, 500 * kUs);
  EXPECT_TRUE(times.IsSlow(kSlow));
  for (int i = 0; i < 100; ++i)
    times.Count(kSlow, kUs);
  EXPECT_FALSE(times.IsSlow(kSlow));
}

}  // namespace
}  // namespace mivo
