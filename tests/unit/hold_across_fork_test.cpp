#include "base/hold_across_fork.h"

#include "support/event.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

namespace mivo {
namespace {

using mivo_test::Event;

constexpr unsigned int kChildSeconds = 60;
// How long the other thread is in the middle of something: only a fork that does not wait for it is over by then.
constexpr std::chrono::milliseconds kHalfway{200};

Mutex mutex;
int begun MIVO_GUARDED_BY(mutex) = 0;
int done MIVO_GUARDED_BY(mutex) = 0;
[[maybe_unused]] const int held_across_fork = HoldAcrossFork<mutex>();

TEST(HoldAcrossFork, LeavesTheChildAMutexThatNobodyHoldsAndWhatItGuardsWhole) {
  Event in_the_middle;
  Event forked;
  std::thread other([&] {
    {
      MutexLock lock(mutex);
      ++begun;
      in_the_middle.Signal();
      forked.WaitFor(1, kHalfway);
      ++done;
    }
    // ThreadSanitizer would have the child join a thread that has ended before the fork.
    forked.WaitFor();
  });
  ASSERT_TRUE(in_the_middle.WaitFor());

  const pid_t child = fork();
  if (child == 0) {
    alarm(kChildSeconds);
    MutexLock lock(mutex);
    _exit(begun == done ? 0 : 1);
  }
  forked.Signal();
  other.join();
  ASSERT_GT(child, 0);
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;

  MutexLock lock(mutex);
  EXPECT_EQ(done, begun);
}

}  // namespace
}  // namespace mivo
