#include "calls/waiters.h"

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "base/clock.h"
#include "base/identity.h"

namespace mivo {
namespace {

using Woken = Waiters::Woken;
using ZeroTimeout = Waiters::ZeroTimeout;

constexpr int kPeer = 16;
constexpr int kKey = 9;
constexpr std::int64_t kDayMs = 24LL * 60 * 60 * 1000;

const int kOwner = 0;

// Listed or not? Taking it back tells, and lists it again.
bool IsListed(Waiters& waiters, Waiter& waiter) {
  if (!waiters.Unlist(waiter)) return false;
  waiters.List(waiter);
  return true;
}

TEST(Waiter, HasATokenOfItsOwn) {
  std::set<std::uintptr_t> tokens;
  for (int i = 0; i < 1000; ++i) {
    // The same memory again and again, never the same token.
    const Waiter waiter(&kOwner, kPeer, kKey, 0);
    EXPECT_TRUE(IsWaiterToken(waiter.token()));
    EXPECT_TRUE(tokens.insert(waiter.token()).second);
  }
}

TEST(Waiters, GiveTheReplyToTheCallThatItNames) {
  Waiters waiters(ZeroTimeout::kWaitsForEver);
  Waiter waiter(&kOwner, kPeer, kKey, 0);
  Waiter other(&kOwner, kPeer, kKey, 0);
  waiters.List(waiter);
  waiters.List(other);
  std::string reply = "reply";
  EXPECT_EQ(waiters.WakeByToken(waiter.token(), kPeer, kKey, &reply), Woken::kWithReply);
  EXPECT_EQ(waiter.Wait(), "reply");
  EXPECT_TRUE(waiters.Unlist(other));
}

TEST(Waiters, TellAnEmptyReplyFromNone) {
  Waiters waiters(ZeroTimeout::kWaitsForEver);
  Waiter waiter(&kOwner, kPeer, kKey, 0);
  waiters.List(waiter);
  std::string reply;
  EXPECT_EQ(waiters.WakeByToken(waiter.token(), kPeer, kKey, &reply), Woken::kWithReply);
  EXPECT_EQ(waiter.Wait(), std::optional<std::string>(""));
}

TEST(Waiters, AReplyUnderAnotherKeyWakesItsCallWithNothing) {
  Waiters waiters(ZeroTimeout::kWaitsForEver);
  Waiter waiter(&kOwner, kPeer, kKey, 0);
  waiters.List(waiter);
  std::string reply = "reply";
  EXPECT_EQ(waiters.WakeByToken(waiter.token(), kPeer, kKey + 1, &reply), Woken::kWithNothing);
  EXPECT_EQ(waiter.Wait(), std::nullopt);
  EXPECT_EQ(reply, "reply");
  EXPECT_FALSE(waiters.Unlist(waiter));
}

TEST(Waiters, AReplyFromAnotherPeerWakesNobody) {
  Waiters waiters(ZeroTimeout::kWaitsForEver);
  Waiter waiter(&kOwner, kPeer, kKey, 0);
  waiters.List(waiter);
  std::string reply = "reply";
  EXPECT_EQ(waiters.WakeByToken(waiter.token(), kPeer + 16, kKey, &reply), Woken::kNobody);
  EXPECT_EQ(reply, "reply");
  EXPECT_TRUE(waiters.Unlist(waiter));
}

TEST(Waiters, AForeignTokenWakesNobody) {
  Waiters waiters(ZeroTimeout::kWaitsForEver);
  Waiter waiter(&kOwner, kPeer, kKey, 0);
  waiters.List(waiter);
  std::string reply = "reply";
  for (const std::uintptr_t token : {std::uintptr_t{0}, std::uintptr_t{0xdead}, waiter.token() + 1}) {
    EXPECT_EQ(waiters.WakeByToken(token, kPeer, kKey, &reply), Woken::kNobody);
  }
  EXPECT_EQ(reply, "reply");
  EXPECT_TRUE(waiters.Unlist(waiter));
}

TEST(Waiters, ASecondReplyWakesNobody) {
  Waiters waiters(ZeroTimeout::kWaitsForEver);
  Waiter waiter(&kOwner, kPeer, kKey, 0);
  waiters.List(waiter);
  std::string reply = "first";
  EXPECT_EQ(waiters.WakeByToken(waiter.token(), kPeer, kKey, &reply), Woken::kWithReply);
  std::string duplicate = "second";
  EXPECT_EQ(waiters.WakeByToken(waiter.token(), kPeer, kKey, &duplicate), Woken::kNobody);
  EXPECT_EQ(duplicate, "second");
  EXPECT_EQ(waiter.Wait(), "first");
}

TEST(Waiters, AReplyThatComesLateWakesNobody) {
  Waiters waiters(ZeroTimeout::kWaitsForEver);
  std::uintptr_t late = 0;
  {
    Waiter waiter(&kOwner, kPeer, kKey, 1);
    late = waiter.token();
    waiters.List(waiter);
    waiters.Sweep(NowMs() + kDayMs);
    EXPECT_EQ(waiter.Wait(), std::nullopt);
  }
  // The next call, perhaps in the very same memory, on the same key.
  Waiter next(&kOwner, kPeer, kKey, 0);
  waiters.List(next);
  std::string reply = "late";
  EXPECT_EQ(waiters.WakeByToken(late, kPeer, kKey, &reply), Woken::kNobody);
  EXPECT_TRUE(waiters.Unlist(next));
}

TEST(Waiters, GiveAWaiterBackOnce) {
  Waiters waiters(ZeroTimeout::kWaitsForEver);
  Waiter waiter(&kOwner, kPeer, kKey, 0);
  EXPECT_FALSE(waiters.Unlist(waiter));
  waiters.List(waiter);
  EXPECT_TRUE(waiters.Unlist(waiter));
  EXPECT_FALSE(waiters.Unlist(waiter));
  std::string reply = "reply";
  EXPECT_EQ(waiters.WakeByToken(waiter.token(), kPeer, kKey, &reply), Woken::kNobody);
}

TEST(Waiters, WakeOneOfThoseUnderAKey) {
  Waiters waiters(ZeroTimeout::kWaitsForEver);
  Waiter first(&kOwner, kPeer, kKey, 0);
  Waiter second(&kOwner, kPeer, kKey, 0);
  Waiter other(&kOwner, kPeer, kKey + 1, 0);
  waiters.List(first);
  waiters.List(second);
  waiters.List(other);
  std::string reply = "result";
  EXPECT_TRUE(waiters.WakeByKey(kKey, &reply));
  const bool first_is_left = waiters.Unlist(first);
  const bool second_is_left = waiters.Unlist(second);
  EXPECT_NE(first_is_left, second_is_left);
  EXPECT_EQ((first_is_left ? second : first).Wait(), "result");
  EXPECT_TRUE(waiters.Unlist(other));
}

TEST(Waiters, WakeNobodyUnderAKeyThatNobodyWaitsFor) {
  Waiters waiters(ZeroTimeout::kWaitsForEver);
  Waiter waiter(&kOwner, kPeer, kKey, 0);
  waiters.List(waiter);
  std::string reply = "result";
  EXPECT_FALSE(waiters.WakeByKey(kKey + 1, &reply));
  EXPECT_EQ(reply, "result");
  EXPECT_TRUE(waiters.Unlist(waiter));
}

TEST(Waiters, ReleaseTheOneThatATokenNames) {
  Waiters waiters(ZeroTimeout::kEndsAtNextSweep);
  Waiter waiter(&kOwner, kPeer, kKey, 1000);
  Waiter other(&kOwner, kPeer, kKey, 1000);
  waiters.List(waiter);
  waiters.List(other);
  waiters.Release(0xdead);
  waiters.Release(waiter.token());
  waiters.Release(waiter.token());
  EXPECT_EQ(waiter.Wait(), std::nullopt);
  EXPECT_TRUE(waiters.Unlist(other));
}

TEST(Waiters, ReleaseEveryWaiterOfAnOwnerAndNoOther) {
  const int another_owner = 0;
  Waiters waiters(ZeroTimeout::kEndsAtNextSweep);
  Waiter one(&kOwner, kPeer, 1, 0);
  Waiter two(&kOwner, kPeer + 16, 2, 1000);
  Waiter other(&another_owner, kPeer, 1, 0);
  waiters.List(one);
  waiters.List(two);
  waiters.List(other);
  waiters.ReleaseAll(&kOwner);
  EXPECT_EQ(one.Wait(), std::nullopt);
  EXPECT_EQ(two.Wait(), std::nullopt);
  EXPECT_TRUE(waiters.Unlist(other));
}

TEST(Waiters, ExpireStrictlyAfterTheirTimeout) {
  Waiters waiters(ZeroTimeout::kWaitsForEver);
  const std::int64_t before = NowMs();
  Waiter waiter(&kOwner, kPeer, kKey, 100000);
  const std::int64_t after = NowMs();
  waiters.List(waiter);
  waiters.Sweep(before + 100000);
  EXPECT_TRUE(IsListed(waiters, waiter));
  waiters.Sweep(after + 100001);
  EXPECT_FALSE(IsListed(waiters, waiter));
  EXPECT_EQ(waiter.Wait(), std::nullopt);
}

TEST(Waiters, DoNotExpireByAClockThatWasReadBeforeTheyBegan) {
  Waiters waiters(ZeroTimeout::kEndsAtNextSweep);
  Waiter short_one(&kOwner, kPeer, kKey, 1);
  Waiter zero(&kOwner, kPeer, kKey, 0);
  waiters.List(short_one);
  waiters.List(zero);
  waiters.Sweep(NowMs() - 1000);
  waiters.Sweep(NowMs() - kDayMs);
  EXPECT_TRUE(IsListed(waiters, short_one));
  EXPECT_TRUE(IsListed(waiters, zero));
  EXPECT_TRUE(waiters.Unlist(short_one));
  EXPECT_TRUE(waiters.Unlist(zero));
}

TEST(Waiters, ExpireOneByOne) {
  Waiters waiters(ZeroTimeout::kWaitsForEver);
  Waiter sooner(&kOwner, kPeer, 1, 1000);
  Waiter later(&kOwner, kPeer, 2, 1000000);
  waiters.List(sooner);
  waiters.List(later);
  waiters.Sweep(NowMs() + 10000);
  EXPECT_EQ(sooner.Wait(), std::nullopt);
  EXPECT_TRUE(waiters.Unlist(later));
}

TEST(Waiters, OfAClientWaitForEverWithoutATimeout) {
  Waiters waiters(ZeroTimeout::kWaitsForEver);
  Waiter waiter(&kOwner, kPeer, kKey, 0);
  waiters.List(waiter);
  waiters.Sweep(NowMs() + 1000 * kDayMs);
  EXPECT_TRUE(waiters.Unlist(waiter));
}

TEST(Waiters, OfAServerEndAtTheNextSweepWithoutATimeout) {
  Waiters waiters(ZeroTimeout::kEndsAtNextSweep);
  const std::int64_t before = NowMs();
  Waiter waiter(&kOwner, kPeer, kKey, 0);
  const std::int64_t after = NowMs();
  waiters.List(waiter);
  // In the millisecond of its beginning it has waited for nothing yet.
  waiters.Sweep(before);
  EXPECT_TRUE(IsListed(waiters, waiter));
  waiters.Sweep(after + 1);
  EXPECT_EQ(waiter.Wait(), std::nullopt);
}

TEST(Waiters, TakeANegativeTimeoutForSomeFiftyDays) {
  for (const ZeroTimeout zero : {ZeroTimeout::kWaitsForEver, ZeroTimeout::kEndsAtNextSweep}) {
    Waiters waiters(zero);
    Waiter minus_one(&kOwner, kPeer, kKey, -1);
    Waiter least(&kOwner, kPeer, kKey, INT_MIN);
    waiters.List(minus_one);
    waiters.List(least);
    waiters.Sweep(NowMs() + 24 * kDayMs);
    EXPECT_TRUE(IsListed(waiters, minus_one));
    EXPECT_TRUE(IsListed(waiters, least));
    waiters.Sweep(NowMs() + 25 * kDayMs);
    EXPECT_EQ(least.Wait(), std::nullopt);
    EXPECT_TRUE(IsListed(waiters, minus_one));
    waiters.Sweep(NowMs() + 50 * kDayMs);
    EXPECT_EQ(minus_one.Wait(), std::nullopt);
  }
}

TEST(Waiters, WakeAWaiterOnceWhoeverComesFirst) {
  // Reply, sweep, release and caller fight for each waiter, which ends as soon as it was woken.
  constexpr int kCallers = 3;
  constexpr int kCalls = 300;
  Waiters waiters(ZeroTimeout::kWaitsForEver);
  std::atomic<std::uintptr_t> latest[kCallers] = {};
  std::atomic<bool> stop{false};
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int caller = 0; caller < kCallers; ++caller) {
    threads.emplace_back([&, caller] {
      for (int call = 0; call < kCalls; ++call) {
        Waiter waiter(&kOwner, kPeer, caller, 1);
        waiters.List(waiter);
        latest[caller] = waiter.token();
        if (call % 3 == 0 && waiters.Unlist(waiter)) continue;
        const std::optional<std::string> reply = waiter.Wait();
        if (reply && *reply != std::to_string(caller)) ++wrong;
      }
    });
  }
  std::thread replies([&] {
    while (!stop) {
      for (int caller = 0; caller < kCallers; ++caller) {
        std::string reply = std::to_string(caller);
        waiters.WakeByToken(latest[caller], kPeer, caller, &reply);
      }
      std::this_thread::yield();
    }
  });
  std::thread sweeps([&] {
    while (!stop) {
      waiters.Sweep(NowMs() + kDayMs);
      waiters.ReleaseAll(&kOwner);
      std::this_thread::yield();
    }
  });
  for (std::thread& thread : threads)
    thread.join();
  stop = true;
  replies.join();
  sweeps.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace mivo
