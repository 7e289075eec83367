// The listening socket of a server.
#ifndef MIVO_SERVER_LISTENER_H_
#define MIVO_SERVER_LISTENER_H_

#include <uv.h>

#include <functional>

#include "loop/event_loop.h"
#include "loop/handle.h"
#include "transport/connection.h"
#include "transport/endpoint.h"
#include "transport/print_object.h"

namespace mivo {

// Loop thread. Local socket, TCP over IPv4 and over IPv6 differ in here and nowhere else on the server.
class Listener {
 public:
  Listener(EventLoop& loop, PrintObject& print) : loop_(loop), print_(print) {}

  // Binds and listens; what fails is printed. `on_incoming` is called for each connection that can be accepted (0), and
  // when the socket reports an error (below 0).
  bool Listen(const Endpoint& endpoint, std::function<void(int status)> on_incoming);

  // Makes a stream for the connection that waits and accepts into it. Returns libuv's result; after a failure the
  // connection that waited is gone, and the next one will be reported.
  int Accept(Connection& connection);

  void Close() { socket_.Close(); }

  bool is_local() const { return is_local_; }

 private:
  union Socket {
    uv_stream_t stream;
    uv_pipe_t pipe;
    uv_tcp_t tcp;
  };

  int BindLocal(const Endpoint& endpoint);
  int BindTcp(const Endpoint& endpoint);
  void DropWaiting();

  EventLoop& loop_;
  PrintObject& print_;
  std::function<void(int status)> on_incoming_;
  Handle<Socket> socket_;
  bool is_local_ = false;
};

}  // namespace mivo

#endif  // MIVO_SERVER_LISTENER_H_
