#include "base/sigpipe_guard.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <thread>

namespace {

sigset_t OnlySigpipe() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGPIPE);
  return set;
}

bool IsBlocked() {
  sigset_t mask;
  sigemptyset(&mask);
  pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  return sigismember(&mask, SIGPIPE) == 1;
}

bool IsPending() {
  sigset_t pending;
  sigemptyset(&pending);
  sigpending(&pending);
  return sigismember(&pending, SIGPIPE) == 1;
}

int ErrnoOfAWriteWithoutReader() {
  int ends[2];
  if (pipe(ends) != 0) return errno;
  close(ends[0]);
  const ssize_t written = write(ends[1], "x", 1);
  const int error = written < 0 ? errno : 0;
  close(ends[1]);
  return error;
}

// Each test on a thread of its own: the signal mask and what is pending end with it.
template <class Body>
void OnAThread(Body body) {
  std::thread(body).join();
}

TEST(SigpipeGuard, TurnsTheSignalIntoAnErrorOfTheWrite) {
  OnAThread([] {
    {
      const mivo::SigpipeGuard guard;
      EXPECT_EQ(ErrnoOfAWriteWithoutReader(), EPIPE);
    }
    EXPECT_FALSE(IsBlocked());
    EXPECT_FALSE(IsPending());
  });
}

TEST(SigpipeGuard, LeavesTheProcessWideDispositionAlone) {
  struct sigaction before = {};
  struct sigaction inside = {};
  sigaction(SIGPIPE, nullptr, &before);
  {
    const mivo::SigpipeGuard guard;
    sigaction(SIGPIPE, nullptr, &inside);
  }
  EXPECT_EQ(before.sa_handler, inside.sa_handler);
}

TEST(SigpipeGuard, BlocksUntilTheOutermostGuardEnds) {
  OnAThread([] {
    std::optional<mivo::SigpipeGuard> outer(std::in_place);
    {
      const mivo::SigpipeGuard inner;
      EXPECT_EQ(ErrnoOfAWriteWithoutReader(), EPIPE);
    }
    EXPECT_TRUE(IsBlocked());
    EXPECT_EQ(ErrnoOfAWriteWithoutReader(), EPIPE);
    outer.reset();
    EXPECT_FALSE(IsBlocked());
    EXPECT_FALSE(IsPending());
  });
}

TEST(SigpipeGuard, KeepsItBlockedForACallerThatHadBlockedIt) {
  OnAThread([] {
    const sigset_t sigpipe = OnlySigpipe();
    pthread_sigmask(SIG_BLOCK, &sigpipe, nullptr);
    {
      const mivo::SigpipeGuard guard;
      EXPECT_EQ(ErrnoOfAWriteWithoutReader(), EPIPE);
    }
    EXPECT_TRUE(IsBlocked());
    EXPECT_FALSE(IsPending()) << "the guard's own signal must not reach the caller later";
  });
}

TEST(SigpipeGuard, LeavesASignalThatWasPendingBefore) {
  OnAThread([] {
    const sigset_t sigpipe = OnlySigpipe();
    pthread_sigmask(SIG_BLOCK, &sigpipe, nullptr);
    pthread_kill(pthread_self(), SIGPIPE);
    {
      const mivo::SigpipeGuard guard;
      EXPECT_EQ(ErrnoOfAWriteWithoutReader(), EPIPE);
    }
    EXPECT_TRUE(IsPending());
    const timespec at_once = {0, 0};
    EXPECT_EQ(sigtimedwait(&sigpipe, nullptr, &at_once), SIGPIPE);
  });
}

TEST(SigpipeGuard, KeepsErrno) {
  OnAThread([] {
    {
      const mivo::SigpipeGuard guard;
      errno = ENOTEMPTY;
    }
    EXPECT_EQ(errno, ENOTEMPTY);
  });
}

}  // namespace
