#include "tcpserver/listening_pause.h"

#include <mivo/tcpserver.h>

#include <fcntl.h>
#include <unistd.h>

#include <cassert>
#include <map>
#include <new>

#include "base/hold_across_fork.h"
#include "base/mutex.h"

namespace mivo {
namespace {

constexpr int kPauseMs = 100;

Mutex mutex;
[[maybe_unused]] const int held_across_fork = HoldAcrossFork<mutex>();

using Pauses = std::map<const CTcpServer*, ListeningPause*>;

// Of every server that listens. Never destroyed: servers with static storage end while the process exits.
Pauses& ThePauses() MIVO_REQUIRES(mutex) {
  static auto* const pauses = new Pauses;
  return *pauses;
}

ListeningPause* Find(const CTcpServer* server) {
  MutexLock lock(mutex);
  const Pauses& pauses = ThePauses();
  const auto found = pauses.find(server);
  return found == pauses.end() ? nullptr : found->second;
}

void Add(const CTcpServer* server, ListeningPause* pause) {
  MutexLock lock(mutex);
  ThePauses()[server] = pause;
}

void Remove(const CTcpServer* server) {
  MutexLock lock(mutex);
  ThePauses().erase(server);
}

template <class Handle>
uv_handle_t* AsHandle(Handle* handle) {
  return reinterpret_cast<uv_handle_t*>(handle);
}

// A server may be made to let its loop end while it listens; a pause is no reason to keep the loop.
void CopyReference(uv_handle_t* to, const uv_handle_t* from) {
  if (uv_has_ref(from) != 0) {
    uv_ref(to);
  } else {
    uv_unref(to);
  }
}

}  // namespace

bool ListeningPause::Prepare(CTcpServer* server, int backlog, uv_connection_cb on_connection) {
  if (Find(server) != nullptr) return true;
  uv_os_fd_t socket = -1;
  if (uv_fileno(AsHandle(&server->listener), &socket) != 0) return false;
  const int descriptor = fcntl(socket, F_DUPFD_CLOEXEC, 0);
  if (descriptor < 0) return false;
  auto* const pause = new (std::nothrow) ListeningPause(server, descriptor, backlog, on_connection);
  if (pause == nullptr) {
    close(descriptor);
    return false;
  }
  Add(server, pause);
  return true;
}

void ListeningPause::CloseSocket() {
  if (descriptor_ >= 0) close(descriptor_);
  descriptor_ = -1;
}

void ListeningPause::Begin(CTcpServer* server) {
  ListeningPause* const pause = Find(server);
  if (pause == nullptr) return;
  if (!pause->has_timer_) {
    uv_timer_init(server->loop, &pause->timer_);
    pause->timer_.data = pause;
    pause->has_timer_ = true;
  }
  CopyReference(AsHandle(&pause->timer_), AsHandle(&server->listener));
  CloseListener(server);
  uv_timer_start(
      &pause->timer_, [](uv_timer_t* timer) { static_cast<ListeningPause*>(timer->data)->TryToEnd(); }, kPauseMs,
      kPauseMs);
}

void ListeningPause::TryToEnd() {
  if (ListenAgain()) {
    uv_timer_stop(&timer_);
  } else {
    CloseListener(server_);
  }
}

bool ListeningPause::ListenAgain() {
  uv_tcp_t* const listener = &server_->listener;
  assert(listener->data == nullptr);  // a tick does not come in the turn that closes
  // First, since libuv takes its descriptor in reserve with it, if it has none: the one that is left goes there.
  if (uv_tcp_init(server_->loop, listener) != 0) return false;
  listener->data = server_;
  CopyReference(AsHandle(listener), AsHandle(&timer_));
  const int descriptor = fcntl(descriptor_, F_DUPFD_CLOEXEC, 0);
  if (descriptor < 0) return false;
  if (uv_tcp_open(listener, descriptor) != 0) {
    close(descriptor);
    return false;
  }
  return uv_listen(reinterpret_cast<uv_stream_t*>(listener), backlog_, on_connection_) == 0;
}

void ListeningPause::End(CTcpServer* server) {
  ListeningPause* const pause = Find(server);
  if (pause == nullptr) return;
  if (!pause->has_timer_) {
    Remove(server);
    delete pause;
    return;
  }
  // At once; libuv has the timer until its next turn.
  pause->CloseSocket();
  uv_close(AsHandle(&pause->timer_), [](uv_handle_t* handle) {
    auto* const ended = static_cast<ListeningPause*>(handle->data);
    Remove(ended->server_);
    delete ended;
  });
}

bool ListeningPause::HasTimer(const CTcpServer* server) {
  const ListeningPause* const pause = Find(server);
  return pause != nullptr && pause->has_timer_;
}

void CloseListener(CTcpServer* server) {
  uv_handle_t* const listener = AsHandle(&server->listener);
  if (uv_is_closing(listener) == 0) uv_close(listener, [](uv_handle_t* handle) { handle->data = nullptr; });
}

}  // namespace mivo
