#include "base/wake_word.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <thread>

#include "base/clock.h"
#include "support/event.h"

namespace mivo {
namespace {

constexpr std::int64_t kNsPerMs = 1'000'000;
constexpr std::uint32_t kFirst = 1;
constexpr std::uint32_t kSecond = 2;

TEST(WakeWord, IsNotSleptForWhenABitIsSet) {
  WakeWord word;
  EXPECT_EQ(word.bits(), 0U);
  word.Set(kFirst);
  EXPECT_EQ(word.bits(), kFirst);
  EXPECT_TRUE(word.Sleep());
  word.Set(kSecond);
  EXPECT_EQ(word.bits(), kFirst | kSecond);
  EXPECT_TRUE(word.Sleep(0));
}

TEST(WakeWord, WakesWhoeverSleeps) {
  WakeWord word;
  int written = 0;
  mivo_test::Event sleeps;
  std::thread other([&] {
    sleeps.WaitFor();
    written = 7;
    word.Set(kSecond);
  });
  sleeps.Signal();
  EXPECT_TRUE(word.Sleep());
  EXPECT_EQ(word.bits(), kSecond);
  EXPECT_EQ(written, 7) << "what was written before is seen";
  other.join();
}

TEST(WakeWord, IsSleptForUntilTheDeadlineAndNotLess) {
  WakeWord word;
  const std::int64_t deadline_ns = NowNs() + 20 * kNsPerMs;
  EXPECT_FALSE(word.Sleep(deadline_ns));
  EXPECT_GE(NowNs(), deadline_ns);
  EXPECT_EQ(word.bits(), 0U);
  word.Set(kFirst);
  EXPECT_TRUE(word.Sleep(deadline_ns)) << "a bit that is set counts after the deadline, too";
}

TEST(WakeWord, IsSleptForAgainWhenItsBitWasCleared) {
  WakeWord word;
  word.Set(kFirst | kSecond);
  word.Clear(kFirst);
  EXPECT_EQ(word.bits(), kSecond);
  EXPECT_TRUE(word.Sleep());
  word.Clear(kSecond);
  EXPECT_FALSE(word.Sleep(NowNs()));
}

TEST(WakeWord, MayEndAsSoonAsItsBitIsSeen) {
  for (int round = 0; round < 2000; ++round) {
    auto word = std::make_unique<WakeWord>();
    std::thread other([set = word.get()] { set->Set(kFirst); });
    if (round % 2 == 0) {
      EXPECT_TRUE(word->Sleep());
    } else {
      while (word->bits() == 0)
        std::this_thread::yield();
    }
    word.reset();
    other.join();
  }
}

TEST(WakeWord, LosesNoBitBetweenTwoThatSetAndOneThatSleeps) {
  constexpr int kRounds = 20000;
  WakeWord there;
  WakeWord back;
  std::thread other([&] {
    for (int i = 0; i < kRounds; ++i) {
      there.Sleep();
      there.Clear(kFirst);
      back.Set(i % 2 == 0 ? kFirst : kSecond);
    }
  });
  for (int i = 0; i < kRounds; ++i) {
    there.Set(kFirst);
    ASSERT_TRUE(back.Sleep());
    EXPECT_EQ(back.bits(), i % 2 == 0 ? kFirst : kSecond);
    back.Clear(kFirst | kSecond);
  }
  other.join();
}

}  // namespace
}  // namespace mivo
