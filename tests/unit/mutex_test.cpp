#include "base/mutex.h"

#include <gtest/gtest.h>

#include <thread>
#include <type_traits>
#include <vector>

#include "support/event.h"

namespace mivo {
namespace {

TEST(Mutex, LetsOneThreadInAtATime) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 2000;
  Mutex mutex;
  int count = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < kRounds; ++round) {
        MutexLock lock(mutex);
        ++count;
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(count, kThreads * kRounds);
}

TEST(Mutex, WorksBeforeMainAndDuringExit) {
  // Compiles only if the object needs no code at start-up.
  static constexpr Mutex kAtStartUp;
  static_cast<void>(kAtStartUp);
  EXPECT_TRUE(std::is_trivially_destructible_v<Mutex>);
}

TEST(Condition, HoldsTheMutexAgainWhenTheWaitIsOver) {
  Mutex mutex;
  Condition changed;
  bool ready = false;
  bool seen = false;
  std::thread waiter([&] {
    MutexLock lock(mutex);
    while (!ready)
      changed.Wait(mutex);
    seen = true;
  });
  {
    MutexLock lock(mutex);
    ready = true;
    changed.NotifyAll();
    // Notified, but this thread still holds the mutex.
    EXPECT_FALSE(seen);
  }
  waiter.join();
  EXPECT_TRUE(seen);
}

TEST(Condition, WakesEveryWaiter) {
  constexpr int kWaiters = 4;
  Mutex mutex;
  Condition changed;
  int waiting = 0;
  bool ready = false;
  std::vector<std::thread> waiters;
  for (int i = 0; i < kWaiters; ++i) {
    waiters.emplace_back([&] {
      MutexLock lock(mutex);
      ++waiting;
      while (!ready)
        changed.Wait(mutex);
      --waiting;
    });
  }
  ASSERT_TRUE(mivo_test::Eventually([&] {
    MutexLock lock(mutex);
    return waiting == kWaiters;
  }));
  {
    MutexLock lock(mutex);
    ready = true;
    changed.NotifyAll();
  }
  for (std::thread& waiter : waiters)
    waiter.join();
  EXPECT_EQ(waiting, 0);
}

}  // namespace
}  // namespace mivo
