#include "calls/waiters.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "base/clock.h"
#include "base/identity.h"
#include "unit/test_waiter.h"

namespace mivo {
namespace {

using Of = Waiter::Of;
using Woken = Waiters::Woken;
using ZeroTimeout = Waiters::ZeroTimeout;

constexpr int kPeer = 16;
constexpr int kKey = 9;
constexpr std::int64_t kMs = 1'000'000;
constexpr std::int64_t kDay = 24LL * 60 * 60 * 1000 * kMs;

TEST(Waiter, OfTheLibrarySaysSoByItsToken) {
  const TestWaiter waiter(kPeer, kKey, 0, Of::kLibrary);
  EXPECT_TRUE(IsToken(waiter.token()));
  EXPECT_TRUE(IsLibraryToken(waiter.token()));
}

TEST(Waiter, HasATokenOfItsOwn) {
  std::set<std::uintptr_t> tokens;
  for (int i = 0; i < 1000; ++i) {
    // The same memory again and again, never the same token.
    const TestWaiter waiter(kPeer, kKey, 0);
    EXPECT_TRUE(IsToken(waiter.token()));
    EXPECT_FALSE(IsLibraryToken(waiter.token()));
    EXPECT_TRUE(tokens.insert(waiter.token()).second);
  }
}

TEST(Waiters, GiveTheReplyToTheCallThatItNames) {
  Waiters waiters(ZeroTimeout::kWaitsForEver);
  TestWaiter waiter(kPeer, kKey, 0);
  TestWaiter other(kPeer, kKey, 0);
  waiters.List(waiter);
  waiters.List(other);
  std::string reply = "reply";
  EXPECT_EQ(waiters.WakeByToken(waiter.token(), kPeer, kKey, &reply), Woken::kWithReply);
  EXPECT_EQ(waiter.Wait(), "reply");
  EXPECT_TRUE(waiters.Unlist(other));
}

TEST(Waiters, TellAnEmptyReplyFromNone) {
  Waiters waiters(ZeroTimeout::kWaitsForEver);
  TestWaiter waiter(kPeer, kKey, 0);
  waiters.List(waiter);
  std::string reply;
  EXPECT_EQ(waiters.WakeByToken(waiter.token(), kPeer, kKey, &reply), Woken::kWithReply);
  EXPECT_EQ(waiter.Wait(), std::optional<std::string>(""));
}

TEST(Waiters, AReplyUnderAnotherKeyWakesItsCallWithNothing) {
  Waiters waiters(ZeroTimeout::kWaitsForEver);
  TestWaiter waiter(kPeer, kKey, 0);
  waiters.List(waiter);
  std::string reply = "reply";
  EXPECT_EQ(waiters.WakeByToken(waiter.token(), kPeer, kKey + 1, &reply), Woken::kWithNothing);
  EXPECT_EQ(waiter.Wait(), std::nullopt);
  EXPECT_EQ(reply, "reply");
  EXPECT_FALSE(waiters.Unlist(waiter));
}

TEST(Waiters, AReplyFromAnotherPeerWakesNobody) {
  Waiters waiters(ZeroTimeout::kWaitsForEver);
  TestWaiter waiter(kPeer, kKey, 0);
  waiters.List(waiter);
  std::string reply = "reply";
  EXPECT_EQ(waiters.WakeByToken(waiter.token(), kPeer + 16, kKey, &reply), Woken::kNobody);
  EXPECT_EQ(reply, "reply");
  EXPECT_TRUE(waiters.Unlist(waiter));
}

TEST(Waiters, AForeignTokenWakesNobody) {
  Waiters waiters(ZeroTimeout::kWaitsForEver);
  TestWaiter waiter(kPeer, kKey, 0);
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
  TestWaiter waiter(kPeer, kKey, 0);
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
    TestWaiter waiter(kPeer, kKey, 1);
    late = waiter.token();
    waiters.List(waiter);
    waiters.Sweep(NowNs() + kDay);
    EXPECT_EQ(waiter.Wait(), std::nullopt);
  }
  // The next call, perhaps in the very same memory, on the same key.
  TestWaiter next(kPeer, kKey, 0);
  waiters.List(next);
  std::string reply = "late";
  EXPECT_EQ(waiters.WakeByToken(late, kPeer, kKey, &reply), Woken::kNobody);
  EXPECT_TRUE(waiters.Unlist(next));
}

TEST(Waiters, GiveAWaiterBackOnce) {
  Waiters waiters(ZeroTimeout::kWaitsForEver);
  TestWaiter waiter(kPeer, kKey, 0);
  EXPECT_FALSE(waiters.Unlist(waiter));
  waiters.List(waiter);
  EXPECT_TRUE(waiters.Unlist(waiter));
  EXPECT_FALSE(waiters.Unlist(waiter));
  std::string reply = "reply";
  EXPECT_EQ(waiters.WakeByToken(waiter.token(), kPeer, kKey, &reply), Woken::kNobody);
}

TEST(Waiters, WakeOneOfThoseUnderAKey) {
  Waiters waiters(ZeroTimeout::kWaitsForEver);
  TestWaiter first(kPeer, kKey, 0);
  TestWaiter second(kPeer, kKey, 0);
  TestWaiter other(kPeer, kKey + 1, 0);
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
  TestWaiter waiter(kPeer, kKey, 0);
  waiters.List(waiter);
  std::string reply = "result";
  EXPECT_FALSE(waiters.WakeByKey(kKey + 1, &reply));
  EXPECT_EQ(reply, "result");
  EXPECT_TRUE(waiters.Unlist(waiter));
}

TEST(Waiters, ReleaseEveryWaiter) {
  Waiters waiters(ZeroTimeout::kEndsAtNextSweep);
  TestWaiter one(kPeer, 1, 0);
  TestWaiter two(kPeer + 16, 2, 1000);
  TestWaiter given_back(kPeer, 3, 0);
  waiters.List(one);
  waiters.List(two);
  waiters.List(given_back);
  EXPECT_TRUE(waiters.Unlist(given_back));
  waiters.ReleaseAll();
  waiters.ReleaseAll();
  EXPECT_EQ(one.Wait(), std::nullopt);
  EXPECT_EQ(two.Wait(), std::nullopt);
  EXPECT_EQ(given_back.times_woken(), 0);
}

TEST(Waiters, FindEachOfAThousand) {
  // More than there are rows at first; tokens of both kinds.
  Waiters waiters(ZeroTimeout::kWaitsForEver);
  std::vector<std::unique_ptr<TestWaiter>> listed;
  for (int key = 0; key < 1000; ++key) {
    listed.push_back(std::make_unique<TestWaiter>(kPeer, key, 0, key % 3 == 0 ? Of::kLibrary : Of::kApplication));
    waiters.List(*listed.back());
  }
  for (int key = 0; key < 1000; key += 2) {
    std::string reply = std::to_string(key);
    TestWaiter& waiter = *listed[static_cast<std::size_t>(key)];
    EXPECT_EQ(waiters.WakeByToken(waiter.token(), kPeer, key, &reply), Woken::kWithReply);
    EXPECT_EQ(waiter.Wait(), std::to_string(key));
  }
  for (int key = 1; key < 1000; key += 2)
    EXPECT_TRUE(waiters.Unlist(*listed[static_cast<std::size_t>(key)]));
  for (const std::unique_ptr<TestWaiter>& waiter : listed)
    EXPECT_FALSE(waiters.Unlist(*waiter));
}

// On the heap, and gone with its waking, which lists the next one: as a chain of calls does that nobody waits for.
class ChainedWaiter : public Waiter {
 public:
  ChainedWaiter(Waiters& waiters, int links, int* woken)
      : Waiter(kPeer, kKey, 1), waiters_(waiters), links_(links), woken_(woken) {}

 private:
  void OnWoken(std::optional<std::string>) override {
    const std::unique_ptr<ChainedWaiter> self(this);
    ++*woken_;
    if (links_ > 1) waiters_.List(*new ChainedWaiter(waiters_, links_ - 1, woken_));
  }

  Waiters& waiters_;
  const int links_;
  int* const woken_;
};

TEST(Waiters, LetAWokenOneDeleteItselfAndListAnother) {
  Waiters waiters(ZeroTimeout::kWaitsForEver);
  int woken = 0;
  waiters.List(*new ChainedWaiter(waiters, 3, &woken));
  waiters.List(*new ChainedWaiter(waiters, 3, &woken));
  waiters.Sweep(NowNs() + kDay);
  EXPECT_EQ(woken, 2) << "the next ones not by the same sweep";
  waiters.ReleaseAll();
  EXPECT_EQ(woken, 4);
  std::string reply;
  EXPECT_TRUE(waiters.WakeByKey(kKey, &reply));
  EXPECT_TRUE(waiters.WakeByKey(kKey, &reply));
  EXPECT_FALSE(waiters.WakeByKey(kKey, &reply));
  EXPECT_EQ(woken, 6);
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
        TestWaiter waiter(kPeer, caller, 1);
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
      waiters.Sweep(NowNs() + kDay);
      waiters.ReleaseAll();
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
