// The listening socket of a server.
#ifndef MIVO_SERVER_LISTENER_H_
#define MIVO_SERVER_LISTENER_H_

#include <uv.h>

#include <functional>

#include "calls/diagnostics.h"
#include "loop/event_loop.h"
#include "loop/handle.h"
#include "loop/timer.h"
#include "server/socket_file.h"
#include "transport/endpoint.h"

namespace mivo {

// Loop thread. Local socket, TCP over IPv4 and over IPv6 differ in here and nowhere else on the server.
//
// Without a descriptor or memory for the next connection, it stops looking for a while and tries again then. Whoever
// connects meanwhile waits in the socket's queue.
class Listener {
 public:
  Listener(EventLoop& loop, Diagnostics& print) : loop_(loop), print_(print) {}
  ~Listener() { Close(); }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  // Binds and listens: 0, or a negative errno. What fails is printed, and what was opened is left for Close.
  // `on_incoming` is called with each connection that was accepted: its descriptor, which does not block and is the
  // callee's from then on. With a negative errno it is called when the socket reports an error; of a lack of
  // descriptors or memory it hears once, at its beginning. It may close.
  int Listen(const Endpoint& endpoint, std::function<void(int descriptor)> on_incoming);

  // Nobody can connect any more, and who waits is turned away. May be repeated.
  void Close();

  Endpoint::Kind kind() const { return kind_; }

 private:
  int Bind(const Endpoint& endpoint);
  int BindLocal(const Endpoint& endpoint, const SocketAddress& address);
  int StartListening();
  int StartPolling();
  int AcceptWaiting();
  void Pause(int status);
  void TryToResume();

  EventLoop& loop_;
  Diagnostics& print_;
  std::function<void(int descriptor)> on_incoming_;
  Endpoint::Kind kind_ = Endpoint::kLocal;
  int socket_ = -1;
  SocketFile file_;  // of a local socket
  Handle<uv_poll_t> poll_;
  Timer retry_;                // during a pause
  bool has_accepted_ = false;  // since the pause began
};

}  // namespace mivo

#endif  // MIVO_SERVER_LISTENER_H_
