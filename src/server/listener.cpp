#include "server/listener.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>

#include "base/out_of_resources.h"
#include "transport/socket.h"

namespace mivo {

namespace {

constexpr int kBacklog = 128;
constexpr int kPauseMs = 100;
// Those who are connected get their turn as well.
constexpr int kMostInATurn = 32;

int SetOption(int socket, int level, int option, int value) {
  return ::setsockopt(socket, level, option, &value, sizeof value) == 0 ? 0 : -errno;
}

}  // namespace

int Listener::Listen(const Endpoint& endpoint, std::function<void(int descriptor)> on_incoming) {
  kind_ = endpoint.kind;
  on_incoming_ = std::move(on_incoming);

  int status = Bind(endpoint);
  // Over TCP it is the other socket's doing whether a port in use is met here or when listening: it counts as the
  // latter.
  const bool is_port_in_use = status == -EADDRINUSE && kind_ != Endpoint::kLocal;
  if (status < 0 && !is_port_in_use) {
    print_.Debug("Bind error: %s\n", uv_err_name(status));
    return status;
  }
  if (status >= 0) status = StartListening();
  if (status < 0) print_.Debug("Listen error: %s\n", uv_err_name(status));
  return status;
}

int Listener::Bind(const Endpoint& endpoint) {
  SocketAddress address;
  const int status = ToSocketAddress(endpoint, &address);
  // A host that is no address leaves "every address".
  if (status < 0 && kind_ == Endpoint::kLocal) return status;
  socket_ = OpenSocket(kind_);
  if (socket_ < 0) return socket_;

  if (kind_ == Endpoint::kLocal) return BindLocal(endpoint, address);
  // The port of a server that has just ended is free, whatever connections it has left to wear off.
  int option = SetOption(socket_, SOL_SOCKET, SO_REUSEADDR, 1);
  // "Every address" includes those of IPv4, whatever the system's default.
  if (option >= 0 && kind_ == Endpoint::kTcp6) option = SetOption(socket_, IPPROTO_IPV6, IPV6_V6ONLY, 0);
  if (option < 0) return option;
  return ::bind(socket_, address.get(), address.size) == 0 ? 0 : -errno;
}

int Listener::BindLocal(const Endpoint& endpoint, const SocketAddress& address) {
  const std::string path = SocketPath(endpoint);
  if (endpoint.is_path && SocketFile::IsServed(address)) return -EADDRINUSE;
  SocketFile::MakeRoom(path);
  if (::bind(socket_, address.get(), address.size) != 0) {
    // Below a name, a folder that is missing is told as one that lets nobody in: what users of this text know.
    return errno == ENOENT && !endpoint.is_path ? -EACCES : -errno;
  }
  file_.Own(path);
  if (!endpoint.is_path) file_.OpenToAll(print_.is_quiet());
  return 0;
}

int Listener::StartListening() {
  if (::listen(socket_, kBacklog) != 0) return -errno;
  const int status = poll_.Open(this, [this](uv_poll_t* handle) { return uv_poll_init(loop_.uv(), handle, socket_); });
  return status < 0 ? status : StartPolling();
}

int Listener::StartPolling() {
  return uv_poll_start(poll_.get(), UV_READABLE, [](uv_poll_t* handle, int, int) {
    auto* const listener = static_cast<Listener*>(handle->data);
    if (listener == nullptr) return;
    const int status = listener->AcceptWaiting();
    if (IsOutOfResources(status)) listener->Pause(status);
  });
}

int Listener::AcceptWaiting() {
  // A callee may close.
  for (int i = 0; i < kMostInATurn && socket_ >= 0; ++i) {
    const int descriptor = ::accept4(socket_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    const int status = descriptor >= 0 ? descriptor : -errno;
    if (status == -EAGAIN || IsOutOfResources(status)) return status;
    // Gone before their turn came.
    if (status == -ECONNABORTED || status == -EINTR) continue;
    has_accepted_ = has_accepted_ || descriptor >= 0;
    on_incoming_(status);
  }
  return 0;
}

void Listener::Pause(int status) {
  uv_poll_stop(poll_.get());
  has_accepted_ = false;
  retry_.Start(loop_.uv(), kPauseMs, kPauseMs, [this] { TryToResume(); });
  // State first: the answer may be a close.
  on_incoming_(status);
}

void Listener::TryToResume() {
  const int status = AcceptWaiting();
  if (socket_ < 0) return;
  if (IsOutOfResources(status)) {
    // Somebody was let in: this is another shortage than the one that was told.
    if (std::exchange(has_accepted_, false)) on_incoming_(status);
    return;
  }
  retry_.Close();
  StartPolling();
}

void Listener::Close() {
  retry_.Close();
  poll_.Close();
  if (socket_ < 0) return;
  // The file first, while the socket keeps its inode.
  file_.Remove();
  ::close(std::exchange(socket_, -1));
}

}  // namespace mivo
