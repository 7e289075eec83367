#include "transport/endpoint.h"

#include <sys/un.h>
#include <uv.h>

#include <cstdlib>

namespace mivo {

std::string SocketPath(const Endpoint& endpoint) {
  return "/tmp/echo.sock." + endpoint.name;
}

bool FitsSocketAddress(const std::string& path) {
  return path.size() < sizeof(sockaddr_un::sun_path);
}

int PortNumber(const std::string& text) {
  return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}

int ToSocketAddress(const Endpoint& endpoint, sockaddr_storage* address) {
  const int port = PortNumber(endpoint.name);
  *address = sockaddr_storage{};
  if (endpoint.kind == Endpoint::kTcp4) {
    return uv_ip4_addr(endpoint.host.c_str(), port, reinterpret_cast<sockaddr_in*>(address));
  }
  return uv_ip6_addr(endpoint.host.c_str(), port, reinterpret_cast<sockaddr_in6*>(address));
}

}  // namespace mivo
