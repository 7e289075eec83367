#include "harness/sockets.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace bench {
namespace {

struct Address {
  sockaddr_storage storage{};
  socklen_t size = 0;
  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
};

Address AddressOf(const Options& options) {
  Address address;
  if (options.Tcp()) {
    sockaddr_in tcp{};
    tcp.sin_family = AF_INET;
    tcp.sin_port = htons(static_cast<std::uint16_t>(options.Port()));
    inet_pton(AF_INET, options.Host().c_str(), &tcp.sin_addr);
    address.size = sizeof tcp;
    std::memcpy(&address.storage, &tcp, sizeof tcp);
  } else {
    sockaddr_un local{};
    local.sun_family = AF_UNIX;
    options.Path().copy(local.sun_path, sizeof local.sun_path - 1);
    address.size = sizeof local;
    std::memcpy(&address.storage, &local, sizeof local);
  }
  return address;
}

void Check(bool good, const char* what) {
  if (!good) throw std::system_error(errno, std::generic_category(), what);
}

int Open(const Options& options) {
  const int descriptor = socket(options.Tcp() ? AF_INET : AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  Check(descriptor >= 0, "socket");
  return descriptor;
}

void SendAtOnce(const Options& options, int descriptor) {
  const int on = 1;
  if (options.Tcp()) setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

}  // namespace

int Listen(const Options& options) {
  const int descriptor = Open(options);
  const Address address = AddressOf(options);
  const int on = 1;
  setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  Check(bind(descriptor, address.get(), address.size) == 0, "bind");
  Check(listen(descriptor, 1024) == 0, "listen");
  return descriptor;
}

int Connect(const Options& options) {
  const int descriptor = Open(options);
  const Address address = AddressOf(options);
  SendAtOnce(options, descriptor);
  Check(connect(descriptor, address.get(), address.size) == 0, "connect");
  return descriptor;
}

int Accept(const Options& options, int listening) {
  const int descriptor = accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
  if (descriptor >= 0) SendAtOnce(options, descriptor);
  return descriptor;
}

}  // namespace bench
