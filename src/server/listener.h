// The listening socket of a server.
#ifndef MIVO_SERVER_LISTENER_H_
#define MIVO_SERVER_LISTENER_H_

#include <uv.h>

#include <functional>

#include "loop/event_loop.h"
#include "loop/handle.h"
#include "loop/timer.h"
#include "transport/connection.h"
#include "transport/endpoint.h"
#include "transport/print_object.h"

namespace mivo {

// Loop thread. Local socket, TCP over IPv4 and over IPv6 differ in here and nowhere else on the server.
//
// Two handles share the socket. One has bound it and keeps it: the port, or the file's name, is the server's until it
// closes. The other accepts. When the process has run out of descriptors that one is closed, which is the only way out
// of libuv's accepting, and made anew when a while has passed. Whoever connects meanwhile waits in the socket's queue.
class Listener {
 public:
  Listener(EventLoop& loop, PrintObject& print) : loop_(loop), print_(print) {}

  // Binds and listens; what fails is printed. `on_incoming` is called for each connection that can be accepted (0), and
  // when the socket reports an error (below 0). It may close.
  bool Listen(const Endpoint& endpoint, std::function<void(int status)> on_incoming);

  // Makes a stream for the connection that waits and accepts into it. Returns libuv's result; after a failure the
  // connection that waited is gone, and the next one will be reported.
  int Accept(Connection& connection);

  void Close();

  bool is_local() const { return is_local_; }

 private:
  union Socket {
    uv_stream_t stream;
    uv_pipe_t pipe;
    uv_tcp_t tcp;
  };

  int BindLocal(const Endpoint& endpoint);
  int BindTcp(const Endpoint& endpoint);
  int StartAccepting();
  void PauseAccepting();
  void OnIncoming(int status);
  int Init(Socket* socket);
  void DropWaiting();

  EventLoop& loop_;
  PrintObject& print_;
  std::function<void(int status)> on_incoming_;
  Handle<Socket> bound_;
  Handle<Socket> accepting_;
  Timer retry_;  // during a pause
  bool is_local_ = false;
};

}  // namespace mivo

#endif  // MIVO_SERVER_LISTENER_H_
