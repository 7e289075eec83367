// Failures at the start of a client that uv_faults.h has not: below libuv, or of what libuv practically never refuses.
#ifndef MIVO_TESTS_SUPPORT_START_FAULTS_H_
#define MIVO_TESTS_SUPPORT_START_FAULTS_H_

namespace mivo_test {

// While it lives, uv_tcp_connect returns `error`, and its callback is never called. One at a time.
class ScopedConnectFault {
 public:
  explicit ScopedConnectFault(int error);
  ScopedConnectFault(const ScopedConnectFault&) = delete;
  ScopedConnectFault& operator=(const ScopedConnectFault&) = delete;
  ~ScopedConnectFault();
};

// While it lives, the process cannot start threads, whichever way. One at a time.
class ScopedThreadFault {
 public:
  ScopedThreadFault();
  ScopedThreadFault(const ScopedThreadFault&) = delete;
  ScopedThreadFault& operator=(const ScopedThreadFault&) = delete;
  ~ScopedThreadFault();

  int failures() const;
};

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_START_FAULTS_H_
