#include "support/raw_server.h"

#include "support/wire.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

namespace mivo_test {
namespace {

// TCP lets the system choose the port.
int Bind(const Address& address, std::string* port) {
  sockaddr_storage storage{};
  socklen_t size = 0;
  if (address.transport == Transport::Local) {
    auto* local = reinterpret_cast<sockaddr_un*>(&storage);
    local->sun_family = AF_UNIX;
    std::strncpy(local->sun_path, SocketPath(address.name).c_str(), sizeof local->sun_path - 1);
    size = sizeof *local;
    unlink(local->sun_path);
  } else if (address.transport == Transport::Tcp4) {
    auto* tcp = reinterpret_cast<sockaddr_in*>(&storage);
    tcp->sin_family = AF_INET;
    tcp->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    size = sizeof *tcp;
  } else {
    auto* tcp = reinterpret_cast<sockaddr_in6*>(&storage);
    tcp->sin6_family = AF_INET6;
    tcp->sin6_addr = in6addr_loopback;
    size = sizeof *tcp;
  }
  const int listener = socket(storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listener < 0 || bind(listener, reinterpret_cast<const sockaddr*>(&storage), size) != 0 ||
      listen(listener, 128) != 0) {
    throw std::runtime_error(std::string("cannot listen: ") + std::strerror(errno));
  }
  if (address.transport != Transport::Local) {
    sockaddr_storage bound{};
    socklen_t bound_size = sizeof bound;
    getsockname(listener, reinterpret_cast<sockaddr*>(&bound), &bound_size);
    const in_port_t number = address.transport == Transport::Tcp4 ? reinterpret_cast<sockaddr_in*>(&bound)->sin_port
                                                                  : reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port;
    *port = std::to_string(ntohs(number));
  }
  return listener;
}

}  // namespace

RawServer::RawServer(Transport transport) {
  address_.transport = transport;
  address_.host = transport == Transport::Tcp4 ? "127.0.0.1" : transport == Transport::Tcp6 ? "::1" : "";
  if (transport == Transport::Local) address_.name = UniqueSocketName();
  listener_ = Bind(address_, &address_.name);
}

RawPeer RawServer::Accept(std::chrono::milliseconds patience) {
  pollfd entry{listener_, POLLIN, 0};
  if (poll(&entry, 1, static_cast<int>(patience.count())) <= 0) return RawPeer();
  const int descriptor = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  if (descriptor >= 0 && address_.transport != Transport::Local) {
    const int on = 1;
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  }
  return RawPeer(descriptor, address_.transport);
}

RawPeer RawServer::AcceptAndAnswerHandshake(std::string* request) {
  RawPeer peer = Accept();
  if (!peer.connected()) return peer;
  const auto check = AnswerHandshake(&peer);
  if (!check) return RawPeer();
  if (request != nullptr) *request = *check;
  return peer;
}

void RawServer::Close() {
  if (listener_ < 0) return;
  close(listener_);
  listener_ = -1;
  if (address_.transport == Transport::Local) unlink(SocketPath(address_.name).c_str());
}

std::optional<std::string> AnswerHandshake(RawPeer* peer) {
  const auto request = peer->ReadFrame();
  if (!request || TextOf(*request, "s_c_sw_name") != "s_c_version") return std::nullopt;
  if (!peer->SendFrame(HandshakeReply(*request))) return std::nullopt;
  return request;
}

}  // namespace mivo_test
