// Failure on demand. The test program defines some functions of libuv and of the C library itself, ahead of the real
// ones, which they call; armed, a chosen call fails instead. Off until armed.
#ifndef MIVO_TESTS_SUPPORT_UV_FAULTS_H_
#define MIVO_TESTS_SUPPORT_UV_FAULTS_H_

#include <chrono>
#include <cstddef>
#include <functional>
#include <vector>

namespace mivo_test {

enum class Fault {
  kLoopInit,
  kPipeInit,
  kTcpInit,
  kTcpBind,
  kListen,
  kAsyncInit,
  kAccept,  // the connection that was to be accepted is gone, as after a real failure
  kReadStart,
  kTimerInit,
  kTimerStart,
  kThreadCreate,  // of any thread, libuv's or not
  kChmod,
  kChown,       // fchownat
  kSocketCall,  // a test's own count as well, here and below
  kBindCall,
  kListenCall,
  kConnectCall,
  kAcceptCall,     // accept4, libuv's or not: what waits goes on waiting
  kSendCall,       // sendmsg
  kWatchCall,      // epoll_ctl, where it adds a stream that the library reads from
  kListenerError,  // the connection callback is first called with the error, then as it would have been
  kCount
};

// While it lives, calls number `first` to `first` + `count` - 1 of the function, counted from now on over the whole
// process, fail with `error` (a libuv error code; for threads and calls of the C library the negative errno).
class ScopedFault {
 public:
  ScopedFault(Fault fault, int first, int count, int error);
  ScopedFault(const ScopedFault&) = delete;
  ScopedFault& operator=(const ScopedFault&) = delete;
  ~ScopedFault();

  // How many calls were made, failed or not, and how many failed.
  int calls() const;
  int failures() const;

  // When each call was made.
  std::vector<std::chrono::steady_clock::time_point> times() const;

 private:
  const Fault fault_;
};

// While it lives, the next call of the function first runs `hook`, on the thread that calls; then it goes through.
class ScopedHook {
 public:
  ScopedHook(Fault fault, std::function<void()> hook);
  ScopedHook(const ScopedHook&) = delete;
  ScopedHook& operator=(const ScopedHook&) = delete;
  ~ScopedHook();

 private:
  const Fault fault_;
};

// While it lives, no sendmsg takes more than `most` bytes at a time. One at a time.
class ScopedShortSends {
 public:
  explicit ScopedShortSends(std::size_t most);
  ScopedShortSends(const ScopedShortSends&) = delete;
  ScopedShortSends& operator=(const ScopedShortSends&) = delete;
  ~ScopedShortSends();
};

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_UV_FAULTS_H_
