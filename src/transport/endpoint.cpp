#include "transport/endpoint.h"

#include <netinet/in.h>
#include <sys/un.h>
#include <uv.h>

#include <cstdlib>

namespace mivo {

namespace {

int ToLocalAddress(const std::string& path, SocketAddress* address) {
  auto* const local = reinterpret_cast<sockaddr_un*>(&address->storage);
  // With the zero at its end.
  if (path.size() >= sizeof local->sun_path) return UV_ENAMETOOLONG;
  local->sun_family = AF_UNIX;
  path.copy(local->sun_path, path.size());
  address->size = sizeof *local;
  return 0;
}

}  // namespace

std::string SocketPath(const Endpoint& endpoint) {
  return endpoint.is_path ? endpoint.name : "/tmp/echo.sock." + endpoint.name;
}

int PortNumber(const std::string& text) {
  return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}

int ToSocketAddress(const Endpoint& endpoint, SocketAddress* address) {
  *address = SocketAddress{};
  if (endpoint.kind == Endpoint::kLocal) return ToLocalAddress(SocketPath(endpoint), address);

  const int port = PortNumber(endpoint.name);
  if (endpoint.kind == Endpoint::kTcp4) {
    address->size = sizeof(sockaddr_in);
    return uv_ip4_addr(endpoint.host.c_str(), port, reinterpret_cast<sockaddr_in*>(&address->storage));
  }
  address->size = sizeof(sockaddr_in6);
  return uv_ip6_addr(endpoint.host.c_str(), port, reinterpret_cast<sockaddr_in6*>(&address->storage));
}

}  // namespace mivo
