#include "support/raw_client.h"

#include "support/wire.h"

#include <arpa/inet.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace mivo_test {
namespace {

using Clock = std::chrono::steady_clock;

int MillisecondsTo(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left < 0 ? 0 : static_cast<int>(left) + 1;
}

bool Poll(int descriptor, short events, Clock::time_point deadline) {
  for (;;) {
    pollfd entry{descriptor, events, 0};
    const int ready = poll(&entry, 1, MillisecondsTo(deadline));
    if (ready > 0) return true;
    if (ready == 0 && Clock::now() >= deadline) return false;
    if (ready < 0 && errno != EINTR) return false;
  }
}

int TryConnect(const Address& address) {
  sockaddr_storage storage{};
  socklen_t size = 0;
  if (address.transport == Transport::Local) {
    auto* local = reinterpret_cast<sockaddr_un*>(&storage);
    local->sun_family = AF_UNIX;
    std::strncpy(local->sun_path, SocketPath(address.name).c_str(), sizeof local->sun_path - 1);
    size = sizeof *local;
  } else if (address.transport == Transport::Tcp4) {
    auto* tcp = reinterpret_cast<sockaddr_in*>(&storage);
    tcp->sin_family = AF_INET;
    tcp->sin_port = htons(static_cast<in_port_t>(std::atoi(address.name.c_str())));
    inet_pton(AF_INET, address.host.c_str(), &tcp->sin_addr);
    size = sizeof *tcp;
  } else {
    auto* tcp = reinterpret_cast<sockaddr_in6*>(&storage);
    tcp->sin6_family = AF_INET6;
    tcp->sin6_port = htons(static_cast<in_port_t>(std::atoi(address.name.c_str())));
    inet_pton(AF_INET6, address.host.c_str(), &tcp->sin6_addr);
    size = sizeof *tcp;
  }
  const int descriptor = socket(storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (descriptor < 0) return -1;
  if (connect(descriptor, reinterpret_cast<const sockaddr*>(&storage), size) != 0) {
    close(descriptor);
    return -1;
  }
  if (address.transport != Transport::Local) {
    // Each write of a test leaves as a chunk of its own.
    const int on = 1;
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  }
  return descriptor;
}

int PortOf(int descriptor, decltype(&getsockname) get_name) {
  sockaddr_storage storage{};
  socklen_t size = sizeof storage;
  get_name(descriptor, reinterpret_cast<sockaddr*>(&storage), &size);
  return ntohs(storage.ss_family == AF_INET ? reinterpret_cast<sockaddr_in*>(&storage)->sin_port
                                            : reinterpret_cast<sockaddr_in6*>(&storage)->sin6_port);
}

// The bytes that wait at one end of a connection between two ports of this machine: to be acknowledged, to be read.
// False when the connection is not listed.
bool QueuesOf(Transport transport, int local_port, int remote_port, unsigned* sending, unsigned* receiving) {
  FILE* const file = std::fopen(transport == Transport::Tcp6 ? "/proc/net/tcp6" : "/proc/net/tcp", "re");
  if (file == nullptr) return false;
  char line[512];
  bool found = false;
  while (!found && std::fgets(line, sizeof line, file) != nullptr) {
    unsigned local = 0;
    unsigned remote = 0;
    found =
        std::sscanf(line, " %*d: %*[0-9A-F]:%X %*[0-9A-F]:%X %*X %X:%X", &local, &remote, sending, receiving) == 4 &&
        local == static_cast<unsigned>(local_port) && remote == static_cast<unsigned>(remote_port);
  }
  std::fclose(file);
  return found;
}

}  // namespace

RawPeer::RawPeer(RawPeer&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)),
      transport_(other.transport_),
      received_(std::move(other.received_)) {}

RawPeer& RawPeer::operator=(RawPeer&& other) noexcept {
  if (this != &other) {
    Close();
    descriptor_ = std::exchange(other.descriptor_, -1);
    transport_ = other.transport_;
    received_ = std::move(other.received_);
  }
  return *this;
}

RawPeer RawPeer::ConnectTo(const Address& address, std::chrono::milliseconds patience) {
  int descriptor = -1;
  Eventually([&] { return (descriptor = TryConnect(address)) >= 0; }, patience);
  return RawPeer(descriptor, address.transport);
}

bool RawPeer::SendBytes(std::string_view bytes) {
  const auto deadline = Clock::now() + kPatience;
  while (!bytes.empty()) {
    if (!Poll(descriptor_, POLLOUT, deadline)) return false;
    const ssize_t sent = send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && errno != EAGAIN && errno != EINTR) return false;
    if (sent > 0) bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

bool RawPeer::SendFrame(std::string_view payload) {
  return SendBytes(Frame(payload));
}

bool RawPeer::Fill(std::size_t count, Clock::time_point deadline) {
  while (received_.size() < count) {
    if (!Poll(descriptor_, POLLIN, deadline)) return false;
    char chunk[65536];
    const ssize_t got = recv(descriptor_, chunk, sizeof chunk, MSG_DONTWAIT);
    if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) return false;
    if (got > 0) received_.append(chunk, static_cast<std::size_t>(got));
  }
  return true;
}

std::optional<std::string> RawPeer::ReadBytes(std::size_t count, std::chrono::milliseconds patience) {
  if (!Fill(count, Clock::now() + patience)) return std::nullopt;
  std::string bytes = received_.substr(0, count);
  received_.erase(0, count);
  return bytes;
}

std::optional<std::string> RawPeer::ReadFrame(std::chrono::milliseconds patience) {
  const auto deadline = Clock::now() + patience;
  if (!Fill(4, deadline)) return std::nullopt;
  std::int32_t length = 0;
  std::memcpy(&length, received_.data(), 4);
  if (length < 0 || !Fill(4 + static_cast<std::size_t>(length), deadline)) return std::nullopt;
  std::string payload = received_.substr(4, static_cast<std::size_t>(length));
  received_.erase(0, 4 + payload.size());
  return payload;
}

bool RawPeer::WaitUntilTaken(std::chrono::milliseconds patience) {
  const auto has_left = [this] {
    int queued = 0;
    return ioctl(descriptor_, SIOCOUTQ, &queued) == 0 && queued == 0;
  };
  if (transport_ == Transport::Local) return Eventually(has_left, patience);
  const int here = PortOf(descriptor_, getsockname);
  const int there = PortOf(descriptor_, getpeername);
  return Eventually(
      [&] {
        unsigned sending = 0;
        unsigned receiving = 0;
        // The kernel's table of all connections is long, so it comes second.
        return has_left() && QueuesOf(transport_, there, here, &sending, &receiving) && receiving == 0;
      },
      patience);
}

std::optional<std::string> RawPeer::Exchange(std::string_view payload) {
  if (!SendFrame(payload)) return std::nullopt;
  return ReadFrame();
}

bool RawPeer::ReadEof(std::chrono::milliseconds patience) {
  const auto deadline = Clock::now() + patience;
  while (received_.empty()) {
    if (!Poll(descriptor_, POLLIN, deadline)) return false;
    char byte = 0;
    const ssize_t got = recv(descriptor_, &byte, 1, MSG_DONTWAIT);
    if (got > 0) {
      received_ += byte;
    } else if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
      return true;
    }
  }
  return false;
}

bool RawPeer::WaitReadable(std::chrono::milliseconds patience) {
  return !received_.empty() || Poll(descriptor_, POLLIN, Clock::now() + patience);
}

bool RawPeer::ExpectSilence(std::chrono::milliseconds duration) {
  return connected() && !WaitReadable(duration);
}

bool RawPeer::AnswersInOrder() {
  // A thread id of its own, so that no answer of somebody else passes for this one.
  constexpr std::int32_t kThreadId = 0x5EED;
  return Exchange(Request({"s_c_close_server", kThreadId})) == ServerReply(Wire().Bool(true), kThreadId, std::nullopt);
}

void RawPeer::HalfClose() {
  shutdown(descriptor_, SHUT_WR);
}

void RawPeer::Reset() {
  if (transport_ != Transport::Local) {
    const linger hard{1, 0};
    setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
  }
  Close();
}

void RawPeer::Close() {
  if (descriptor_ >= 0) close(descriptor_);
  descriptor_ = -1;
}

}  // namespace mivo_test
