#include "loop/loop_thread.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cstddef>
#include <thread>
#include <vector>

#include "base/one_shot.h"

namespace mivo {
namespace {

bool IsSigpipeBlocked() {
  sigset_t mask;
  sigemptyset(&mask);
  pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  return sigismember(&mask, SIGPIPE) == 1;
}

TEST(LoopThread, RunsItsBodyOnAThreadOfItsOwnAndJoinsIt) {
  LoopThread thread("test-loop");
  std::thread::id id;
  ASSERT_TRUE(thread.Start([&] { id = std::this_thread::get_id(); }));
  thread.Join();
  EXPECT_NE(id, std::thread::id());
  EXPECT_NE(id, std::this_thread::get_id());
}

TEST(LoopThread, BlocksSigpipeOnItsThreadOnly) {
  const bool was_blocked_here = IsSigpipeBlocked();
  LoopThread thread("test-loop");
  bool is_blocked_there = false;
  ASSERT_TRUE(thread.Start([&] { is_blocked_there = IsSigpipeBlocked(); }));
  thread.Join();
  EXPECT_TRUE(is_blocked_there);
  EXPECT_EQ(IsSigpipeBlocked(), was_blocked_here);
}

TEST(LoopThread, BearsItsName) {
  LoopThread thread("fifteen-letters");
  char name[16] = "";
  ASSERT_TRUE(thread.Start([&] { pthread_getname_np(pthread_self(), name, sizeof name); }));
  thread.Join();
  EXPECT_STREQ(name, "fifteen-letters");
}

TEST(LoopThread, CanBeStartedAgainAfterAJoin) {
  LoopThread thread("test-loop");
  int runs = 0;
  for (int round = 0; round < 3; ++round) {
    ASSERT_TRUE(thread.Start([&] { ++runs; }));
    thread.Join();
  }
  EXPECT_EQ(runs, 3);
}

TEST(LoopThread, JoinsWithoutAThreadAndTwice) {
  LoopThread thread("test-loop");
  thread.Join();
  ASSERT_TRUE(thread.Start([] {}));
  thread.Join();
  thread.Join();
}

TEST(LoopThread, EveryJoinWaitsForTheEndOfTheBody) {
  LoopThread thread("test-loop");
  OneShot may_end;
  std::atomic<bool> ended{false};
  ASSERT_TRUE(thread.Start([&] {
    may_end.Wait();
    ended = true;
  }));
  std::atomic<int> too_early{0};
  std::vector<std::thread> joiners;
  for (int i = 0; i < 3; ++i) {
    joiners.emplace_back([&] {
      thread.Join();
      if (!ended) ++too_early;
    });
  }
  may_end.Set();
  for (std::thread& joiner : joiners)
    joiner.join();
  EXPECT_EQ(too_early, 0);
}

TEST(LoopThread, WaitsForItsBodyWhenItEnds) {
  std::atomic<bool> ended{false};
  {
    LoopThread thread("test-loop");
    ASSERT_TRUE(thread.Start([&] { ended = true; }));
  }
  EXPECT_TRUE(ended);
}

TEST(LoopThread, SaysSoWhenTheSystemHasNoThreadLeft) {
  pthread_attr_t usual;
  pthread_getattr_default_np(&usual);
  pthread_attr_t impossible;
  pthread_attr_init(&impossible);
  // No address space holds such a stack.
  ASSERT_EQ(pthread_attr_setstacksize(&impossible, std::size_t{1} << 60), 0);
  ASSERT_EQ(pthread_setattr_default_np(&impossible), 0);
  LoopThread thread("test-loop");
  bool ran = false;
  const bool started = thread.Start([&] { ran = true; });
  pthread_setattr_default_np(&usual);
  pthread_attr_destroy(&impossible);
  pthread_attr_destroy(&usual);
  EXPECT_FALSE(started);
  thread.Join();
  EXPECT_FALSE(ran);
  EXPECT_TRUE(thread.Start([&] { ran = true; }));
  thread.Join();
  EXPECT_TRUE(ran);
}

}  // namespace
}  // namespace mivo
