// Failure of a TCP connect before it has begun, which the system itself practically never brings about.
#ifndef MIVO_TESTS_SUPPORT_CONNECT_FAULTS_H_
#define MIVO_TESTS_SUPPORT_CONNECT_FAULTS_H_

namespace mivo_test {

// While it lives, uv_tcp_connect returns `error`, and its callback is never called. One at a time.
class ScopedConnectFault {
 public:
  explicit ScopedConnectFault(int error);
  ScopedConnectFault(const ScopedConnectFault&) = delete;
  ScopedConnectFault& operator=(const ScopedConnectFault&) = delete;
  ~ScopedConnectFault();
};

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_CONNECT_FAULTS_H_
