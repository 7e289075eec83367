#include "client/call_turn.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "support/background.h"
#include "support/event.h"
#include "support/thread_state.h"
#include "unit/test_loop.h"

namespace mivo {
namespace {

using mivo_test::Background;
using mivo_test::Event;
using mivo_test::WaitUntilAsleep;
using Kind = CallTurn::Kind;

constexpr unsigned int kChildSeconds = 60;

bool Never() {
  return false;
}

// A thread that waits for its turn, has it, and gives it back when told to.
class Taker {
 public:
  explicit Taker(Kind kind)
      : taking_([this, kind] {
          const CallTurn turn(kind, [this] { return is_pointless_.load(); });
          passed_.Signal();
          return leave_.WaitFor();
        }) {}
  ~Taker() {
    // Also in a test that has failed, with the turn in other hands.
    BecomePointless();
    CallTurn::AskAgain();
    Leave();
  }
  Taker(const Taker&) = delete;
  Taker& operator=(const Taker&) = delete;

  bool WaitUntilPassed() { return passed_.WaitFor(); }
  bool HasPassed() { return passed_.count() > 0; }
  // True once it does nothing but wait, before its turn.
  bool WaitUntilItWaits() { return WaitUntilAsleep(taking_.thread_id()) && !HasPassed(); }
  void BecomePointless() { is_pointless_ = true; }
  void Leave() {
    leave_.Signal();
    taking_.Get();
  }

 private:
  std::atomic<bool> is_pointless_{false};
  Event passed_;
  Event leave_;
  Background<bool> taking_;
};

class CallTurnOfEachKind : public testing::TestWithParam<Kind> {};

INSTANTIATE_TEST_SUITE_P(Kinds, CallTurnOfEachKind, testing::Values(Kind::kCall, Kind::kLargeCall),
                         [](const auto& kind) { return kind.param == Kind::kCall ? "Call" : "LargeCall"; });

TEST_P(CallTurnOfEachKind, IsHadByOneAtATime) {
  std::atomic<int> inside{0};
  std::atomic<int> together{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int call = 0; call < 300; ++call) {
        const CallTurn turn(GetParam(), Never);
        if (++inside > 1) ++together;
        std::this_thread::yield();
        --inside;
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(together, 0);
}

TEST_P(CallTurnOfEachKind, IsWaitedForUntilItIsGivenBack) {
  Taker first(GetParam());
  ASSERT_TRUE(first.WaitUntilPassed());
  Taker second(GetParam());
  Taker third(GetParam());
  EXPECT_TRUE(second.WaitUntilItWaits());
  EXPECT_TRUE(third.WaitUntilItWaits());
  first.Leave();
  EXPECT_TRUE(mivo_test::Eventually([&] { return second.HasPassed() || third.HasPassed(); }));
  Taker& next = second.HasPassed() ? second : third;
  Taker& last = second.HasPassed() ? third : second;
  EXPECT_TRUE(last.WaitUntilItWaits());
  next.Leave();
  EXPECT_TRUE(last.WaitUntilPassed());
}

TEST_P(CallTurnOfEachKind, IsWaitedForNoLongerByACallThatHasBecomePointless) {
  Taker holder(GetParam());
  ASSERT_TRUE(holder.WaitUntilPassed());
  std::optional<Taker> pointless;
  pointless.emplace(GetParam());
  Taker other(GetParam());
  EXPECT_TRUE(pointless->WaitUntilItWaits());
  EXPECT_TRUE(other.WaitUntilItWaits());
  pointless->BecomePointless();
  CallTurn::AskAgain();
  EXPECT_TRUE(pointless->WaitUntilPassed());
  // It had no turn that it could give back.
  pointless.reset();
  EXPECT_TRUE(other.WaitUntilItWaits());
  holder.Leave();
  EXPECT_TRUE(other.WaitUntilPassed());
}

TEST_P(CallTurnOfEachKind, IsNotWaitedForByACallThatWasPointlessFromTheBeginning) {
  Taker holder(GetParam());
  ASSERT_TRUE(holder.WaitUntilPassed());
  {
    const CallTurn turn(GetParam(), [] { return true; });
  }
  Taker other(GetParam());
  EXPECT_TRUE(other.WaitUntilItWaits());
  holder.Leave();
  EXPECT_TRUE(other.WaitUntilPassed());
}

TEST_P(CallTurnOfEachKind, IsTakenAlsoByAPointlessCallWhenNobodyHasIt) {
  std::optional<CallTurn> turn;
  turn.emplace(GetParam(), [] { return true; });
  Taker other(GetParam());
  EXPECT_TRUE(other.WaitUntilItWaits());
  turn.reset();
  EXPECT_TRUE(other.WaitUntilPassed());
}

TEST_P(CallTurnOfEachKind, IsNotWaitedForOnALoopThread) {
  Taker holder(GetParam());
  ASSERT_TRUE(holder.WaitUntilPassed());
  {
    const TestLoop loop;
    const CallTurn turn(GetParam(), Never);
    EXPECT_TRUE(holder.HasPassed());
  }
  // Nor given back by it.
  Taker other(GetParam());
  EXPECT_TRUE(other.WaitUntilItWaits());
  holder.Leave();
  EXPECT_TRUE(other.WaitUntilPassed());
}

TEST_P(CallTurnOfEachKind, IsNotTakenFromOthersByALoopThread) {
  const TestLoop loop;
  const CallTurn turn(GetParam(), Never);
  Taker other(GetParam());
  EXPECT_TRUE(other.WaitUntilPassed());
}

TEST_P(CallTurnOfEachKind, IsFreeInAChildOfFork) {
  Taker holder(GetParam());
  ASSERT_TRUE(holder.WaitUntilPassed());
  const pid_t child = fork();
  if (child == 0) {
    alarm(kChildSeconds);
    { const CallTurn turn(GetParam(), Never); }
    const CallTurn again(GetParam(), Never);
    _exit(0);
  }
  ASSERT_GT(child, 0);
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
}

TEST(CallTurn, OfALargeCallIsAnotherThanThatOfItsSlices) {
  const CallTurn of_the_whole(Kind::kLargeCall, Never);
  const CallTurn of_a_slice(Kind::kCall, Never);
  Taker call(Kind::kCall);
  Taker large_call(Kind::kLargeCall);
  EXPECT_TRUE(call.WaitUntilItWaits());
  EXPECT_TRUE(large_call.WaitUntilItWaits());
}

}  // namespace
}  // namespace mivo
