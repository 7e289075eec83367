#include "base/library_thread.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <string>
#include <system_error>
#include <thread>

#include "support/event.h"
#include "support/uv_faults.h"

namespace mivo {
namespace {

using mivo_test::Event;
using mivo_test::Fault;
using mivo_test::ScopedFault;

bool IsSigpipeBlocked() {
  sigset_t mask;
  sigemptyset(&mask);
  pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  return sigismember(&mask, SIGPIPE) == 1;
}

std::string NameOfThread() {
  char name[16] = "";
  pthread_getname_np(pthread_self(), name, sizeof name);
  return name;
}

TEST(LibraryThread, RunsUnderItsNameWithSigpipeBlocked) {
  const bool was_blocked_here = IsSigpipeBlocked();
  std::string name;
  bool is_blocked = false;
  StartThread("library-thread", [&] {
    name = NameOfThread();
    is_blocked = IsSigpipeBlocked();
  }).join();
  EXPECT_EQ(name, "library-thread");
  EXPECT_TRUE(is_blocked);
  EXPECT_EQ(IsSigpipeBlocked(), was_blocked_here);
}

TEST(LibraryThread, TakesAFunctionThatCanOnlyBeMovedAndMayChangeItself) {
  int result = 0;
  StartThread("moved", [number = std::make_unique<int>(6), &result]() mutable {
    ++*number;
    result = *number;
  }).join();
  EXPECT_EQ(result, 7);
}

TEST(LibraryThread, ThrowsWhenTheSystemHasNoneLeft) {
  bool ran = false;
  {
    const ScopedFault fault(Fault::kThreadCreate, 1, 1, -EAGAIN);
    EXPECT_THROW(StartThread("none", [&] { ran = true; }), std::system_error);
  }
  EXPECT_FALSE(ran);
}

TEST(LibraryThread, DetachedRunsToItsEnd) {
  const auto done = std::make_shared<Event>();
  const auto name = std::make_shared<std::string>();
  EXPECT_TRUE(RunDetached("detached", [done, name] {
    *name = NameOfThread();
    done->Signal();
  }));
  ASSERT_TRUE(done->WaitFor());
  EXPECT_EQ(*name, "detached");
}

TEST(LibraryThread, DetachedSaysSoWhenTheSystemHasNoneLeft) {
  const auto held = std::make_shared<int>(0);
  std::atomic<bool> ran{false};
  const ScopedFault fault(Fault::kThreadCreate, 1, 1, -EAGAIN);
  EXPECT_FALSE(RunDetached("none", [&ran, held] { ran = true; }));
  EXPECT_FALSE(ran);
  // What the function held is let go of.
  EXPECT_EQ(held.use_count(), 1);
}

}  // namespace
}  // namespace mivo
