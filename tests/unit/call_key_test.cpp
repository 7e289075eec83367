#include "base/call_key.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <thread>

namespace mivo {
namespace {

TEST(CallKey, IsTheKeyThatIsGiven) {
  EXPECT_EQ(CallKey(77), 77);
  EXPECT_EQ(CallKey(-5), -5);
  EXPECT_EQ(CallKey(INT_MIN), INT_MIN);
}

TEST(CallKey, IsElseTheCallingThread) {
  EXPECT_EQ(CallKey(0), static_cast<int>(::syscall(SYS_gettid)));
  int key_of_another = 0;
  int another = 0;
  std::thread([&] {
    key_of_another = CallKey(0);
    another = static_cast<int>(::syscall(SYS_gettid));
  }).join();
  EXPECT_EQ(key_of_another, another);
  EXPECT_NE(key_of_another, CallKey(0));
}

TEST(CallKey, KnowsTheThreadByTheKernelsNumberEachTime) {
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(KernelThreadId(), static_cast<int>(::syscall(SYS_gettid))) << i;
}

TEST(CallKey, IsAnotherOneInAChildOfFork) {
  const int key_of_parent = CallKey(0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) _exit(CallKey(0) == static_cast<int>(getpid()) && CallKey(0) != key_of_parent ? 0 : 1);
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

}  // namespace
}  // namespace mivo
