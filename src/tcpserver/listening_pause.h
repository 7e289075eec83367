// How a plain TCP server gets over a shortage of descriptors.
#ifndef MIVO_TCPSERVER_LISTENING_PAUSE_H_
#define MIVO_TCPSERVER_LISTENING_PAUSE_H_

#include <uv.h>

class CTcpServer;

namespace mivo {

// Without a descriptor for the next connection, libuv's accepting only ends when the listening handle is closed. So it
// is closed for a while, with the server still initialised. The socket itself stays open through a second descriptor,
// and with it the port, the options, and whoever connects meanwhile: they wait in its queue.
//
// The class of the server has no room for this. It is kept beside it, from Listen to CloseAll.
//
// The server's thread; servers on other threads do not matter.
class ListeningPause {
 public:
  ListeningPause(const ListeningPause&) = delete;
  ListeningPause& operator=(const ListeningPause&) = delete;

  // The server listens now. False: without a descriptor or memory even now.
  static bool Prepare(CTcpServer* server, int backlog, uv_connection_cb on_connection);

  // In the connection callback. Listens again by itself, as soon as it can.
  static void Begin(CTcpServer* server);

  // The server listens no longer. May be called when it never did.
  static void End(CTcpServer* server);

  // Whether the server's loop still knows a timer of a pause, over or not.
  static bool HasTimer(const CTcpServer* server);

 private:
  ListeningPause(CTcpServer* server, int descriptor, int backlog, uv_connection_cb on_connection)
      : server_(server), descriptor_(descriptor), backlog_(backlog), on_connection_(on_connection) {}
  ~ListeningPause() { CloseSocket(); }

  void TryToEnd();
  bool ListenAgain();
  void CloseSocket();

  CTcpServer* const server_;
  int descriptor_;
  const int backlog_;
  const uv_connection_cb on_connection_;
  uv_timer_t timer_ = {};  // known to the loop from the first pause on
  bool has_timer_ = false;
};

// Closes the listening handle, unless it is being closed already or is closed for a while.
void CloseListener(CTcpServer* server);

}  // namespace mivo

#endif  // MIVO_TCPSERVER_LISTENING_PAUSE_H_
