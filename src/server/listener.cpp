#include "server/listener.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>

#include "base/out_of_resources.h"

namespace mivo {

namespace {

constexpr int kBacklog = 128;
constexpr int kPauseMs = 100;
// Everybody may connect; the file belongs to the machine's first ordinary user.
constexpr mode_t kSocketMode = 0777;
constexpr uid_t kSocketUser = 1000;
constexpr gid_t kSocketGroup = 1000;

void OpenToEverybody(const std::string& path) {
  if (::chmod(path.c_str(), kSocketMode) != 0) PrintDirect("chmod failed");
  if (::chown(path.c_str(), kSocketUser, kSocketGroup) != 0) PrintDirect("chown error");
}

}  // namespace

bool Listener::Listen(const Endpoint& endpoint, std::function<void(int status)> on_incoming) {
  is_local_ = endpoint.kind == Endpoint::kLocal;
  on_incoming_ = std::move(on_incoming);

  const int bound = is_local_ ? BindLocal(endpoint) : BindTcp(endpoint);
  if (bound < 0) {
    print_.Debug("Bind error: %s\n", uv_err_name(bound));
    return false;
  }
  if (is_local_) OpenToEverybody(SocketPath(endpoint));
  const int listening = StartAccepting();
  if (listening < 0) {
    print_.Debug("Listen error: %s\n", uv_err_name(listening));
    return false;
  }
  return true;
}

int Listener::BindLocal(const Endpoint& endpoint) {
  const std::string path = SocketPath(endpoint);
  if (!FitsSocketAddress(path)) return UV_ENAMETOOLONG;
  const int opened = bound_.Open(this, [this](Socket* socket) { return Init(socket); });
  if (opened < 0) return opened;
  // A file that an earlier run has left would refuse the name.
  uv_fs_t unlink_request;
  uv_fs_unlink(loop_.uv(), &unlink_request, path.c_str(), nullptr);
  uv_fs_req_cleanup(&unlink_request);
  return uv_pipe_bind(&bound_.get()->pipe, path.c_str());
}

int Listener::BindTcp(const Endpoint& endpoint) {
  const int opened = bound_.Open(this, [this](Socket* socket) { return Init(socket); });
  if (opened < 0) return opened;
  // A text that is no address leaves "every address".
  sockaddr_storage address;
  ToSocketAddress(endpoint, &address);
  return uv_tcp_bind(&bound_.get()->tcp, reinterpret_cast<const sockaddr*>(&address), 0);
}

int Listener::StartAccepting() {
  if (!is_local_) {
    // libuv keeps it to itself that an address is in use until the handle listens that was bound to it.
    sockaddr_storage address;
    int size = sizeof address;
    const int bound = uv_tcp_getsockname(&bound_.get()->tcp, reinterpret_cast<sockaddr*>(&address), &size);
    if (bound < 0) return bound;
  }
  // First, since libuv takes its descriptor in reserve with it, if it has none: the one that is left goes there.
  int status = accepting_.Open(this, [this](Socket* socket) { return Init(socket); });
  if (status < 0) return status;

  uv_os_fd_t socket = -1;
  uv_fileno(reinterpret_cast<const uv_handle_t*>(&bound_.get()->stream), &socket);
  const int descriptor = ::fcntl(socket, F_DUPFD_CLOEXEC, 0);
  if (descriptor < 0) {
    status = uv_translate_sys_error(errno);
    accepting_.Close();
    return status;
  }
  status =
      is_local_ ? uv_pipe_open(&accepting_.get()->pipe, descriptor) : uv_tcp_open(&accepting_.get()->tcp, descriptor);
  if (status < 0) {
    ::close(descriptor);
  } else {
    status = uv_listen(&accepting_.get()->stream, kBacklog, [](uv_stream_t* stream, int incoming) {
      if (stream->data != nullptr) static_cast<Listener*>(stream->data)->OnIncoming(incoming);
    });
  }
  if (status < 0) accepting_.Close();
  return status;
}

void Listener::OnIncoming(int status) {
  // State first: the answer to an error may be a close.
  if (IsOutOfResources(status)) PauseAccepting();
  on_incoming_(status);
}

void Listener::PauseAccepting() {
  accepting_.Close();
  retry_.Start(loop_.uv(), kPauseMs, kPauseMs, [this] {
    if (StartAccepting() >= 0) retry_.Close();
  });
}

void Listener::Close() {
  retry_.Close();
  accepting_.Close();
  bound_.Close();
}

int Listener::Init(Socket* socket) {
  return is_local_ ? uv_pipe_init(loop_.uv(), &socket->pipe, 0) : uv_tcp_init(loop_.uv(), &socket->tcp);
}

int Listener::Accept(Connection& connection) {
  int status = is_local_ ? connection.OpenLocal() : connection.OpenTcp();
  if (status >= 0) status = uv_accept(&accepting_.get()->stream, connection.stream());
  if (status < 0) DropWaiting();
  return status;
}

void Listener::DropWaiting() {
  // libuv does not look for further connections while one waits to be accepted.
  Handle<Socket> nobody;
  nobody.Open(nullptr, [this](Socket* socket) { return Init(socket); });
  if (nobody) uv_accept(&accepting_.get()->stream, &nobody.get()->stream);
}

}  // namespace mivo
