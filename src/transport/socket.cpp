#include "transport/socket.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>

namespace mivo {

namespace {

constexpr int kKeepAliveAfterSeconds = 60;
constexpr int kKeepAliveProbes = 3;
constexpr int kKeepAliveEverySeconds = 10;

int FamilyOf(Endpoint::Kind kind) {
  switch (kind) {
    case Endpoint::kTcp4:
      return AF_INET;
    case Endpoint::kTcp6:
      return AF_INET6;
    case Endpoint::kLocal:
      break;
  }
  return AF_UNIX;
}

// Each makes the connection better, none is needed for it to work.
void SetUpForCalls(int socket) {
  const auto set = [socket](int level, int option, int value) {
    static_cast<void>(::setsockopt(socket, level, option, &value, sizeof value));
  };
  set(IPPROTO_TCP, TCP_NODELAY, 1);
  set(SOL_SOCKET, SO_KEEPALIVE, 1);
  set(IPPROTO_TCP, TCP_KEEPIDLE, kKeepAliveAfterSeconds);
  set(IPPROTO_TCP, TCP_KEEPCNT, kKeepAliveProbes);
  set(IPPROTO_TCP, TCP_KEEPINTVL, kKeepAliveEverySeconds);
}

}  // namespace

int OpenSocket(Endpoint::Kind kind) {
  const int socket = ::socket(FamilyOf(kind), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (socket < 0) return -errno;
  if (kind != Endpoint::kLocal) SetUpForCalls(socket);
  return socket;
}

}  // namespace mivo
