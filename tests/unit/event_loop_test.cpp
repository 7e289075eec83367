#include "loop/event_loop.h"

#include <gtest/gtest.h>
#include <uv.h>

#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/one_shot.h"
#include "loop/timer.h"
#include "loop/wakeup.h"
#include "loop/work_queue.h"
#include "support/teardown.h"
#include "support/uv_faults.h"

namespace mivo {
namespace {

using mivo_test::Fault;
using mivo_test::ScopedFault;

TEST(EventLoop, IsAsNewAfterAFailedOpen) {
  EventLoop loop;
  {
    const ScopedFault fault(Fault::kLoopInit, 1, 1, UV_EMFILE);
    EXPECT_EQ(loop.Open(), UV_EMFILE);
  }
  EXPECT_FALSE(loop.is_open());
  loop.Close();
  EXPECT_EQ(loop.Open(), 0);
  EXPECT_TRUE(loop.is_open());
  loop.Close();
  EXPECT_FALSE(loop.is_open());
}

TEST(EventLoop, MayBeClosedRepeatedlyAndLeavesNoDescriptor) {
  {
    EventLoop warm_up;
    warm_up.Open();
  }
  const mivo_test::Resources before = mivo_test::CountResources();
  for (int i = 0; i < 20; ++i) {
    EventLoop loop;
    ASSERT_EQ(loop.Open(), 0);
    loop.Close();
    loop.Close();
  }
  mivo_test::ExpectSameResources(before);
}

TEST(EventLoop, KnowsTheThreadThatRunsIt) {
  EventLoop loop;
  EXPECT_FALSE(loop.InThread());
  EXPECT_FALSE(EventLoop::InAnyThread());
  {
    const EventLoop::ThreadScope scope(loop);
    EXPECT_TRUE(loop.InThread());
    EXPECT_TRUE(EventLoop::InAnyThread());
    bool is_in_thread = true;
    bool is_in_any = true;
    std::thread([&] {
      is_in_thread = loop.InThread();
      is_in_any = EventLoop::InAnyThread();
    }).join();
    EXPECT_FALSE(is_in_thread);
    EXPECT_FALSE(is_in_any);
  }
  EXPECT_FALSE(loop.InThread());
  EXPECT_FALSE(EventLoop::InAnyThread());
}

TEST(EventLoop, TellsItsOwnThreadFromThatOfAnother) {
  EventLoop one;
  EventLoop other;
  const EventLoop::ThreadScope scope(one);
  EXPECT_FALSE(other.InThread());
  {
    const EventLoop::ThreadScope inner(other);
    EXPECT_TRUE(other.InThread());
  }
  EXPECT_TRUE(one.InThread());
  EXPECT_TRUE(EventLoop::InAnyThread());
}

TEST(EventLoop, RunsNothingWhenTheConditionHoldsAlready) {
  EventLoop loop;
  ASSERT_EQ(loop.Open(), 0);
  loop.RunUntil([] { return true; });
  loop.Run();
}

TEST(EventLoop, CarriesOutTheJobsOfATurnTogetherAndInOrder) {
  EventLoop loop;
  ASSERT_EQ(loop.Open(), 0);
  std::vector<std::string> journal;
  Timer first;
  Timer second;
  const auto add = [&](const char* name) {
    journal.emplace_back(std::string("asked ") + name);
    loop.AtTurnEnd([&journal, name] { journal.emplace_back(std::string("done ") + name); });
  };
  first.Start(loop.uv(), 0, 0, [&] { add("a"), add("b"); });
  second.Start(loop.uv(), 0, 0, [&] { add("c"); });
  loop.RunUntil([&] { return journal.size() == 6; });
  EXPECT_EQ(journal, (std::vector<std::string>{"asked a", "asked b", "asked c", "done a", "done b", "done c"}));
  first.Close();
  second.Close();
}

TEST(EventLoop, RunsAJobOnceAndBeforeItWaitsAgain) {
  EventLoop loop;
  ASSERT_EQ(loop.Open(), 0);
  int runs = 0;
  Wakeup wakeup;
  ASSERT_EQ(wakeup.Open(loop.uv(), [&] { loop.AtTurnEnd([&] { ++runs; }); }), 0);
  wakeup.Send();
  // The turn that the wake-up began; nothing else will ever happen on this loop.
  uv_run(loop.uv(), UV_RUN_ONCE);
  EXPECT_EQ(runs, 1);
  uv_run(loop.uv(), UV_RUN_NOWAIT);
  EXPECT_EQ(runs, 1);
  wakeup.Close();
}

TEST(EventLoop, RunsAJobThatAJobHasAddedInTheSameTurn) {
  EventLoop loop;
  ASSERT_EQ(loop.Open(), 0);
  int depth = 0;
  Wakeup wakeup;
  ASSERT_EQ(wakeup.Open(loop.uv(),
                        [&] {
                          loop.AtTurnEnd([&] {
                            ++depth;
                            loop.AtTurnEnd([&] { ++depth; });
                          });
                        }),
            0);
  wakeup.Send();
  uv_run(loop.uv(), UV_RUN_ONCE);
  EXPECT_EQ(depth, 2);
  wakeup.Close();
}

TEST(EventLoop, CarriesOutWhatIsLeftWhenItCloses) {
  EventLoop loop;
  ASSERT_EQ(loop.Open(), 0);
  bool done = false;
  loop.AtTurnEnd([&] { done = true; });
  loop.Close();
  EXPECT_TRUE(done);
}

TEST(EventLoop, DestroysAJobBesideItsCallback) {
  EventLoop loop;
  ASSERT_EQ(loop.Open(), 0);
  auto last_reference = std::make_shared<int>(1);
  const std::weak_ptr<int> watched = last_reference;
  loop.AtTurnEnd([held = std::move(last_reference)] {});
  EXPECT_FALSE(watched.expired());
  loop.Close();
  EXPECT_TRUE(watched.expired());
}

TEST(EventLoop, WaitsInCloseForHandlesThatAreClosingAndForWorkOnThePool) {
  class SlowWork : public Work {
   public:
    SlowWork(OneShot& may_end, bool& finished) : may_end_(may_end), finished_(finished) {}
    void Run() override { may_end_.Wait(); }
    void Finish() override { finished_ = true; }

   private:
    OneShot& may_end_;
    bool& finished_;
  };
  EventLoop loop;
  ASSERT_EQ(loop.Open(), 0);
  OneShot may_end;
  bool finished = false;
  WorkQueue queue;
  queue.Queue(loop.uv(), std::make_unique<SlowWork>(may_end, finished));
  Timer timer;
  timer.Start(loop.uv(), 1000000, 0, [] {});
  timer.Close();
  std::thread releaser([&] { may_end.Set(); });
  loop.Close();
  EXPECT_TRUE(finished);
  EXPECT_FALSE(loop.is_open());
  releaser.join();
}

TEST(EventLoop, IsClosedWhenItEnds) {
  bool done = false;
  {
    EventLoop loop;
    ASSERT_EQ(loop.Open(), 0);
    loop.AtTurnEnd([&] { done = true; });
  }
  EXPECT_TRUE(done);
}

TEST(EventLoop, OffersOneReadBuffer) {
  EventLoop loop;
  const uv_buf_t buffer = loop.ReadBuffer();
  EXPECT_EQ(buffer.len, 65536U);
  EXPECT_EQ(loop.ReadBuffer().base, buffer.base);
}

}  // namespace
}  // namespace mivo
