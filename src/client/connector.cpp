#include "client/connector.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "base/standard_output.h"
#include "transport/socket.h"

namespace mivo {

namespace {

// 0, or the negative errno.
int WaitUntilConnected(int socket) {
  pollfd wanted{socket, POLLOUT, 0};
  while (::poll(&wanted, 1, -1) < 0 && errno == EINTR) {
  }
  // Not by connecting again: on a socket that was shut down meanwhile, that would be a new attempt.
  int error = 0;
  socklen_t size = sizeof error;
  if (::getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size) != 0) return -errno;
  return -error;
}

int ConnectTo(const Endpoint& endpoint, const SocketAddress& address, int socket) {
  if (::connect(socket, address.get(), address.size) == 0) return 0;
  const int error = errno;
  if (error == EINPROGRESS) return WaitUntilConnected(socket);
  // That nobody listens is no failure of the step.
  if (error != ECONNREFUSED) ReportConnectFailure(endpoint, "uv_tcp_connect error");
  return -error;
}

}  // namespace

int Connector::Connect(const Endpoint& endpoint) {
  SocketAddress address;
  if (ToSocketAddress(endpoint, &address) < 0) {
    if (endpoint.kind == Endpoint::kLocal) return -ENAMETOOLONG;
    // 0.0.0.0 and :: are this machine.
    ReportConnectFailure(endpoint, "uv_ip4_addr error");
  }
  const int socket = OpenSocket(endpoint.kind);
  if (socket < 0) {
    ReportConnectFailure(endpoint, "uv_tcp_init error");
    return socket;
  }
  int status = Publish(socket) ? ConnectTo(endpoint, address, socket) : -ECANCELED;
  // A connection that stands may have been shut down a moment ago.
  if (!Withdraw()) status = -ECANCELED;
  if (status >= 0) return socket;
  ::close(socket);
  return status;
}

bool Connector::Publish(int socket) {
  const MutexLock lock(mutex_);
  if (!is_closed_) socket_ = socket;
  return !is_closed_;
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
