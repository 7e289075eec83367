#include "server/listener.h"

#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <utility>

namespace mivo {

namespace {

constexpr int kBacklog = 128;
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
  const int listening = uv_listen(&socket_.get()->stream, kBacklog, [](uv_stream_t* stream, int status) {
    if (stream->data != nullptr) static_cast<Listener*>(stream->data)->on_incoming_(status);
  });
  if (listening < 0) {
    print_.Debug("Listen error: %s\n", uv_err_name(listening));
    return false;
  }
  return true;
}

int Listener::BindLocal(const Endpoint& endpoint) {
  const std::string path = SocketPath(endpoint);
  if (!FitsSocketAddress(path)) return UV_ENAMETOOLONG;
  const int opened = socket_.Open(this, [this](Socket* socket) { return uv_pipe_init(loop_.uv(), &socket->pipe, 0); });
  if (opened < 0) return opened;
  // A file that an earlier run has left would refuse the name.
  uv_fs_t unlink_request;
  uv_fs_unlink(loop_.uv(), &unlink_request, path.c_str(), nullptr);
  uv_fs_req_cleanup(&unlink_request);
  return uv_pipe_bind(&socket_.get()->pipe, path.c_str());
}

int Listener::BindTcp(const Endpoint& endpoint) {
  const int opened = socket_.Open(this, [this](Socket* socket) { return uv_tcp_init(loop_.uv(), &socket->tcp); });
  if (opened < 0) return opened;
  // A text that is no address leaves "every address".
  sockaddr_storage address;
  ToSocketAddress(endpoint, &address);
  return uv_tcp_bind(&socket_.get()->tcp, reinterpret_cast<const sockaddr*>(&address), 0);
}

int Listener::Accept(Connection& connection) {
  int status = is_local_ ? connection.OpenLocal() : connection.OpenTcp();
  if (status >= 0) status = uv_accept(&socket_.get()->stream, connection.stream());
  if (status < 0) DropWaiting();
  return status;
}

void Listener::DropWaiting() {
  // libuv does not look for further connections while one waits to be accepted.
  Handle<Socket> nobody;
  nobody.Open(nullptr, [this](Socket* socket) {
    return is_local_ ? uv_pipe_init(loop_.uv(), &socket->pipe, 0) : uv_tcp_init(loop_.uv(), &socket->tcp);
  });
  if (nobody) uv_accept(&socket_.get()->stream, &nobody.get()->stream);
}

}  // namespace mivo
