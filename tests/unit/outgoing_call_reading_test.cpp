#include "calls/outgoing_call.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "base/clock.h"
#include "calls/waiters.h"
#include "support/background.h"
#include "support/event.h"
#include "support/thread_state.h"
#include "transport/frame.h"
#include "unit/open_connection.h"
#include "unit/payload.h"
#include "unit/test_loop.h"

namespace mivo {
namespace {

using mivo_test::Background;
using mivo_test::Event;
using mivo_test::Framed;
using mivo_test::ThreadId;
using mivo_test::WaitUntilAsleep;
using Reply = std::optional<std::string>;
using ZeroTimeout = Waiters::ZeroTimeout;

constexpr int kPeer = 42;
constexpr int kKey = 9;
constexpr std::int64_t kMs = 1'000'000;

// A peer that answers "TOKEN TEXT", and says nothing to the library but that.
class Reading : public testing::Test {
 protected:
  // A call that waits on a thread of its own.
  struct Waiting {
    Waiting(Reading& test, int timeout_ms)
        : call(kPeer, kKey, timeout_ms), reply([this, &test] {
            return call.Await(test.waiters_, &*test.connection_, [&] {
              test.requests_.Signal();
              return test.sends_;
            });
          }) {}
    OutgoingCall call;
    Background<Reply> reply;
  };

  ~Reading() override { End(); }

  std::unique_ptr<Waiting> Begin(int timeout_ms = 0) { return std::make_unique<Waiting>(*this, timeout_ms); }
  // Returns when the call can do nothing but wait.
  std::unique_ptr<Waiting> BeginAndSleep(int timeout_ms = 0) {
    std::unique_ptr<Waiting> waiting = Begin(timeout_ms);
    EXPECT_TRUE(WaitUntilAsleep(waiting->reply.thread_id()));
    return waiting;
  }

  static std::string AnswerTo(const OutgoingCall& call, const std::string& text) {
    return Framed(std::to_string(call.token()) + " " + text);
  }
  void Answer(const Waiting& waiting, const std::string& text) { connection_.pair.Write(AnswerTo(waiting.call, text)); }

  // As the owner of a connection does: first nothing is read any more, then all are woken.
  void End() {
    connection_->Close();
    waiters_.ReleaseAll();
  }

  // The threads on which the answers so far were read.
  std::vector<int> readers() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return readers_;
  }

  Waiters waiters_{ZeroTimeout::kWaitsForEver};
  Event requests_;
  Event deliveries_;
  bool sends_ = true;
  std::function<void()> on_other_payload_;

 private:
  void Deliver(std::string_view payload) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      readers_.push_back(ThreadId());
    }
    const std::size_t space = payload.find(' ');
    if (space == std::string_view::npos) {
      if (on_other_payload_) on_other_payload_();
    } else {
      std::string reply(payload.substr(space + 1));
      waiters_.WakeByToken(std::stoull(std::string(payload.substr(0, space))), kPeer, kKey, &reply);
    }
    deliveries_.Signal();
  }

  std::mutex mutex_;
  std::vector<int> readers_;

 protected:
  // Last, so that nothing is read any more when the rest goes.
  OpenConnection connection_{[this](std::string_view payload) { Deliver(payload); }, kPeer};
};

using OutgoingCallReading = Reading;

TEST_F(OutgoingCallReading, TakesItsReplyFromTheConnectionItself) {
  connection_->StartReading();
  const std::unique_ptr<Waiting> waiting = BeginAndSleep();
  Answer(*waiting, "reply");
  EXPECT_EQ(waiting->reply.Get(), "reply");
  EXPECT_EQ(readers(), std::vector<int>{waiting->reply.thread_id()});
}

TEST_F(OutgoingCallReading, TakesAReplyThatThePoolHasRead) {
  connection_->StartReading();
  OutgoingCall call(kPeer, kKey, 0);
  const Reply reply = call.Await(waiters_, &*connection_, [&] {
    // Nobody waits yet, so the pool reads.
    connection_.pair.Write(AnswerTo(call, "reply"));
    return deliveries_.WaitFor();
  });
  EXPECT_EQ(reply, "reply");
  ASSERT_EQ(readers().size(), 1U);
  EXPECT_NE(readers().front(), ThreadId());
}

TEST_F(OutgoingCallReading, TakesAReplyThatAnotherCallerHasRead) {
  connection_->StartReading();
  const std::unique_ptr<Waiting> reader = BeginAndSleep();
  const std::unique_ptr<Waiting> other = BeginAndSleep();
  Answer(*other, "to the other");
  EXPECT_EQ(other->reply.Get(), "to the other");
  EXPECT_FALSE(reader->reply.IsDone());
  Answer(*reader, "to the reader");
  EXPECT_EQ(reader->reply.Get(), "to the reader");
  EXPECT_EQ(readers(), std::vector<int>(2, reader->reply.thread_id()));
}

TEST_F(OutgoingCallReading, HandsTheReadingOnToTheNextCallerWhenItIsDone) {
  connection_->StartReading();
  const std::unique_ptr<Waiting> first = BeginAndSleep();
  const std::unique_ptr<Waiting> second = BeginAndSleep();
  const std::unique_ptr<Waiting> third = BeginAndSleep();
  Answer(*first, "one");
  EXPECT_EQ(first->reply.Get(), "one");
  Answer(*third, "three");
  EXPECT_EQ(third->reply.Get(), "three");
  Answer(*second, "two");
  EXPECT_EQ(second->reply.Get(), "two");
  EXPECT_EQ(readers(),
            (std::vector<int>{first->reply.thread_id(), second->reply.thread_id(), second->reply.thread_id()}));
}

TEST_F(OutgoingCallReading, GivesTheReadingBackToThePoolWhenItIsDone) {
  connection_->StartReading();
  const std::unique_ptr<Waiting> waiting = BeginAndSleep();
  Answer(*waiting, "reply");
  EXPECT_EQ(waiting->reply.Get(), "reply");
  // What comes of the peer's own accord waits for no further call.
  connection_.pair.Write(Framed("hello"));
  ASSERT_TRUE(deliveries_.WaitFor(2));
  EXPECT_NE(readers().back(), waiting->reply.thread_id());
}

TEST_F(OutgoingCallReading, LeavesTheLineWhenItWasAnsweredWithoutReading) {
  connection_->StartReading();
  const std::unique_ptr<Waiting> reader = BeginAndSleep();
  {
    const std::unique_ptr<Waiting> gone = BeginAndSleep();
    Answer(*gone, "quick");
    EXPECT_EQ(gone->reply.Get(), "quick");
  }
  Answer(*reader, "reply");
  EXPECT_EQ(reader->reply.Get(), "reply");
  // Had it stayed in line, the reading would have gone to a caller that is no more.
  connection_.pair.Write(Framed("hello"));
  EXPECT_TRUE(deliveries_.WaitFor(3));
}

TEST_F(OutgoingCallReading, EndsWhenTheStreamEnds) {
  connection_->StartReading();
  const std::unique_ptr<Waiting> reader = BeginAndSleep();
  const std::unique_ptr<Waiting> other = BeginAndSleep();
  connection_.pair.ClosePeer();
  ASSERT_TRUE(connection_.ended.WaitFor());
  // The owner decides when they are told.
  EXPECT_FALSE(reader->reply.WaitFor(std::chrono::milliseconds(20)));
  EXPECT_FALSE(other->reply.IsDone());
  End();
  EXPECT_EQ(reader->reply.Get(), std::nullopt);
  EXPECT_EQ(other->reply.Get(), std::nullopt);
  EXPECT_EQ(connection_.ended.count(), 1);
}

TEST_F(OutgoingCallReading, EndsWhenTheConnectionIsClosedUnderIt) {
  connection_->StartReading();
  const std::unique_ptr<Waiting> reader = BeginAndSleep();
  const std::unique_ptr<Waiting> other = BeginAndSleep();
  End();
  EXPECT_EQ(reader->reply.Get(), std::nullopt);
  EXPECT_EQ(other->reply.Get(), std::nullopt);
}

TEST_F(OutgoingCallReading, EndsOnAConnectionThatHasEndedBeforeItCouldRead) {
  connection_->StartReading();
  connection_.pair.ClosePeer();
  ASSERT_TRUE(connection_.ended.WaitFor());
  const std::unique_ptr<Waiting> late = BeginAndSleep();
  End();
  EXPECT_EQ(late->reply.Get(), std::nullopt);
}

TEST_F(OutgoingCallReading, ReadsWhatHasArrivedBeforeTheEnd) {
  connection_->StartReading();
  const std::unique_ptr<Waiting> reader = BeginAndSleep();
  Answer(*reader, "last words");
  connection_.pair.ClosePeer();
  EXPECT_EQ(reader->reply.Get(), "last words");
}

TEST_F(OutgoingCallReading, DoesTheSweepThatIsDueItself) {
  connection_->StartReading();
  waiters_.AnnounceSweep(NowNs(), 10 * kMs);
  const std::int64_t begin = NowNs();
  const std::unique_ptr<Waiting> waiting = Begin(60);
  // Nobody sweeps.
  EXPECT_EQ(waiting->reply.Get(), std::nullopt);
  EXPECT_GE(NowNs() - begin, 60 * kMs);
  EXPECT_FALSE(waiters_.Unlist(waiting->call));
}

TEST_F(OutgoingCallReading, HandsTheReadingOnWhenItsTimeIsOver) {
  connection_->StartReading();
  waiters_.AnnounceSweep(NowNs(), 10 * kMs);
  const std::unique_ptr<Waiting> first = Begin(300);
  ASSERT_TRUE(requests_.WaitFor());
  const std::unique_ptr<Waiting> second = Begin();
  EXPECT_EQ(first->reply.Get(), std::nullopt);
  EXPECT_TRUE(WaitUntilAsleep(second->reply.thread_id()));
  Answer(*second, "reply");
  EXPECT_EQ(second->reply.Get(), "reply");
  EXPECT_EQ(readers(), std::vector<int>{second->reply.thread_id()});
}

TEST_F(OutgoingCallReading, WaitsForALaterSweepWhenThatWasAnnouncedMeanwhile) {
  std::int64_t announced = 0;
  on_other_payload_ = [&] {
    announced = NowNs() + 150 * kMs;
    waiters_.AnnounceSweep(announced, kMs);
  };
  // Read by the caller, who finds it before it looks at the clock: by then the sweep it knows of is overdue.
  connection_.pair.Write(Framed("announcement"));
  waiters_.AnnounceSweep(NowNs(), 1);
  const std::unique_ptr<Waiting> waiting = BeginAndSleep(1);
  connection_->StartReading();
  EXPECT_EQ(waiting->reply.Get(), std::nullopt);
  EXPECT_GE(NowNs(), announced);
  EXPECT_EQ(readers(), std::vector<int>{waiting->reply.thread_id()});
}

TEST_F(OutgoingCallReading, IsEndedByTheSweepOfOthersWhileAnotherCallerReads) {
  connection_->StartReading();
  waiters_.AnnounceSweep(NowNs(), kMs);
  const std::unique_ptr<Waiting> reader = BeginAndSleep();
  const std::unique_ptr<Waiting> other = BeginAndSleep(1);
  EXPECT_FALSE(other->reply.IsDone());
  waiters_.Sweep(NowNs() + 1000 * kMs);
  EXPECT_EQ(other->reply.Get(), std::nullopt);
  EXPECT_FALSE(reader->reply.IsDone());
  Answer(*reader, "reply");
  EXPECT_EQ(reader->reply.Get(), "reply");
}

TEST_F(OutgoingCallReading, OfALoopThreadEndsInTimeWhileAnotherCallerReads) {
  connection_->StartReading();
  waiters_.AnnounceSweep(NowNs(), kMs);
  const std::unique_ptr<Waiting> reader = BeginAndSleep();
  {
    TestLoop loop;
    OutgoingCall call(kPeer, kKey, 20);
    EXPECT_EQ(call.Await(waiters_, &*connection_, [] { return true; }), std::nullopt);
  }
  Answer(*reader, "reply");
  EXPECT_EQ(reader->reply.Get(), "reply");
}

TEST_F(OutgoingCallReading, NeitherReadsNorWaitsWhenTheRequestWasRefused) {
  connection_->StartReading();
  sends_ = false;
  const std::unique_ptr<Waiting> waiting = Begin();
  EXPECT_EQ(waiting->reply.Get(), std::nullopt);
  EXPECT_FALSE(waiters_.Unlist(waiting->call));
  connection_.pair.Write(Framed("hello"));
  ASSERT_TRUE(deliveries_.WaitFor());
  EXPECT_NE(readers().back(), waiting->reply.thread_id());
}

TEST_F(OutgoingCallReading, LeavesNothingBehindWhenTheSendingThrows) {
  connection_->StartReading();
  {
    OutgoingCall call(kPeer, kKey, 0);
    EXPECT_THROW(call.Await(waiters_, &*connection_, []() -> bool { throw std::runtime_error("no memory"); }),
                 std::runtime_error);
    EXPECT_FALSE(waiters_.Unlist(call));
  }
  const std::unique_ptr<Waiting> next = BeginAndSleep();
  Answer(*next, "reply");
  EXPECT_EQ(next->reply.Get(), "reply");
}

TEST_F(OutgoingCallReading, GivesEachOfManyCallersItsOwnReply) {
  constexpr int kCallers = 4;
  constexpr int kCalls = 250;
  connection_->StartReading();
  std::atomic<int> wrong{0};
  std::vector<std::thread> callers;
  for (int caller = 0; caller < kCallers; ++caller) {
    callers.emplace_back([&, caller] {
      for (int i = 0; i < kCalls; ++i) {
        OutgoingCall call(kPeer, kKey, 0);
        const std::string request = std::to_string(call.token()) + " " + std::to_string(caller * kCalls + i);
        const Reply reply =
            call.Await(waiters_, &*connection_, [&] { return connection_->Send(Frame(std::string(request))); });
        if (reply != std::to_string(caller * kCalls + i)) ++wrong;
      }
    });
  }
  for (int i = 0; i < kCallers * kCalls; ++i) {
    const std::optional<std::string> request = connection_.ReadFrame();
    ASSERT_TRUE(request);
    connection_.pair.Write(Framed(*request));
  }
  for (std::thread& caller : callers)
    caller.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace mivo
