// Where a server listens and a client connects.
#ifndef MIVO_TRANSPORT_ENDPOINT_H_
#define MIVO_TRANSPORT_ENDPOINT_H_

#include <sys/socket.h>

#include <string>

namespace mivo {

struct Endpoint {
  enum Kind { kLocal, kTcp4, kTcp6 };

  Kind kind = kLocal;
  std::string name;  // the local socket's name, or the port as text
  std::string host;  // TCP only: a numeric address
};

// "/tmp/echo.sock." and the name.
std::string SocketPath(const Endpoint& endpoint);

// The kernel takes at most 107 bytes and libuv cuts a longer path without a word, so that two names would share a
// socket.
bool FitsSocketAddress(const std::string& path);

// The decimal number that `text` begins with, 0 if none. Out of range it is cut to 32 bits.
int PortNumber(const std::string& text);

// The TCP address. A host that is no numeric address leaves 0.0.0.0 or ::, with the family and port set; the result is
// libuv's word on the host.
int ToSocketAddress(const Endpoint& endpoint, sockaddr_storage* address);

}  // namespace mivo

#endif  // MIVO_TRANSPORT_ENDPOINT_H_
