// Where a server listens and a client connects.
#ifndef MIVO_TRANSPORT_ENDPOINT_H_
#define MIVO_TRANSPORT_ENDPOINT_H_

#include <sys/socket.h>

#include <string>

namespace mivo {

struct Endpoint {
  enum Kind { kLocal, kTcp4, kTcp6 };

  Kind kind = kLocal;
  std::string name;      // the local socket's name, or the port as text
  std::string host;      // TCP only: a numeric address
  bool is_path = false;  // local only: the name is a path of its own
};

// "/tmp/echo.sock." and the name, or the path.
std::string SocketPath(const Endpoint& endpoint);

// The decimal number that `text` begins with, 0 if none. Out of range it is cut to 32 bits.
int PortNumber(const std::string& text);

// An address as the kernel takes it.
struct SocketAddress {
  sockaddr_storage storage{};
  socklen_t size = 0;

  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
};

// Below 0 (negative errno) if `endpoint` names none. A path that does not fit gives no address at all: cut, it would be
// that of another name. A host that is no numeric address leaves 0.0.0.0 or ::, with the family and port set.
int ToSocketAddress(const Endpoint& endpoint, SocketAddress* address);

}  // namespace mivo

#endif  // MIVO_TRANSPORT_ENDPOINT_H_
