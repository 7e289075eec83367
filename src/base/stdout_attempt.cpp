// The descriptor belongs to the host program and is shared with other processes, so it is never made non-blocking. What
// is known about waiting differs:
//
//   a file            never waits, in the sense meant here
//   a pipe, a tty     opened a second time, by its name in /proc, for one write: that description is ours alone and may
//                     be non-blocking. Not kept open, or a reader would miss the end when the program closes its own.
//   a socket          has a flag for one write
//   anything else     is asked whether it is ready
//
// Where a pipe cannot be opened (another user's, no /proc) it is asked as well: a ready one has room for PIPE_BUF
// bytes, and only another process can take that in between. A tty says it is ready as long as it has room for one byte,
// so there only the patient may write.
#include "base/stdout_attempt.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <stdio_ext.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <utility>

namespace mivo {

namespace {

// Somebody who prints has stdio's lock for microseconds, unless he is stuck.
constexpr int kLockTries = 50;
constexpr int kLookAgainMs = 100;
constexpr useconds_t kBreathUs = 1000;

enum class Kind { kNeverWaits, kNonBlocking, kPipe, kTerminal, kSocket, kOther };

// stdio's own lock, which makes "ask, then write" one step towards everybody in this process.
class StdoutLock {
 public:
  explicit StdoutLock(Patience patience) : held_(Take(patience)) {}
  ~StdoutLock() { Release(); }
  StdoutLock(const StdoutLock&) = delete;
  StdoutLock& operator=(const StdoutLock&) = delete;
  bool held() const { return held_; }
  void Release() {
    if (std::exchange(held_, false)) ::funlockfile(stdout);
  }

 private:
  static bool Take(Patience patience) {
    if (patience == Patience::kSome) {
      ::flockfile(stdout);
      return true;
    }
    for (int i = 0; i < kLockTries; ++i) {
      if (::ftrylockfile(stdout) == 0) return true;
      ::sched_yield();
    }
    return false;
  }
  bool held_;
};

Kind KindOf(int descriptor) {
  struct stat status {};
  const int flags = ::fcntl(descriptor, F_GETFL);
  // What cannot be written to says so at once.
  if (flags < 0 || (flags & O_ACCMODE) == O_RDONLY || ::fstat(descriptor, &status) != 0) return Kind::kNeverWaits;
  if (S_ISREG(status.st_mode) || S_ISBLK(status.st_mode)) return Kind::kNeverWaits;
  if ((flags & O_NONBLOCK) != 0) return Kind::kNonBlocking;
  if (S_ISFIFO(status.st_mode)) return Kind::kPipe;
  if (S_ISSOCK(status.st_mode)) return Kind::kSocket;
  return ::isatty(descriptor) == 1 ? Kind::kTerminal : Kind::kOther;
}

// True also when writing would fail at once.
bool IsReady(int descriptor) {
  pollfd entry{descriptor, POLLOUT, 0};
  return ::poll(&entry, 1, 0) == 1;
}

ssize_t WriteOrNotReady(int descriptor, std::string_view text) {
  if (IsReady(descriptor)) return ::write(descriptor, text.data(), text.size());
  errno = EAGAIN;
  return -1;
}

ssize_t WriteOnOwnDescription(Kind kind, int descriptor, std::string_view text, Patience patience) {
  char name[32];
  std::snprintf(name, sizeof name, "/proc/self/fd/%d", descriptor);
  const int own = ::open(name, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (own < 0) {
    if (kind == Kind::kPipe) return WriteOrNotReady(descriptor, text);
    if (patience == Patience::kSome) return ::write(descriptor, text.data(), text.size());
    errno = EAGAIN;
    return -1;
  }
  const ssize_t written = ::write(own, text.data(), text.size());
  const int error = errno;
  ::close(own);
  errno = error;
  return written;
}

ssize_t WriteOnce(Kind kind, int descriptor, std::string_view text, Patience patience) {
  switch (kind) {
    case Kind::kNeverWaits:
    case Kind::kNonBlocking:
      return ::write(descriptor, text.data(), text.size());
    case Kind::kPipe:
    case Kind::kTerminal:
      return WriteOnOwnDescription(kind, descriptor, text, patience);
    case Kind::kSocket:
      return ::send(descriptor, text.data(), text.size(), MSG_DONTWAIT);
    case Kind::kOther:
      break;
  }
  return WriteOrNotReady(descriptor, text);
}

// The lock on stdout is held.
bool FlushesAtOnce(Kind kind, int descriptor) {
  const std::size_t pending = ::__fpending(stdout);
  if (pending == 0 || kind == Kind::kNeverWaits) return true;
  return kind != Kind::kTerminal && pending <= PIPE_BUF && IsReady(descriptor);
}

}  // namespace

std::size_t WriteAsFarAsItGoes(std::string_view text, Patience patience) {
  StdoutLock lock(patience);
  if (!lock.held()) return 0;
  const int descriptor = ::fileno(stdout);
  const Kind kind = descriptor < 0 ? Kind::kNeverWaits : KindOf(descriptor);
  if (kind == Kind::kNeverWaits) {
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
    return text.size();
  }

  // What the program has printed comes first. The patient one may get stuck here with the lock in its hands; those of
  // the program who print would be stuck then with or without us, for it is their text that does not fit.
  if (!FlushesAtOnce(kind, descriptor)) {
    if (patience == Patience::kNone || !IsReady(descriptor)) return 0;
  }
  std::fflush(stdout);
  // This may wait; nobody else is to wait for the lock meanwhile.
  if (kind == Kind::kTerminal && patience == Patience::kSome) lock.Release();

  ssize_t written = -1;
  do {
    written = WriteOnce(kind, descriptor, text, patience);
  } while (written < 0 && errno == EINTR);
  if (written < 0) return errno == EAGAIN ? 0 : text.size();
  return static_cast<std::size_t>(written);
}

void AwaitRoomOnStdout() {
  pollfd entry{::fileno(stdout), POLLOUT, 0};
  ::poll(&entry, 1, kLookAgainMs);
  // A tty with room for one byte is ready, and does not take a line end, which is two: without a pause this would spin.
  ::usleep(kBreathUs);
}

bool StdoutFlushesAtOnce() {
  const StdoutLock lock(Patience::kNone);
  if (!lock.held()) return false;
  const int descriptor = ::fileno(stdout);
  return descriptor < 0 || FlushesAtOnce(KindOf(descriptor), descriptor);
}

}  // namespace mivo
