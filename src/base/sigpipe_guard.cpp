#include "base/sigpipe_guard.h"

#include <pthread.h>
#include <csignal>
#include <ctime>

#include <cerrno>

namespace mivo {
namespace {

thread_local int guard_depth = 0;

sigset_t OnlySigpipe() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGPIPE);
  return set;
}

}  // namespace

SigpipeGuard::SigpipeGuard() {
  if (guard_depth++ > 0) return;

  // Pending means that the caller has it blocked and one is waiting: ours would merge with it, and it is not ours to
  // take.
  sigset_t pending;
  sigemptyset(&pending);
  sigpending(&pending);
  if (sigismember(&pending, SIGPIPE) == 1) return;

  const sigset_t sigpipe = OnlySigpipe();
  sigset_t before;
  sigemptyset(&before);
  if (pthread_sigmask(SIG_BLOCK, &sigpipe, &before) != 0) return;
  swallow_ = true;
  unblock_ = sigismember(&before, SIGPIPE) == 0;
}

SigpipeGuard::~SigpipeGuard() {
  --guard_depth;
  if (!swallow_) return;

  const int saved_errno = errno;
  const sigset_t sigpipe = OnlySigpipe();
  const timespec at_once = {0, 0};
  while (sigtimedwait(&sigpipe, nullptr, &at_once) == -1 && errno == EINTR) {
  }
  // Only our own bit: what the guarded code did to the rest of the mask stays.
  if (unblock_) pthread_sigmask(SIG_UNBLOCK, &sigpipe, nullptr);
  errno = saved_errno;
}

}  // namespace mivo
