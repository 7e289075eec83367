// The plain TCP server.
//
// Everything runs on the thread that turns the loop. What needs care is the end of things, since the listening handle
// is a part of the server's own memory and may be initialised again:
//
// - libuv uses a handle until its close callback has run. Clients have their handle in memory of its own, so a client
//   that is closed is forgotten at once and deleted by that callback, whatever has become of the server. For the
//   listening handle `listener.data` keeps book: it is null exactly when libuv does not know the handle.
// - CloseAll only begins, and leaves the rest to the loop's next turn. Whoever cannot wait for that, Init and the
//   destructor, turns the loop itself until the listening handle is closed; what was closed before it is closed by then
//   as well. Inside a turn nobody may: uv_run cannot be entered twice. There Init refuses.
// - Where descriptors run out, the listening handle is closed for a while with the server still initialised; see
//   listening_pause.h.
// - A failed write leaves through exit(), inside uv_run. A server with static storage is then destroyed inside its own
//   loop's turn and has to leave it alone.
#include <mivo/tcpserver.h>

#include "base/out_of_resources.h"
#include "base/sigpipe_guard.h"
#include "tcpserver/listening_pause.h"
#include "tcpserver/loop_turn.h"

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

namespace mivo {
namespace {

constexpr unsigned int kBufferBytes = 1024 * 1024;
constexpr int kBacklog = 128;

std::atomic<int> last_client_id{0};

struct Free {
  void operator()(void* block) const { std::free(block); }
};
using MallocBlock = std::unique_ptr<char, Free>;

struct WriteRequest {
  uv_write_t request = {};
  // The block that `writeBuf` was before this message needed a larger one. Earlier messages may still be written from
  // it; they complete before this one.
  MallocBlock retired;
};

uv_buf_t AllocateBuffer() {
  auto* const block = static_cast<char*>(std::malloc(kBufferBytes));
  return uv_buf_init(block, kBufferBytes);  // NOLINT(clang-analyzer-unix.Malloc): clientdata frees it
}

// Null when memory is short.
std::unique_ptr<clientdata> MakeClient(CTcpServer* server, int id) {
  std::unique_ptr<clientdata> client(new (std::nothrow) clientdata);
  if (client == nullptr) return nullptr;
  client->id = id;
  client->server = server;
  client->handle = static_cast<uv_tcp_t*>(std::calloc(1, sizeof(uv_tcp_t)));
  client->readBuf = AllocateBuffer();
  client->writeBuf = AllocateBuffer();
  if (client->handle == nullptr || client->readBuf.base == nullptr || client->writeBuf.base == nullptr) return nullptr;
  return client;
}

uv_stream_t* StreamOf(uv_tcp_t* tcp) {
  return reinterpret_cast<uv_stream_t*>(tcp);
}

template <class Handle>
uv_handle_t* AsHandle(Handle* handle) {
  return reinterpret_cast<uv_handle_t*>(handle);
}

void OnClientClosed(uv_handle_t* handle) {
  delete static_cast<clientdata*>(handle->data);
}

// The client belongs to the callback from here on.
void CloseHandleOf(clientdata* client) {
  if (uv_is_active(AsHandle(client->handle)) != 0) uv_read_stop(StreamOf(client->handle));
  uv_close(AsHandle(client->handle), OnClientClosed);
}

// What exit() destroys on its way must not turn this loop again.
[[noreturn]] void EndProcess(const uv_loop_t* loop) {
  const LoopTurn turn(loop);
  std::exit(-1);  // NOLINT(concurrency-mt-unsafe): a rude end is what is promised
}

void OnWritten(uv_write_t* request, int status) {
  uv_stream_t* const stream = request->handle;
  delete static_cast<WriteRequest*>(request->data);
  if (status >= 0) return;
  // A write that a drain cut off is our own doing, perhaps for a destructor while the process exits.
  if (uv_is_closing(AsHandle(stream)) != 0 && LoopTurn::IsDraining(stream->loop)) return;
  EndProcess(stream->loop);
}

void OnAllocate(uv_handle_t* handle, std::size_t, uv_buf_t* buffer) {
  *buffer = static_cast<clientdata*>(handle->data)->readBuf;
}

void OnRead(uv_stream_t* stream, ssize_t count, const uv_buf_t* buffer) {
  const LoopTurn turn(stream->loop);
  auto* const client = static_cast<clientdata*>(stream->data);
  if (count < 0) {
    client->server->CloseClient(client->id);
  } else if (count > 0 && client->onRecv != nullptr) {
    client->onRecv(client->id, buffer->base, static_cast<int>(count));
  }
}

// libuv stops listening for good when a connection it offers is not accepted. Without the means to serve it, it is
// accepted and closed.
void Refuse(uv_stream_t* listener) {
  auto* const handle = static_cast<uv_tcp_t*>(std::calloc(1, sizeof(uv_tcp_t)));
  if (handle == nullptr) return;
  if (uv_tcp_init(listener->loop, handle) != 0) {
    std::free(handle);
    return;
  }
  uv_accept(listener, StreamOf(handle));
  uv_close(AsHandle(handle), [](uv_handle_t* closed) { std::free(closed); });
}

// Null when the connection could not be accepted; it is over then.
clientdata* Accept(uv_stream_t* listener, CTcpServer* server, int id) {
  std::unique_ptr<clientdata> made = MakeClient(server, id);
  if (made == nullptr || uv_tcp_init(listener->loop, made->handle) != 0) {
    Refuse(listener);
    return nullptr;
  }
  clientdata* const client = made.release();
  client->handle->data = client;
  if (uv_accept(listener, StreamOf(client->handle)) != 0) {
    CloseHandleOf(client);
    return nullptr;
  }
  return client;
}

// An error uses up an id, as a connection does that cannot be accepted.
void OnConnection(uv_stream_t* listener, int status) {
  auto* const server = static_cast<CTcpServer*>(listener->data);
  if (server == nullptr) return;
  const LoopTurn turn(listener->loop);

  const int id = CTcpServer::NextClientId();
  if (status < 0) {
    if (IsOutOfResources(status)) ListeningPause::Begin(server);
    return;
  }
  clientdata* const client = Accept(listener, server, id);
  if (client == nullptr) return;
  server->clients[id] = client;
  if (server->onConnect != nullptr) server->onConnect(id);
  // The callback may have closed it.
  if (server->clients.count(id) == 0) return;
  if (uv_read_start(StreamOf(client->handle), OnAllocate, OnRead) != 0) server->CloseClient(id);
}

bool IsKnownToLoop(const CTcpServer* server) {
  return server->listener.data != nullptr || ListeningPause::HasTimer(server);
}

// Turns a loop that stands until libuv has let go of the server.
void Drain(CTcpServer* server) {
  if (!IsKnownToLoop(server)) return;
  const LoopTurn turn(server->loop, LoopTurn::Purpose::kDrain);
  const SigpipeGuard guard;
  while (IsKnownToLoop(server))
    uv_run(server->loop, UV_RUN_NOWAIT);
}

}  // namespace
}  // namespace mivo

clientdata::~clientdata() {
  std::free(readBuf.base);
  std::free(writeBuf.base);
  std::free(handle);
}

CTcpServer::CTcpServer(uv_loop_t* servingLoop) : loop(servingLoop) {
  uv_mutex_init(&mutex);
}

CTcpServer::~CTcpServer() {
  // Inside a turn of its own loop a server is only destroyed by exit(): the loop will not be turned again.
  if (mivo::IsKnownToLoop(this) && mivo::LoopTurn::IsRunning(loop)) return;
  CloseAll();
  mivo::Drain(this);
  uv_mutex_destroy(&mutex);
}

bool CTcpServer::StartTcp4(const char* ip, int port) {
  if (loop != nullptr && mivo::LoopTurn::IsRunning(loop)) return false;
  CloseAll();
  return Init() && BindTcp4(ip, port) && Listen(mivo::kBacklog) && Run(UV_RUN_DEFAULT);
}

bool CTcpServer::StartTcp6(const char* ip, int port) {
  if (loop != nullptr && mivo::LoopTurn::IsRunning(loop)) return false;
  CloseAll();
  return Init() && BindTcp6(ip, port) && Listen(mivo::kBacklog) && Run(UV_RUN_DEFAULT);
}

bool CTcpServer::Init() {
  if (initialised) return true;
  if (loop == nullptr) return false;
  if (mivo::IsKnownToLoop(this)) {
    if (mivo::LoopTurn::IsRunning(loop)) return false;
    mivo::Drain(this);
  }
  if (uv_tcp_init(loop, &listener) != 0) return false;
  listener.data = this;
  initialised = true;
  return true;
}

bool CTcpServer::BindTcp4(const char* ip, int port) {
  sockaddr_in address = {};
  if (!initialised || ip == nullptr || uv_ip4_addr(ip, port, &address) != 0) return false;
  return uv_tcp_bind(&listener, reinterpret_cast<const sockaddr*>(&address), 0) == 0;
}

bool CTcpServer::BindTcp6(const char* ip, int port) {
  sockaddr_in6 address = {};
  if (!initialised || ip == nullptr || uv_ip6_addr(ip, port, &address) != 0) return false;
  return uv_tcp_bind(&listener, reinterpret_cast<const sockaddr*>(&address), 0) == 0;
}

bool CTcpServer::Listen(int backlog) {
  return initialised && uv_listen(mivo::StreamOf(&listener), backlog, mivo::OnConnection) == 0 &&
         mivo::ListeningPause::Prepare(this, backlog, mivo::OnConnection);
}

bool CTcpServer::Run(uv_run_mode mode) {
  if (loop == nullptr || mivo::LoopTurn::IsRunning(loop)) return false;
  const mivo::LoopTurn turn(loop);
  const mivo::SigpipeGuard guard;
  return uv_run(loop, mode) == 0;
}

bool CTcpServer::SetNoDelay(bool enable) {
  return initialised && uv_tcp_nodelay(&listener, enable ? 1 : 0) == 0;
}

bool CTcpServer::SetKeepAlive(bool enable, unsigned int delaySeconds) {
  return initialised && uv_tcp_keepalive(&listener, enable ? 1 : 0, delaySeconds) == 0;
}

void CTcpServer::SetConnectCallback(void (*callback)(int clientId)) {
  onConnect = callback;
}

void CTcpServer::SetRecvCallback(int clientId, void (*callback)(int clientId, const char* bytes, int count)) {
  const auto found = clients.find(clientId);
  if (found != clients.end()) found->second->onRecv = callback;
}

void CTcpServer::Write(int clientId, const char* bytes, int count) {
  const auto found = clients.find(clientId);
  if (found == clients.end() || bytes == nullptr || count < 0) return;
  clientdata* const client = found->second;
  const auto size = static_cast<unsigned int>(count);

  std::unique_ptr<mivo::WriteRequest> write(new (std::nothrow) mivo::WriteRequest);
  if (write == nullptr) mivo::EndProcess(loop);
  write->request.data = write.get();
  if (client->writeBuf.len < size) {
    mivo::MallocBlock grown(static_cast<char*>(std::malloc(size)));
    if (grown == nullptr) mivo::EndProcess(loop);
    std::memcpy(grown.get(), bytes, size);
    write->retired.reset(client->writeBuf.base);
    client->writeBuf = uv_buf_init(grown.release(), size);  // NOLINT(clang-analyzer-unix.Malloc): freed by clientdata
  } else {
    // The bytes may be a part of the buffer itself.
    std::memmove(client->writeBuf.base, bytes, size);
  }

  const uv_buf_t message = uv_buf_init(client->writeBuf.base, size);
  const mivo::SigpipeGuard guard;
  if (uv_write(&write->request, mivo::StreamOf(client->handle), &message, 1, mivo::OnWritten) != 0) {
    mivo::EndProcess(loop);
  }
  static_cast<void>(write.release());  // OnWritten deletes it
}

bool CTcpServer::CloseClient(int clientId) {
  uv_mutex_lock(&mutex);
  const auto found = clients.find(clientId);
  const bool known = found != clients.end();
  if (known) {
    mivo::CloseHandleOf(found->second);
    clients.erase(found);
  } else {
    lastError = "can't find client " + IntToString(clientId);
  }
  uv_mutex_unlock(&mutex);
  return known;
}

void CTcpServer::CloseAll() {
  for (const auto& [id, client] : clients)
    mivo::CloseHandleOf(client);
  clients.clear();
  if (initialised) {
    mivo::ListeningPause::End(this);
    mivo::CloseListener(this);
    initialised = false;
  }
}

int CTcpServer::NextClientId() {
  return ++mivo::last_client_id;
}

std::string CTcpServer::IntToString(int value) {
  char text[100];
  std::snprintf(text, sizeof text, "%d", value);
  return text;
}
