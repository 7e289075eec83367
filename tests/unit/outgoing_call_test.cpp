#include "calls/outgoing_call.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include "base/clock.h"
#include "calls/waiters.h"
#include "unit/test_loop.h"

namespace mivo {
namespace {

using Reply = std::optional<std::string>;
using ZeroTimeout = Waiters::ZeroTimeout;

constexpr int kPeer = 42;
constexpr int kKey = 9;
constexpr std::int64_t kMs = 1'000'000;

struct Call {
  Waiters waiters{ZeroTimeout::kWaitsForEver};
  OutgoingCall call{kPeer, kKey, 0};

  bool Answer(std::string reply) {
    return waiters.WakeByToken(call.token(), kPeer, kKey, &reply) == Waiters::Woken::kWithReply;
  }
  Reply Await(const std::function<bool()>& send) { return call.Await(waiters, nullptr, send); }
};

TEST(OutgoingCall, ReturnsTheReply) {
  Call call;
  std::thread peer;
  const Reply reply = call.Await([&] {
    peer = std::thread([&] { EXPECT_TRUE(call.Answer("reply")); });
    return true;
  });
  peer.join();
  EXPECT_EQ(reply, "reply");
}

TEST(OutgoingCall, IsListedBeforeItIsSent) {
  Call call;
  EXPECT_EQ(call.Await([&] {
    // The reply comes before the sending has returned.
    EXPECT_TRUE(call.Answer("quick"));
    return true;
  }),
            "quick");
}

TEST(OutgoingCall, ReturnsAtOnceWhenTheRequestWasRefused) {
  Call call;
  EXPECT_EQ(call.Await([] { return false; }), std::nullopt);
  EXPECT_FALSE(call.waiters.Unlist(call.call));
}

TEST(OutgoingCall, TakesAWakeUpThatCameThoughTheRequestWasRefused) {
  Call call;
  EXPECT_EQ(call.Await([&] {
    // Everybody was woken, then the sending was refused: the wake-up must have been waited for.
    call.waiters.ReleaseAll();
    return false;
  }),
            std::nullopt);
  Call answered;
  EXPECT_EQ(answered.Await([&] {
    EXPECT_TRUE(answered.Answer("in time"));
    return false;
  }),
            "in time");
}

TEST(OutgoingCall, EndsWithTheConnectionWheneverThatEnds) {
  for (int round = 0; round < 200; ++round) {
    Call call;
    // Between the listing and the refusal, or after it: the end wakes whoever is listed.
    std::thread end([&] { call.waiters.ReleaseAll(); });
    const Reply reply = call.Await([&] { return false; });
    end.join();
    EXPECT_EQ(reply, std::nullopt);
  }
}

TEST(OutgoingCall, IsNotListedAnyMoreWhenTheSendingThrows) {
  Call call;
  EXPECT_THROW(call.Await([]() -> bool { throw std::runtime_error("no memory"); }), std::runtime_error);
  EXPECT_FALSE(call.waiters.Unlist(call.call));
}

TEST(OutgoingCall, IsLetGoOfByItsWakerBeforeAnExceptionOfTheSendingLeaves) {
  for (int round = 0; round < 200; ++round) {
    // Gone with its scope: a waker that still touches it is found by the sanitizers.
    Waiters waiters(ZeroTimeout::kWaitsForEver);
    std::thread waker;
    {
      OutgoingCall call(kPeer, kKey, 0);
      EXPECT_THROW(call.Await(waiters, nullptr,
                              [&]() -> bool {
                                waker = std::thread([&] { waiters.ReleaseAll(); });
                                std::this_thread::yield();
                                throw std::runtime_error("no memory");
                              }),
                   std::runtime_error);
    }
    waker.join();
  }
}

TEST(OutgoingCall, OfALoopThreadEndsWithTheSweepThatIsDueThoughNobodySweeps) {
  TestLoop loop;
  Waiters waiters(ZeroTimeout::kWaitsForEver);
  waiters.AnnounceSweep(NowNs() + 20 * kMs, 10 * kMs);
  const std::int64_t begin = NowNs();
  OutgoingCall call(kPeer, kKey, 50);
  EXPECT_EQ(call.Await(waiters, nullptr, [] { return true; }), std::nullopt);
  EXPECT_GE(NowNs() - begin, 50 * kMs);
  EXPECT_FALSE(waiters.Unlist(call));
}

TEST(OutgoingCall, OfALoopThreadIsAnsweredLikeAnyOther) {
  TestLoop loop;
  Call call;
  std::thread peer;
  const Reply reply = call.Await([&] {
    peer = std::thread([&] { EXPECT_TRUE(call.Answer("reply")); });
    return true;
  });
  peer.join();
  EXPECT_EQ(reply, "reply");
}

}  // namespace
}  // namespace mivo
