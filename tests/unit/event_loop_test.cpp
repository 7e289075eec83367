#include "loop/event_loop.h"

#include <gtest/gtest.h>
#include <uv.h>

#include <atomic>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "loop/timer.h"
#include "support/event.h"
#include "support/teardown.h"
#include "support/thread_id.h"
#include "support/thread_state.h"
#include "support/uv_faults.h"
#include "unit/test_loop.h"

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

TEST(EventLoop, IsAsNewWhenItCannotBeWoken) {
  EventLoop loop;
  {
    const ScopedFault fault(Fault::kAsyncInit, 1, 1, UV_ENOMEM);
    EXPECT_EQ(loop.Open(), UV_ENOMEM);
  }
  EXPECT_FALSE(loop.is_open());
  EXPECT_FALSE(loop.Post([] {}));
  EXPECT_EQ(loop.Open(), 0);
  EXPECT_TRUE(loop.Post([] {}));
}

TEST(EventLoop, RefusesTasksBeforeItIsOpenAndAfterItWasShut) {
  EventLoop loop;
  int ran = 0;
  const auto task = [&ran] { ++ran; };
  EXPECT_FALSE(loop.Post(task));
  ASSERT_EQ(loop.Open(), 0);
  EXPECT_TRUE(loop.Post(task));
  loop.Shut();
  EXPECT_EQ(ran, 1);
  EXPECT_FALSE(loop.Post(task));
  loop.Shut();
  loop.Run();
  loop.Close();
  EXPECT_FALSE(loop.Post(task));
  EXPECT_EQ(ran, 1);
}

TEST(EventLoop, TakesTasksAgainWhenItIsOpenedAgain) {
  EventLoop loop;
  ASSERT_EQ(loop.Open(), 0);
  loop.Close();
  ASSERT_EQ(loop.Open(), 0);
  bool ran = false;
  EXPECT_TRUE(loop.Post([&ran] { ran = true; }));
  loop.Close();
  EXPECT_TRUE(ran);
}

TEST(EventLoop, RunsTasksInTheirOrderOnItsThread) {
  TestLoop loop;
  std::vector<int> order;
  int elsewhere = 0;
  const auto task = [&](int number) {
    return [&, number] {
      order.push_back(number);
      if (!loop.InThread()) ++elsewhere;
    };
  };
  std::thread([&] {
    for (int i = 1; i <= 3; ++i)
      EXPECT_TRUE(loop.Post(task(i)));
  }).join();
  EXPECT_TRUE(order.empty());
  EXPECT_TRUE(loop.RunUntil([&] { return order.size() == 3; }));
  loop.Post(task(4));
  EXPECT_TRUE(loop.RunUntil([&] { return order.size() == 4; }));
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
  EXPECT_EQ(elsewhere, 0);
}

TEST(EventLoop, IsWokenByATaskThatComesWhileItWaits) {
  EventLoop loop;
  ASSERT_EQ(loop.Open(), 0);
  const EventLoop::ThreadScope scope(loop);
  mivo_test::Event ran;
  const int loop_thread = mivo_test::ThreadId();
  std::thread poster([&] {
    for (int round = 1; round <= 3; ++round) {
      EXPECT_TRUE(mivo_test::WaitUntilAsleep(loop_thread));
      EXPECT_TRUE(loop.Post([&ran] { ran.Signal(); }));
      EXPECT_TRUE(ran.WaitFor(round));
    }
    EXPECT_TRUE(loop.Post([&loop] { loop.Shut(); }));
  });
  loop.Run();
  poster.join();
  EXPECT_EQ(ran.count(), 3);
}

TEST(EventLoop, RunsTasksThatTasksHavePosted) {
  TestLoop loop;
  std::vector<int> order;
  loop.Post([&] {
    order.push_back(1);
    EXPECT_TRUE(loop.Post([&] {
      order.push_back(3);
      EXPECT_TRUE(loop.Post([&] { order.push_back(4); }));
    }));
  });
  loop.Post([&] { order.push_back(2); });
  EXPECT_TRUE(loop.RunUntil([&] { return order.size() == 4; }));
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
}

TEST(EventLoop, LetsGoOfATaskWhenItHasRun) {
  TestLoop loop;
  auto last_reference = std::make_shared<int>(1);
  const std::weak_ptr<int> watched = last_reference;
  bool was_there = false;
  loop.Post([&was_there, &watched, held = std::move(last_reference)] { was_there = !watched.expired(); });
  EXPECT_FALSE(watched.expired());
  EXPECT_TRUE(loop.RunUntil([&] { return watched.expired(); }));
  EXPECT_TRUE(was_there);
}

TEST(EventLoop, MayBeShutByATask) {
  TestLoop loop;
  std::vector<int> order;
  loop.Post([&] {
    order.push_back(1);
    EXPECT_TRUE(loop.Post([&] { order.push_back(2); }));
    // Runs what was posted meanwhile, and nothing that comes later.
    loop.Shut();
    order.push_back(3);
    EXPECT_FALSE(loop.Post([&] { order.push_back(-1); }));
  });
  loop.Run();
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST(EventLoop, DropsWithoutRunningItATaskThatComesWhileItIsShut) {
  EventLoop loop;
  ASSERT_EQ(loop.Open(), 0);
  auto last_reference = std::make_shared<int>(1);
  const std::weak_ptr<int> watched = last_reference;
  bool ran = false;
  loop.Post([&] { EXPECT_TRUE(loop.Post([&ran, held = std::move(last_reference)] { ran = true; })); });
  loop.Shut();
  EXPECT_FALSE(ran);
  EXPECT_TRUE(watched.expired());
}

TEST(EventLoop, RunsWhatIsLeftWhenItCloses) {
  EventLoop loop;
  ASSERT_EQ(loop.Open(), 0);
  bool done = false;
  loop.Post([&] { done = true; });
  loop.Close();
  EXPECT_TRUE(done);
}

TEST(EventLoop, IsClosedWhenItEnds) {
  bool done = false;
  {
    EventLoop loop;
    ASSERT_EQ(loop.Open(), 0);
    loop.Post([&] { done = true; });
  }
  EXPECT_TRUE(done);
}

TEST(EventLoop, WaitsInCloseForHandlesThatAreClosing) {
  EventLoop loop;
  ASSERT_EQ(loop.Open(), 0);
  Timer timer;
  ASSERT_EQ(timer.Start(loop.uv(), 1000000, 0, [] {}), 0);
  timer.Close();
  loop.Close();
  EXPECT_FALSE(loop.is_open());
}

TEST(EventLoop, KeepsTheOrderOfEachThread) {
  TestLoop loop;
  constexpr int kThreads = 4;
  constexpr int kEach = 500;
  std::vector<int> last(kThreads, -1);
  int received = 0;
  bool in_order = true;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int number = 0; number < kEach; ++number) {
        loop.Post([&, thread, number] {
          in_order = in_order && number == last[static_cast<std::size_t>(thread)] + 1;
          last[static_cast<std::size_t>(thread)] = number;
          ++received;
        });
      }
    });
  }
  EXPECT_TRUE(loop.RunUntil([&] { return received == kThreads * kEach; }));
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_TRUE(in_order);
}

TEST(EventLoop, LosesNoTaskThatItTookBeforeItIsShutAndRunsNoneAfterwards) {
  for (int round = 0; round < 50; ++round) {
    // Counts the tasks that are gone, whether they ran or not.
    struct Mark {
      explicit Mark(std::atomic<int>& count) : gone(&count) {}
      ~Mark() { ++*gone; }
      Mark(const Mark&) = delete;
      Mark& operator=(const Mark&) = delete;
      std::atomic<int>* gone;
    };
    TestLoop loop;
    int ran = 0;
    std::atomic<int> gone{0};
    std::atomic<int> taken{0};
    std::vector<std::thread> posters;
    for (int i = 0; i < 3; ++i) {
      posters.emplace_back([&] {
        for (;;) {
          if (!loop.Post([&ran, mark = std::make_shared<Mark>(gone)] { ++ran; })) {
            --gone;  // its own
            return;
          }
          ++taken;
          std::this_thread::yield();  // on one processor the loop would hardly get a turn
        }
      });
    }
    EXPECT_TRUE(loop.RunUntil([&] { return ran > 0; }));
    const int taken_before = taken;
    loop.Shut();
    const int ran_when_shut = ran;
    EXPECT_GE(ran_when_shut, taken_before);
    for (std::thread& poster : posters)
      poster.join();
    loop.Run();
    EXPECT_EQ(ran, ran_when_shut);
    EXPECT_EQ(gone, taken);
    EXPECT_LE(ran, taken);
  }
}

}  // namespace
}  // namespace mivo
