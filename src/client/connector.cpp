#include "client/connector.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "base/clock.h"
#include "base/standard_output.h"
#include "transport/socket.h"

namespace mivo {

namespace {

constexpr useconds_t kFullPauseUs = 2000;

// 0, or the negative errno.
int WaitUntilConnected(int socket, std::int64_t deadline_ms) {
  pollfd wanted{socket, POLLOUT, 0};
  int ready = 0;
  do {
    const std::int64_t left_ms = deadline_ms == 0 ? -1 : std::max<std::int64_t>(0, deadline_ms - NowMs());
    ready = ::poll(&wanted, 1, static_cast<int>(left_ms));
  } while (ready < 0 && errno == EINTR);
  if (ready == 0) return -ETIMEDOUT;
  // Not by connecting again: on a socket that was shut down meanwhile, that would be a new attempt.
  int error = 0;
  socklen_t size = sizeof error;
  if (::getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size) != 0) return -errno;
  return -error;
}

}  // namespace

int Connector::ConnectTo(const Endpoint& endpoint, const SocketAddress& address, int socket, std::int64_t deadline_ms) {
  int error = 0;
  for (;;) {
    if (::connect(socket, address.get(), address.size) == 0) return 0;
    error = errno;
    // A full list of a local server's: it does not say when there is room.
    if (error != EAGAIN || NowMs() >= deadline_ms || IsClosed()) break;
    ::usleep(kFullPauseUs);
  }
  if (error == EINPROGRESS) return WaitUntilConnected(socket, deadline_ms);
  // That nobody listens is no failure of the step.
  if (error != ECONNREFUSED) Report(endpoint, "uv_tcp_connect error");
  return -error;
}

int Connector::Connect(const Endpoint& endpoint, std::int64_t deadline_ms) {
  SocketAddress address;
  if (ToSocketAddress(endpoint, &address) < 0) {
    if (endpoint.kind == Endpoint::kLocal) return -ENAMETOOLONG;
    // 0.0.0.0 and :: are this machine.
    Report(endpoint, "uv_ip4_addr error");
  }
  const int socket = OpenSocket(endpoint.kind);
  if (socket < 0) {
    Report(endpoint, "uv_tcp_init error");
    return socket;
  }
  int status = Publish(socket) ? ConnectTo(endpoint, address, socket, deadline_ms) : -ECANCELED;
  // A connection that stands may have been shut down a moment ago.
  if (!Withdraw()) status = -ECANCELED;
  if (status >= 0) return socket;
  ::close(socket);
  return status;
}

void Connector::Report(const Endpoint& endpoint, const char* failure) const {
  if (!is_quiet_) ReportConnectFailure(endpoint, failure);
}

bool Connector::Publish(int socket) {
  const MutexLock lock(mutex_);
  if (!is_closed_) socket_ = socket;
  return !is_closed_;
}

bool Connector::IsClosed() {
  const MutexLock lock(mutex_);
  return is_closed_;
}

bool Connector::Withdraw() {
  const MutexLock lock(mutex_);
  socket_ = -1;
  return !is_closed_;
}

void Connector::Close() {
  const MutexLock lock(mutex_);
  is_closed_ = true;
  if (socket_ >= 0) ::shutdown(socket_, SHUT_RDWR);
}

void ReportConnectFailure(const Endpoint& endpoint, const char* failure) {
  if (endpoint.kind == Endpoint::kTcp4) PrintDirect("%s\n", failure);
}

}  // namespace mivo
