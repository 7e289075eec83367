#include "calls/waiters.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <optional>

#include "base/clock.h"
#include "unit/test_waiter.h"

namespace mivo {
namespace {

using ZeroTimeout = Waiters::ZeroTimeout;

constexpr int kPeer = 16;
constexpr int kKey = 9;
constexpr std::int64_t kMs = 1'000'000;
constexpr std::int64_t kDay = 24LL * 60 * 60 * 1000 * kMs;

// Listed or not? Taking it back tells, and lists it again.
bool IsListed(Waiters& waiters, Waiter& waiter) {
  if (!waiters.Unlist(waiter)) return false;
  waiters.List(waiter);
  return true;
}

TEST(Waiters, ExpireStrictlyAfterTheirTimeout) {
  Waiters waiters(ZeroTimeout::kWaitsForEver);
  const std::int64_t before = NowNs();
  TestWaiter waiter(kPeer, kKey, 100000);
  const std::int64_t after = NowNs();
  waiters.List(waiter);
  waiters.Sweep(before + 100000 * kMs);
  EXPECT_TRUE(IsListed(waiters, waiter));
  waiters.Sweep(after + 100000 * kMs + 1);
  EXPECT_FALSE(IsListed(waiters, waiter));
  EXPECT_EQ(waiter.Wait(), std::nullopt);
}

TEST(Waiters, DoNotExpireByAClockThatWasReadBeforeTheyBegan) {
  Waiters waiters(ZeroTimeout::kEndsAtNextSweep);
  TestWaiter short_one(kPeer, kKey, 1);
  TestWaiter zero(kPeer, kKey, 0);
  waiters.List(short_one);
  waiters.List(zero);
  waiters.Sweep(NowNs() - 1000 * kMs);
  waiters.Sweep(NowNs() - kDay);
  EXPECT_TRUE(IsListed(waiters, short_one));
  EXPECT_TRUE(IsListed(waiters, zero));
  EXPECT_TRUE(waiters.Unlist(short_one));
  EXPECT_TRUE(waiters.Unlist(zero));
}

TEST(Waiters, ExpireOneByOne) {
  Waiters waiters(ZeroTimeout::kWaitsForEver);
  TestWaiter sooner(kPeer, 1, 1000);
  TestWaiter later(kPeer, 2, 1000000);
  waiters.List(sooner);
  waiters.List(later);
  waiters.Sweep(NowNs() + 10000 * kMs);
  EXPECT_EQ(sooner.Wait(), std::nullopt);
  EXPECT_TRUE(waiters.Unlist(later));
}

TEST(Waiters, OfAClientWaitForEverWithoutATimeout) {
  Waiters waiters(ZeroTimeout::kWaitsForEver);
  TestWaiter waiter(kPeer, kKey, 0);
  waiters.List(waiter);
  waiters.Sweep(NowNs() + 1000 * kDay);
  EXPECT_TRUE(waiters.Unlist(waiter));
}

TEST(Waiters, OfAServerEndAtTheNextSweepWithoutATimeout) {
  Waiters waiters(ZeroTimeout::kEndsAtNextSweep);
  const std::int64_t before = NowNs();
  TestWaiter waiter(kPeer, kKey, 0);
  const std::int64_t after = NowNs();
  waiters.List(waiter);
  // At its beginning it has waited for nothing yet.
  waiters.Sweep(before);
  EXPECT_TRUE(IsListed(waiters, waiter));
  waiters.Sweep(after + 1);
  EXPECT_EQ(waiter.Wait(), std::nullopt);
}

TEST(Waiters, TakeANegativeTimeoutForSomeFiftyDays) {
  for (const ZeroTimeout zero : {ZeroTimeout::kWaitsForEver, ZeroTimeout::kEndsAtNextSweep}) {
    Waiters waiters(zero);
    TestWaiter minus_one(kPeer, kKey, -1);
    TestWaiter least(kPeer, kKey, INT_MIN);
    waiters.List(minus_one);
    waiters.List(least);
    waiters.Sweep(NowNs() + 24 * kDay);
    EXPECT_TRUE(IsListed(waiters, minus_one));
    EXPECT_TRUE(IsListed(waiters, least));
    waiters.Sweep(NowNs() + 25 * kDay);
    EXPECT_EQ(least.Wait(), std::nullopt);
    EXPECT_TRUE(IsListed(waiters, minus_one));
    waiters.Sweep(NowNs() + 50 * kDay);
    EXPECT_EQ(minus_one.Wait(), std::nullopt);
  }
}

TEST(Waiters, KnowTheSweepThatEndsAWait) {
  // The one at that moment does, the one before it does not.
  for (const std::int64_t step : {kMs, 100 * kMs, std::int64_t{7}}) {
    for (const int timeout : {1, 100, 12345, -1, INT_MIN}) {
      Waiters waiters(ZeroTimeout::kWaitsForEver);
      waiters.AnnounceSweep(NowNs() - step, step);
      TestWaiter waiter(kPeer, kKey, timeout);
      waiters.List(waiter);
      const std::optional<std::int64_t> last = waiters.LastSweepFor(waiter);
      ASSERT_TRUE(last);
      waiters.Sweep(*last - step);
      EXPECT_TRUE(IsListed(waiters, waiter)) << step << " " << timeout;
      waiters.Sweep(*last);
      EXPECT_FALSE(IsListed(waiters, waiter)) << step << " " << timeout;
    }
  }
}

TEST(Waiters, KnowThatTheNextSweepEndsAShortWait) {
  Waiters waiters(ZeroTimeout::kEndsAtNextSweep);
  const std::int64_t next = NowNs() + kDay;
  waiters.AnnounceSweep(next, kMs);
  EXPECT_EQ(waiters.LastSweepFor(TestWaiter(kPeer, kKey, 0)), next);
  EXPECT_EQ(waiters.LastSweepFor(TestWaiter(kPeer, kKey, 1)), next);
  waiters.AnnounceSweep(next + 5, kMs);
  EXPECT_EQ(waiters.LastSweepFor(TestWaiter(kPeer, kKey, 1)), next + 5);
}

TEST(Waiters, KnowThatNoSweepEndsAWaitForEver) {
  Waiters of_a_client(ZeroTimeout::kWaitsForEver);
  of_a_client.AnnounceSweep(NowNs(), kMs);
  EXPECT_EQ(of_a_client.LastSweepFor(TestWaiter(kPeer, kKey, 0)), std::nullopt);
  Waiters of_a_server(ZeroTimeout::kEndsAtNextSweep);
  of_a_server.AnnounceSweep(NowNs(), kMs);
  EXPECT_NE(of_a_server.LastSweepFor(TestWaiter(kPeer, kKey, 0)), std::nullopt);
}

TEST(Waiters, TakeAStepOfNothingForTheSmallest) {
  Waiters waiters(ZeroTimeout::kEndsAtNextSweep);
  const std::int64_t next = NowNs();
  waiters.AnnounceSweep(next, 0);
  const TestWaiter waiter(kPeer, kKey, 1);
  const std::int64_t after = NowNs();
  const std::optional<std::int64_t> last = waiters.LastSweepFor(waiter);
  ASSERT_TRUE(last);
  EXPECT_GT(*last, next + kMs);
  EXPECT_LE(*last, after + kMs + 1);
}

}  // namespace
}  // namespace mivo
