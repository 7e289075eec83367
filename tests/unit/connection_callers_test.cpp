// Callers that read while they wait, and long payloads, which keep a reader busy.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "base/clock.h"
#include "support/background.h"
#include "support/event.h"
#include "support/sanitizers.h"
#include "support/thread_id.h"
#include "support/thread_state.h"
#include "transport/connection.h"
#include "transport/envelope.h"
#include "unit/connection_fixture.h"
#include "unit/pool_fixture.h"

namespace mivo {
namespace {

using mivo_test::Background;
using mivo_test::Event;
using mivo_test::Eventually;
using mivo_test::Framed;
using mivo_test::StreamPair;
using ReadEnd = Connection::ReadEnd;

constexpr std::int64_t kNsPerMs = 1'000'000;
constexpr std::size_t kRoom = 65536;

class WaitingCaller : public ReadingRole::Caller {
 public:
  void BecomeReader() override { given.Signal(); }
  Event given;
};

// Nothing that a caller waits for.
bool Never() {
  return false;
}

std::int64_t Late() {
  return NowNs() + mivo_test::kPatience.count() * kNsPerMs;
}

TEST(ConnectionCallers, ReadUntilTheyAreDone) {
  Peers peers;
  WaitingCaller caller;
  ASSERT_TRUE(peers.connection->reading().TakeOrQueue(caller));
  peers.pair.Write(Framed("one"));
  const auto has = [&](std::size_t count) {
    return [&peers, count] { return peers.journal.payloads().size() >= count; };
  };
  EXPECT_EQ(peers.connection->ReadAsCaller(has(1), 0), ReadEnd::kDone);
  std::thread writer([&] {
    for (const char* const payload : {"two", "three"})
      peers.pair.Write(Framed(payload));
  });
  EXPECT_EQ(peers.connection->ReadAsCaller(has(3), Late()), ReadEnd::kDone);
  writer.join();
  EXPECT_EQ(peers.journal.payloads(), (Strings{"one", "two", "three"}));
  EXPECT_EQ(peers.journal.last_thread(), mivo_test::ThreadId());
  peers.connection->LeaveAsCaller(caller);
  // The pool reads on.
  peers.pair.Write(Framed("four"));
  EXPECT_TRUE(peers.journal.WaitForPayloads(4));
  EXPECT_NE(peers.journal.last_thread(), mivo_test::ThreadId());
}

TEST(ConnectionCallers, ReadUntilTheirDeadlineAndNotLonger) {
  Peers peers;
  WaitingCaller caller;
  ASSERT_TRUE(peers.connection->reading().TakeOrQueue(caller));
  const std::int64_t deadline = NowNs() + 30 * kNsPerMs;
  EXPECT_EQ(peers.connection->ReadAsCaller(Never, deadline), ReadEnd::kDeadline);
  EXPECT_GE(NowNs(), deadline);
  // One that is over already is looked for once.
  peers.pair.Write(Framed("there"));
  EXPECT_EQ(peers.connection->ReadAsCaller(Never, 1), ReadEnd::kDeadline);
  EXPECT_EQ(peers.journal.payloads(), Strings{"there"});
  peers.connection->LeaveAsCaller(caller);
}

TEST(ConnectionCallers, FindTheEnd) {
  Peers peers;
  WaitingCaller caller;
  WaitingCaller second;
  ASSERT_TRUE(peers.connection->reading().TakeOrQueue(caller));
  EXPECT_FALSE(peers.connection->reading().TakeOrQueue(second));
  peers.pair.Write(Framed("last words"));
  peers.pair.ClosePeer();
  EXPECT_EQ(peers.connection->ReadAsCaller(Never, Late()), ReadEnd::kEnded);
  EXPECT_EQ(peers.connection->ReadAsCaller(Never, Late()), ReadEnd::kEnded);
  peers.connection->LeaveAsCaller(caller);
  peers.connection->LeaveAsCaller(second);
  EXPECT_EQ(peers.journal.payloads(), Strings{"last words"});
  EXPECT_EQ(peers.journal.ends(), std::vector<int>{Connection::kPeerLeft});
  EXPECT_EQ(second.given.count(), 0);
}

TEST(ConnectionCallers, AreEndedByAClose) {
  Peers peers;
  WaitingCaller caller;
  ASSERT_TRUE(peers.connection->reading().TakeOrQueue(caller));
  Background<ReadEnd> read([&] {
    const ReadEnd end = peers.connection->ReadAsCaller(Never, 0);
    peers.connection->LeaveAsCaller(caller);
    return end;
  });
  EXPECT_TRUE(mivo_test::WaitUntilAsleep(read.thread_id()));
  peers.connection->Close();
  EXPECT_EQ(read.Get(), ReadEnd::kEnded);
  EXPECT_TRUE(peers.journal.ends().empty());
}

TEST(ConnectionCallers, HaveThePoolRunTheJobsOfWhatTheyRead) {
  Peers peers(StreamPair::Local(), false);
  std::atomic<int> ran_on{0};
  peers.journal.on_payload = [&](Connection&, std::string_view, Jobs& jobs) {
    jobs.Push(MakeJob(peers.jobs, [&ran_on] { ran_on = mivo_test::ThreadId(); }));
  };
  peers.connection->StartReading();
  WaitingCaller caller;
  ASSERT_TRUE(peers.connection->reading().TakeOrQueue(caller));
  peers.pair.Write(Framed("request"));
  EXPECT_EQ(peers.connection->ReadAsCaller([&] { return !peers.journal.payloads().empty(); }, Late()), ReadEnd::kDone);
  EXPECT_TRUE(Eventually([&] { return ran_on != 0; }));
  EXPECT_NE(ran_on, mivo_test::ThreadId());
  peers.connection->LeaveAsCaller(caller);
}

TEST(ConnectionCallers, ReadAlsoWhileThePoolPauses) {
  Peers peers(StreamPair::Local(), false);
  peers.connection->PauseReadingWhenFull();
  peers.connection->StartReading();
  EXPECT_TRUE(peers.connection->Send(Frame(std::string(6000000, 'x'))));
  WaitingCaller caller;
  ASSERT_TRUE(peers.connection->reading().TakeOrQueue(caller));
  peers.pair.Write(Framed("reply"));
  EXPECT_EQ(peers.connection->ReadAsCaller([&] { return !peers.journal.payloads().empty(); }, Late()), ReadEnd::kDone);
  peers.connection->LeaveAsCaller(caller);
  EXPECT_TRUE(peers.ReadAll(6000004).size() == 6000004);
}

TEST(ConnectionCallers, ReadALongPayloadThemselves) {
  Peers peers;
  WaitingCaller caller;
  ASSERT_TRUE(peers.connection->reading().TakeOrQueue(caller));
  const std::string large(3000000, 'x');
  std::thread writer([&] { peers.WriteAll(Framed(large)); });
  EXPECT_EQ(peers.connection->ReadAsCaller([&] { return !peers.journal.payloads().empty(); }, Late()), ReadEnd::kDone);
  writer.join();
  EXPECT_EQ(peers.journal.last_thread(), mivo_test::ThreadId());
  EXPECT_TRUE(peers.journal.payloads() == Strings{large});
  peers.connection->LeaveAsCaller(caller);
}

TEST(ConnectionLongPayload, HoldsUpNoOtherConnection) {
  Peers peers(StreamPair::Local(), false);
  Peers others;
  Event is_busy;
  peers.journal.on_payload = [&](Connection&, std::string_view payload, Jobs&) {
    if (payload.size() < 1000000) return;
    is_busy.Signal();
    EXPECT_TRUE(others.journal.WaitForPayloads(2));
  };
  peers.connection->StartReading();
  const std::string large(2000000, 'x');
  peers.WriteAll(Framed("before") + Framed(large) + Framed("behind"));
  EXPECT_TRUE(is_busy.WaitFor());
  for (int i = 0; i < 2; ++i)
    others.pair.Write(Framed("meanwhile"));
  EXPECT_TRUE(peers.journal.WaitForPayloads(3));
  EXPECT_TRUE(peers.journal.payloads() == (Strings{"before", large, "behind"}));
}

// A long payload whose last bytes the pool's reader finds at the moment when a caller waits for the role.
class GivenLongPayload : public testing::Test {
 protected:
  GivenLongPayload() {
    // A message that comes as one whole frame is taken although a long one is pending; filling the room, it has the
    // reader look once more, and find the rest.
    const std::size_t shortest = EncodeRequest("", 1, nullptr, 0).size();
    overtakes_ = Framed(EncodeRequest(std::string(kRoom - 4 - shortest, 'n'), 1, nullptr, 0));
    peers_.journal.on_payload = [this](Connection& connection, std::string_view payload, Jobs&) {
      if (payload.size() + 4 != overtakes_.size()) return;
      EXPECT_FALSE(connection.reading().TakeOrQueue(caller_));
      peers_.pair.Write(std::string_view(frame_).substr(frame_.size() - kRoom));
    };
    others_.journal.on_payload = [this](Connection&, std::string_view, Jobs&) {
      is_held_.Signal();
      go_on_.WaitFor();
    };
    others_.connection->StartReading();
    peers_.connection->StartReading();
  }

  // Returns when the caller has been given the role, with the long payload.
  void GiveRoleWithPayload() {
    ASSERT_EQ(overtakes_.size(), kRoom);
    peers_.WriteAll(std::string_view(frame_).substr(0, frame_.size() - kRoom));
    ASSERT_TRUE(Eventually([&] { return peers_.pair.IsTaken(); }));
    // The reader must find all of the message at once.
    others_.pair.Write(Framed("hold"));
    ASSERT_TRUE(is_held_.WaitFor());
    peers_.pair.Write(overtakes_);
    go_on_.Signal();
    ASSERT_TRUE(caller_.given.WaitFor());
    ASSERT_EQ(peers_.journal.payloads().size(), 1U);
  }
  void ExpectReadHere() {
    EXPECT_EQ(peers_.journal.payloads().size(), 2U);
    EXPECT_TRUE(peers_.journal.payloads().back() == large_);
    EXPECT_EQ(peers_.journal.last_thread(), mivo_test::ThreadId());
  }

  const std::string large_ = std::string(2000000, 'x');
  const std::string frame_ = Framed(large_);
  std::string overtakes_;
  Event is_held_;
  Event go_on_;
  WaitingCaller caller_;
  Peers peers_{StreamPair::Local(), false};
  Peers others_{StreamPair::Local(), false};
};

TEST_F(GivenLongPayload, IsReadByTheCaller) {
  GiveRoleWithPayload();
  EXPECT_TRUE(peers_.connection->reading().TakeOrQueue(caller_));
  EXPECT_EQ(peers_.connection->ReadAsCaller([&] { return peers_.journal.payloads().size() == 2; }, Late()),
            ReadEnd::kDone);
  ExpectReadHere();
  peers_.connection->LeaveAsCaller(caller_);
}

TEST_F(GivenLongPayload, IsReadAlsoByACallerWhoseWaitIsOver) {
  GiveRoleWithPayload();
  peers_.connection->LeaveAsCaller(caller_);
  ExpectReadHere();
  // And the pool reads on.
  peers_.pair.Write(Framed("next"));
  EXPECT_TRUE(peers_.journal.WaitForPayloads(3));
}

TEST_F(GivenLongPayload, IsNotWaitedForByAClose) {
  GiveRoleWithPayload();
  Background<bool> close([&] {
    peers_.connection->Close();
    return true;
  });
  EXPECT_TRUE(Eventually([&] { return peers_.connection->is_closed(); }));
  peers_.connection->LeaveAsCaller(caller_);
  EXPECT_TRUE(close.Get());
  EXPECT_EQ(peers_.journal.payloads().size(), 1U);
}

TEST(ConnectionCallers, AndThePoolReadEverythingOnceAndInOrder) {
  constexpr int kPayloads = 3000 / mivo_test::kScaledown;
  constexpr int kCallers = 3;
  for (const bool with_long_ones : {false, true}) {
    Peers peers;
    std::atomic<bool> is_over{false};
    std::vector<std::thread> callers;
    for (int i = 0; i < kCallers; ++i) {
      callers.emplace_back([&, i] {
        for (int turn = i; !is_over; ++turn) {
          WaitingCaller caller;
          if (peers.connection->reading().TakeOrQueue(caller) ||
              (turn % 3 == 0 && caller.given.WaitFor(1, std::chrono::milliseconds(1)) &&
               peers.connection->reading().TakeOrQueue(caller))) {
            peers.connection->ReadAsCaller(Never, NowNs() + kNsPerMs / 2);
          }
          peers.connection->LeaveAsCaller(caller);
          // Sometimes nobody wants to read, so that the pool does; nothing is waited for.
          if (turn % 5 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
      });
    }
    std::size_t expected = 0;
    for (int number = 0; number < kPayloads; ++number) {
      std::string payload = std::to_string(number);
      if (with_long_ones && number % 300 == 0) payload += std::string(1500000, 'x');
      peers.WriteAll(Framed(payload));
      ++expected;
    }
    EXPECT_TRUE(peers.journal.WaitForPayloads(expected));
    is_over = true;
    for (std::thread& caller : callers)
      caller.join();
    const Strings payloads = peers.journal.payloads();
    ASSERT_EQ(payloads.size(), expected);
    for (std::size_t number = 0; number < expected; ++number)
      ASSERT_EQ(std::stoul(payloads[number]), number);
    EXPECT_TRUE(peers.journal.ends().empty());
  }
}

}  // namespace
}  // namespace mivo
