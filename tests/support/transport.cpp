#include "support/transport.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <stdexcept>

namespace mivo_test {
namespace {

constexpr int kFirstPort = 10000;
constexpr unsigned kPortCount = 22000;

// Bound on both families without address reuse, so that it fails where anybody has the port; reusable only afterwards,
// so that the server under test can bind beside it.
bool Reserve(int port) {
  const int reservation = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (reservation < 0) throw std::runtime_error("no IPv6 socket to reserve a port with");
  const int off = 0;
  setsockopt(reservation, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
  sockaddr_in6 any{};
  any.sin6_family = AF_INET6;
  any.sin6_port = htons(static_cast<in_port_t>(port));
  if (bind(reservation, reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0) {
    close(reservation);
    return false;
  }
  const int on = 1;
  setsockopt(reservation, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  return true;
}

}  // namespace

const char* Name(Transport transport) {
  switch (transport) {
    case Transport::Tcp4:
      return "Tcp4";
    case Transport::Tcp6:
      return "Tcp6";
    case Transport::Local:
      break;
  }
  return "Local";
}

std::string UniqueSocketName() {
  static std::atomic<int> counter{0};
  // Processes that were killed leave their sockets behind, and process ids come again.
  for (;;) {
    std::string name = std::to_string(getpid() % 200000 * 10000 + counter++ % 10000);
    struct stat status {};
    if (lstat(SocketPath(name).c_str(), &status) != 0) return name;
  }
}

std::string SocketPath(const std::string& name) {
  return "/tmp/echo.sock." + name;
}

std::string ChownRemark(Transport transport) {
  if (transport != Transport::Local) return "";
  static const bool may_give_away = [] {
    char path[] = "/tmp/mivo_test_chown.XXXXXX";
    const int file = mkstemp(path);
    if (file < 0) throw std::runtime_error("no file to give away in /tmp");
    const bool given = fchown(file, 1000, 1000) == 0;
    unlink(path);
    close(file);
    return given;
  }();
  return may_give_away ? "" : "chown error";
}

int FreePort(Transport) {
  static std::atomic<unsigned> next{static_cast<unsigned>(getpid()) % kPortCount * 7919u % kPortCount};
  for (unsigned tries = 0; tries < kPortCount; ++tries) {
    const int port = kFirstPort + static_cast<int>(next++ % kPortCount);
    if (Reserve(port)) return port;
  }
  throw std::runtime_error("no free port");
}

Address FreeAddress(Transport transport) {
  switch (transport) {
    case Transport::Tcp4:
      return {transport, "127.0.0.1", std::to_string(FreePort(transport))};
    case Transport::Tcp6:
      return {transport, "::1", std::to_string(FreePort(transport))};
    case Transport::Local:
      break;
  }
  return {transport, "", UniqueSocketName()};
}

}  // namespace mivo_test
