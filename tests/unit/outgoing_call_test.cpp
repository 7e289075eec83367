#include "calls/outgoing_call.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <thread>

#include "calls/waiters.h"

namespace mivo {
namespace {

const int kOwner = 0;

struct Call {
  Waiters waiters{Waiters::ZeroTimeout::kWaitsForEver};
  Waiter waiter{&kOwner, 16, 9, 0};

  bool Answer(std::string reply) {
    return waiters.WakeByToken(waiter.token(), 16, 9, &reply) == Waiters::Woken::kWithReply;
  }
};

TEST(AwaitReply, ReturnsTheReply) {
  Call call;
  std::thread peer;
  const std::optional<std::string> reply = AwaitReply(call.waiters, call.waiter, [&] {
    peer = std::thread([&] { EXPECT_TRUE(call.Answer("reply")); });
    return true;
  });
  peer.join();
  EXPECT_EQ(reply, "reply");
}

TEST(AwaitReply, ListsTheCallBeforeItIsSent) {
  Call call;
  EXPECT_EQ(AwaitReply(call.waiters, call.waiter,
                       [&] {
                         // The reply comes before the sending has returned.
                         EXPECT_TRUE(call.Answer("quick"));
                         return true;
                       }),
            "quick");
}

TEST(AwaitReply, ReturnsAtOnceWhenTheRequestWasRefused) {
  Call call;
  EXPECT_EQ(AwaitReply(call.waiters, call.waiter, [] { return false; }), std::nullopt);
  EXPECT_FALSE(call.waiters.Unlist(call.waiter));
}

TEST(AwaitReply, TakesAWakeUpThatCameThoughTheRequestWasRefused) {
  Call call;
  EXPECT_EQ(AwaitReply(call.waiters, call.waiter,
                       [&] {
                         // Everybody was woken, then the queue refused: the wake-up must have been waited for.
                         call.waiters.ReleaseAll(&kOwner);
                         return false;
                       }),
            std::nullopt);
  Call answered;
  EXPECT_EQ(AwaitReply(answered.waiters, answered.waiter,
                       [&] {
                         EXPECT_TRUE(answered.Answer("in time"));
                         return false;
                       }),
            "in time");
}

TEST(AwaitReply, EndsWithTheConnectionWheneverThatEnds) {
  for (int round = 0; round < 200; ++round) {
    Call call;
    // Between the listing and the refusal, or after it: the end wakes whoever is listed.
    std::thread end([&] { call.waiters.ReleaseAll(&kOwner); });
    const std::optional<std::string> reply = AwaitReply(call.waiters, call.waiter, [&] { return false; });
    end.join();
    EXPECT_EQ(reply, std::nullopt);
  }
}

}  // namespace
}  // namespace mivo
