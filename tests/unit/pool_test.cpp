#include "pool/pool.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/clock.h"
#include "support/child_program.h"
#include "support/event.h"
#include "support/sanitizers.h"
#include "support/thread_state.h"
#include "support/uv_faults.h"
#include "unit/pool_fixture.h"

namespace mivo {
namespace {

using mivo_test::Event;
using mivo_test::Eventually;
using mivo_test::Fault;
using mivo_test::ScopedFault;

// How long nothing must happen where nothing may.
constexpr std::chrono::milliseconds kAWhile{50};

// Jobs that wait until they are let go.
struct Gate {
  std::function<void()> Blocking() {
    return [this] {
      const int now = ++running;
      int most = most_at_once;
      while (most < now && !most_at_once.compare_exchange_weak(most, now)) {
      }
      begun.Signal();
      open.WaitFor();
      --running;
      done.Signal();
    };
  }
  std::atomic<int> running{0};
  std::atomic<int> most_at_once{0};
  Event begun;
  Event open;
  Event done;
};

TEST(Pool, ReadsWhatArrivesOnAThreadOfItsOwn) {
  TestPool pool(2);
  pool.source->pair.Write("one");
  EXPECT_TRUE(pool.source->WaitForText("one"));
  pool.source->pair.Write("two");
  EXPECT_TRUE(pool.source->WaitForText("onetwo"));
  EXPECT_NE(pool.source->reader_thread, mivo_test::ThreadId());
}

TEST(Pool, TellsOfRoomAndOfTheEnd) {
  TestPool pool(1);
  pool.source->watch.SetWriting(true);
  EXPECT_TRUE(pool.source->told_of_room.WaitFor());
  pool.source->pair.ClosePeer();
  EXPECT_TRUE(pool.source->ended.WaitFor());
}

TEST(Pool, ReadsFromEverySourceThoughOneIsAlwaysBusy) {
  TestPool pool(2);
  std::atomic<bool> is_over{false};
  std::thread writer([&] {
    const std::string bytes(2000, 'x');
    while (!is_over) {
      try {
        pool.source->pair.Write(bytes);
      } catch (const std::runtime_error&) {
        std::this_thread::yield();  // full
      }
    }
  });
  for (int i = 0; i < 20; ++i) {
    const std::shared_ptr<SocketSource> other = pool.Add();
    other->pair.Write("heard");
    EXPECT_TRUE(other->WaitForText("heard")) << i;
  }
  is_over = true;
  writer.join();
}

TEST(Pool, RunsAJobOnAThreadOfItsOwnAndEndsIt) {
  TestPool pool(2);
  std::atomic<int> ran_on{0};
  auto held = std::make_shared<int>(0);
  const std::weak_ptr<int> watched = held;
  pool.Push([&ran_on, held = std::move(held)] { ran_on = mivo_test::ThreadId(); });
  pool.group.WaitUntilIdle();
  EXPECT_NE(ran_on, 0);
  EXPECT_NE(ran_on, mivo_test::ThreadId());
  EXPECT_TRUE(Eventually([&] { return watched.expired(); }));
}

TEST(Pool, RunsTheFirstOfWhatItHasReadOnTheThreadThatHasReadIt) {
  std::atomic<int> ran_on{0};
  JobGroup group;
  TestPool pool(3, [&](const std::string&, Jobs& jobs) {
    jobs.Push(MakeJob(group, [&ran_on] { ran_on = mivo_test::ThreadId(); }));
  });
  for (int i = 0; i < 50; ++i) {
    ran_on = 0;
    pool.source->pair.Write("x");
    EXPECT_TRUE(Eventually([&] { return ran_on != 0; }));
    EXPECT_EQ(ran_on, pool.source->reader_thread) << i;
  }
  group.WaitUntilIdle();
}

TEST(Pool, RunsSoManyJobsAtATimeAndNoMore) {
  Gate gate;
  TestPool pool(3);
  for (int i = 0; i < 10; ++i)
    pool.Push(gate.Blocking());
  EXPECT_TRUE(gate.begun.WaitFor(3));
  EXPECT_FALSE(gate.begun.WaitFor(4, kAWhile));
  gate.open.Signal();
  EXPECT_TRUE(gate.done.WaitFor(10));
  pool.group.WaitUntilIdle();
  EXPECT_EQ(gate.most_at_once, 3);
}

TEST(Pool, RunsOneJobAtATimeWhenItMayNotRunMore) {
  Gate gate;
  gate.open.Signal();
  TestPool pool(1);
  std::vector<int> order;
  for (int i = 0; i < 100; ++i) {
    pool.Push([&gate, &order, i] {
      gate.Blocking()();
      order.push_back(i);
    });
  }
  pool.group.WaitUntilIdle();
  EXPECT_EQ(gate.most_at_once, 1);
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
  EXPECT_EQ(order.size(), 100U);
}

TEST(Pool, StillReadsWhileAllItsHandlersBlock) {
  Gate gate;
  TestPool pool(2);
  for (int i = 0; i < 3; ++i)
    pool.Push(gate.Blocking());
  EXPECT_TRUE(gate.begun.WaitFor(2));
  for (const char* const text : {"1", "12", "123"}) {
    pool.source->pair.Write(std::string_view(text).substr(std::string_view(text).size() - 1));
    EXPECT_TRUE(pool.source->WaitForText(text));
  }
  EXPECT_EQ(gate.begun.count(), 2);
  gate.open.Signal();
  EXPECT_TRUE(gate.done.WaitFor(3));
}

TEST(Pool, StillReadsWhileTheJobsThatItHasReadBlock) {
  for (const int handlers : {1, 2, 4}) {
    Gate gate;
    TestPool pool(handlers, [&](const std::string& bytes, Jobs& jobs) {
      for (std::size_t i = 0; i < bytes.size(); ++i)
        jobs.Push(MakeJob(pool.group, gate.Blocking()));
    });
    pool.source->pair.Write("jjjjjj");
    EXPECT_TRUE(gate.begun.WaitFor(handlers));
    // The others wait; what arrives is read nevertheless, from this source and others.
    pool.source->pair.Write("jj");
    EXPECT_TRUE(pool.source->WaitForText("jjjjjjjj"));
    const std::shared_ptr<SocketSource> other = pool.Add();
    other->pair.Write("read");
    EXPECT_TRUE(other->WaitForText("read"));
    EXPECT_EQ(gate.begun.count(), handlers);
    gate.open.Signal();
    EXPECT_TRUE(gate.done.WaitFor(8));
    pool.group.WaitUntilIdle();
    EXPECT_EQ(gate.most_at_once, handlers);
  }
}

TEST(Pool, TakesReadingOverFromASlowJobAmongQuickOnes) {
  std::atomic<Gate*> gate{nullptr};
  std::atomic<int> quick{0};
  JobGroup group;
  TestPool pool(4, [&](const std::string& bytes, Jobs& jobs) {
    for (const char byte : bytes) {
      if (byte == 'q') jobs.Push(MakeJob(group, [&quick] { ++quick; }));
      if (byte == 's') jobs.Push(MakeJob(group, gate.load()->Blocking()));
    }
  });
  int expected = 0;
  for (int round = 0; round < 10; ++round) {
    // Long enough for the pool to believe that jobs are quick.
    for (int i = 0; i < 100; ++i) {
      pool.source->pair.Write("q");
      ++expected;
      EXPECT_TRUE(Eventually([&] { return quick == expected; }));
    }
    Gate slow;
    gate = &slow;
    pool.source->pair.Write("s");
    EXPECT_TRUE(slow.begun.WaitFor());
    const std::int64_t begin = NowMs();
    for (int i = 0; i < 3; ++i) {
      pool.source->pair.Write("q");
      ++expected;
      EXPECT_TRUE(Eventually([&] { return quick == expected; }));
    }
    EXPECT_LT(NowMs() - begin, 10000) << round;
    slow.open.Signal();
    group.WaitUntilIdle();
  }
}

TEST(Pool, RunsAJobThatAJobHasPushed) {
  for (const int handlers : {1, 3}) {
    Event ran;
    TestPool pool(handlers);
    pool.Push([&] {
      pool.Push([&] {
        pool.Push([&ran] { ran.Signal(); });
        ran.Signal();
      });
      ran.Signal();
    });
    EXPECT_TRUE(ran.WaitFor(3)) << handlers;
    pool.group.WaitUntilIdle();
  }
}

TEST(Pool, RunsAJobWhileTheOneThatHasPushedItWaitsForIt) {
  Event inner;
  Event outer;
  TestPool pool(2);
  pool.Push([&] {
    pool.Push([&inner] { inner.Signal(); });
    if (inner.WaitFor()) outer.Signal();
  });
  EXPECT_TRUE(outer.WaitFor());
  pool.group.WaitUntilIdle();
}

TEST(Pool, DropsTheJobsOfOneGroupThatNobodyHasBegun) {
  Gate gate;
  JobGroup doomed;
  std::atomic<int> doomed_ran{0};
  std::atomic<int> others_ran{0};
  TestPool pool(1);
  pool.pool.Push(MakeJob(doomed, gate.Blocking()));
  EXPECT_TRUE(gate.begun.WaitFor());
  for (int i = 0; i < 5; ++i) {
    pool.pool.Push(MakeJob(doomed, [&doomed_ran] { ++doomed_ran; }));
    pool.Push([&others_ran] { ++others_ran; });
  }
  pool.pool.DropWaiting(doomed);
  // The one that runs is still there.
  EXPECT_FALSE(doomed.IsIdle());
  EXPECT_FALSE(pool.group.IsIdle());
  gate.open.Signal();
  doomed.WaitUntilIdle();
  pool.group.WaitUntilIdle();
  EXPECT_EQ(doomed_ran, 0);
  EXPECT_EQ(others_ran, 5);
  pool.pool.DropWaiting(doomed);
}

TEST(Pool, ReadsNothingAndBeginsNothingOnceFrozen) {
  Gate gate;
  TestPool pool(2);
  pool.source->pair.Write("before");
  EXPECT_TRUE(pool.source->WaitForText("before"));
  const int reader = pool.source->reader_thread;
  EXPECT_TRUE(mivo_test::WaitUntilAsleep(reader));
  pool.Push(gate.Blocking());
  EXPECT_TRUE(gate.begun.WaitFor());
  pool.pool.Freeze();
  std::atomic<bool> ran{false};
  pool.Push([&ran] { ran = true; });
  pool.source->pair.Write("after");
  // What runs may end.
  gate.open.Signal();
  EXPECT_TRUE(gate.done.WaitFor());
  EXPECT_TRUE(mivo_test::WaitUntilAsleep(reader));
  EXPECT_EQ(pool.source->text(), "before");
  EXPECT_FALSE(ran);
  pool.pool.DropWaiting(pool.group);
}

TEST(Pool, LosesNoJobOfManyThreads) {
  constexpr int kPushers = 4;
  constexpr int kEach = 3000 / mivo_test::kScaledown;
  for (const int handlers : {1, 3}) {
    std::atomic<int> ran{0};
    std::atomic<int> read_ran{0};
    std::atomic<int> running{0};
    std::atomic<bool> too_many{false};
    const auto work = [&, handlers](std::atomic<int>* count) {
      return [&running, &too_many, handlers, count] {
        if (++running > handlers) too_many = true;
        ++*count;
        --running;
      };
    };
    TestPool pool(handlers, [&](const std::string& bytes, Jobs& jobs) {
      for (std::size_t i = 0; i < bytes.size(); ++i)
        jobs.Push(MakeJob(pool.group, work(&read_ran)));
    });
    std::vector<std::thread> pushers;
    for (int pusher = 0; pusher < kPushers; ++pusher) {
      pushers.emplace_back([&, pusher] {
        for (int i = 0; i < kEach; ++i) {
          if (i % 7 != pusher) {
            pool.Push(work(&ran));
            continue;
          }
          Jobs jobs;
          jobs.Push(MakeJob(pool.group, work(&ran)));
          pool.pool.Push(std::move(jobs));
          // Now and then all of them come to rest.
          if (i % 50 == pusher) pool.group.WaitUntilIdle();
        }
      });
    }
    for (int i = 0; i < kEach; ++i) {
      pool.source->pair.Write("x");
      EXPECT_TRUE(i % 64 != 0 || Eventually([&] { return read_ran > i; }));
    }
    for (std::thread& pusher : pushers)
      pusher.join();
    EXPECT_TRUE(Eventually([&] { return ran == kPushers * kEach && read_ran == kEach; })) << ran << " " << read_ran;
    pool.group.WaitUntilIdle();
    EXPECT_FALSE(too_many);
  }
}

TEST(Pool, LetsGoOfASourceThatWasStopped) {
  TestPool pool(2);
  auto source = std::make_shared<SocketSource>();
  ASSERT_EQ(pool.pool.Start(source->watch, source->descriptor, source), 0);
  source->watch.SetReading(true);
  source->pair.Write("bytes");
  EXPECT_TRUE(source->WaitForText("bytes"));
  const std::weak_ptr<SocketSource> watched = source;
  source->watch.Stop();
  source.reset();
  // Whoever has just read from it looks once more or twice.
  EXPECT_TRUE(Eventually([&] { return watched.expired(); }));
}

TEST(Pool, HandsNothingOfAClosedStreamToTheNextOne) {
  TestPool pool(2);
  for (int round = 0; round < 300 / mivo_test::kScaledown; ++round) {
    auto old = std::make_shared<SocketSource>();
    ASSERT_EQ(pool.pool.Start(old->watch, old->descriptor, old), 0);
    old->watch.SetReading(true);
    old->pair.Write("old");
    if (round % 2 == 0) old->pair.ClosePeer();
    old->watch.Stop();
    const std::weak_ptr<SocketSource> watched = old;
    old.reset();
    // Mostly with the same number.
    const auto next = std::make_shared<SocketSource>();
    ASSERT_EQ(pool.pool.Start(next->watch, next->descriptor, next), 0);
    next->watch.SetReading(true);
    next->pair.Write("new");
    EXPECT_TRUE(next->WaitForText("new")) << round;
    EXPECT_EQ(next->ended.count(), 0) << round;
    next->watch.Stop();
    EXPECT_TRUE(Eventually([&] { return watched.expired(); }));
  }
}

TEST(Pool, CannotStartWithoutAThread) {
  Pool& pool = NewPool(2);
  const auto source = std::make_shared<SocketSource>();
  {
    const ScopedFault fault(Fault::kThreadCreate, 1, 1000, -EAGAIN);
    EXPECT_EQ(pool.Start(source->watch, source->descriptor, source), -EAGAIN);
  }
  ASSERT_EQ(pool.Start(source->watch, source->descriptor, source), 0);
  source->watch.SetReading(true);
  source->pair.Write("bytes");
  EXPECT_TRUE(source->WaitForText("bytes"));
  source->watch.Stop();
}

TEST(Pool, StartsTheThreadsThatCouldNotBeHadWhenTheyAreNeeded) {
  Pool& pool = NewPool(3);
  JobGroup group;
  Gate gate;
  const auto source = std::make_shared<SocketSource>();
  {
    const ScopedFault fault(Fault::kThreadCreate, 2, 1000, -EAGAIN);
    ASSERT_EQ(pool.Start(source->watch, source->descriptor, source), 0);
  }
  source->watch.SetReading(true);
  for (int i = 0; i < 3; ++i)
    pool.Push(MakeJob(group, gate.Blocking()));
  EXPECT_TRUE(gate.begun.WaitFor(3));
  source->pair.Write("read");
  EXPECT_TRUE(source->WaitForText("read"));
  gate.open.Signal();
  group.WaitUntilIdle();
  source->watch.Stop();
}

TEST(Pool, SaysWhatTheKernelSaysWhenItRefusesTheStream) {
  TestPool pool(1);
  const auto source = std::make_shared<SocketSource>();
  const ScopedFault fault(Fault::kWatchCall, 1, 1, -ENOSPC);
  EXPECT_EQ(pool.pool.Start(source->watch, source->descriptor, source), -ENOSPC);
}

// How many jobs the pool of a fresh process runs at a time, by its environment.
const mivo_test::Role kPoolSize("pool-size", [](const std::string& size) {
  if (size != "unset") setenv("UV_THREADPOOL_SIZE", size.c_str(), 1);
  Gate gate;
  JobGroup group;
  const auto source = std::make_shared<SocketSource>();
  if (Pool::OfProcess().Start(source->watch, source->descriptor, source) != 0) return 100;
  for (int i = 0; i < 20; ++i)
    Pool::OfProcess().Push(MakeJob(group, gate.Blocking()));
  for (int begun = 1; gate.begun.WaitFor(begun, std::chrono::milliseconds(500)); ++begun) {
  }
  gate.open.Signal();
  group.WaitUntilIdle();
  source->watch.Stop();
  return gate.most_at_once.load();
});

TEST(Pool, OfTheProcessIsAsLargeAsTheEnvironmentSays) {
  EXPECT_EQ(mivo_test::StartRole("pool-size", "unset").Wait(), 4);
  EXPECT_EQ(mivo_test::StartRole("pool-size", "7").Wait(), 7);
  EXPECT_EQ(mivo_test::StartRole("pool-size", "0").Wait(), 1);
  EXPECT_EQ(mivo_test::StartRole("pool-size", "many").Wait(), 1);
}

TEST(Pool, OfTheProcessIsOneAndAnotherInAChildOfFork) {
  Pool* const here = &Pool::OfProcess();
  EXPECT_EQ(&Pool::OfProcess(), here);
  const pid_t child = fork();
  if (child == 0) _exit(&Pool::OfProcess() != here && &Pool::OfProcess() == &Pool::OfProcess() ? 0 : 1);
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

}  // namespace
}  // namespace mivo
