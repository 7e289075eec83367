// The server: offers methods by name to any number of clients, and calls theirs.
#ifndef MIVO_SERVER_H_
#define MIVO_SERVER_H_

#include <mivo/export.h>

class IMethodAll;
class IServerMethod;
class MIVOParams;

// One listening socket, its connections and its handlers.
//
// Threads: every operation may be called from any thread, from handlers and from notices; only destruction must not
//   race with other operations. Init* serves on a thread of the server's own; Start* and run() on the caller's.
// Blocking: Init*, run, close and SendMsg as told at each; PostMsg until the call is on its way.
// Call key: as for IClient.
// Replies: a set returned by SendMsg belongs to the server and stays valid until the next call with the same key,
//   ClearRetvalMem, the close of a later start, or destruction. Do not delete it.
// Notices: handlers registered as "s_c_connect" and "s_c_closed" (a client came, went; its id is passed) run on the
//   loop thread. In "s_c_connect" the client cannot be reached yet: posts and calls to it are dropped. "s_c_createport"
//   (listening began; one string: the socket name or port text) runs on the thread that starts the server. A handler
//   registered as "s_c_log" gets the diagnostic lines, as one string each, in place of standard output, on whichever
//   thread has something to say; it stays the application's, and must live until the server is destroyed. A few lines
//   that tell of errors outside a server's own work appear on standard output all the same. The end of connections by
//   the server's own close is not noticed; nor is that of one which could not be accepted after "s_c_connect", for want
//   of memory. A client's request may still be carried out after its "s_c_closed".
//
// The operations stand in this order, the destructor last: the order of the virtual table is part of the interface.
class MIVO_EXPORT IServer {
 public:
  // Listens on the local socket "/tmp/echo.sock." + `name`, replacing a socket file that is there; true when listening.
  // `name` has at most 92 bytes and no '/'. The file gets mode 0777 and, where the process may do that, user and group
  // 1000; otherwise "chown error" appears on standard output and nothing is lost. It is removed when the server closes,
  // unless another server has taken the name, and stays when the process ends without that. Serving begins with run().
  // False when the server already runs, and in its handlers and notices. After a failure the handlers are registered as
  // before, here and in all that follow.
  virtual bool StartMIVOServer(const char* name) = 0;

  // Listens on the local socket named by the number in `port` and serves on a thread of its own; blocks until listening
  // succeeded or failed. "007" listens as "7", a text that is no number as "0".
  virtual bool InitMIVOServer(const char* port) = 0;

  // The same over TCP. `ip` is a numeric address of this machine; a text that is not one listens on every address.
  virtual bool StartMIVOServerTcp4(const char* ip, const char* port) = 0;
  virtual bool StartMIVOServerTcp6(const char* ip, const char* port) = 0;
  virtual bool InitMIVOServerTcp4(const char* ip, const char* port) = 0;
  virtual bool InitMIVOServerTcp6(const char* ip, const char* port) = 0;

  // Serves on the calling thread until the server is closed; always true. While another thread serves, as after Init*,
  // it waits until that one has left. Without a successful Start*, and in a handler or notice of this server, it
  // returns at once.
  virtual bool run() = 0;

  // How often, in milliseconds, calls to clients are tested against their time-outs; below 1 means 100.
  virtual void SetTimeoutStep(int ms) = 0;

  // True while the server serves: from a successful Start* or Init* until it closes.
  virtual bool isok() = 0;

  // Closes: no new work; what waits to be written is written, for half a second at most in all, while the clients read;
  // connections ended, calls to clients woken, handlers deleted (see SetCustomReleaseEvent). On
  // the thread that serves, and when none does, it happens at once; any other asks that thread and waits until it has
  // left the loop, so that no handler runs any more. In a handler it only begins. On a server that is already closing
  // it returns at once; DestroyServer waits for the end. Always true.
  virtual bool close() = 0;

  // Asks the serving thread to close and returns after about 10 ms without waiting for the end. Always true.
  virtual bool closeasync() = 0;

  // Calls `name` of one connected client and waits for the reply. `params` and negative time-outs are as for IClient;
  // no turns are taken. Null when the server does not run or the client is unknown (nothing was sent), or when no reply
  // came within `timeout` ms; a reply stored earlier under the same key is returned in its place, if this client has
  // sent it. Time-outs are looked at every time-out step, first 500 ms after the server's first call; 0 ends at the
  // next look. On the loop thread the call is sent and not waited for.
  virtual MIVOParams* SendMsg(int clientId, const char* name, MIVOParams* params, int key, int timeout) = 0;

  // Sends a call nobody waits for; returns 0 once it is on its way or was dropped, on a loop thread at once.
  virtual int PostMsg(int clientId, const char* name, MIVOParams* params, int key) = 0;

  // Sets the level of the diagnostic lines, as IClient::log. No file is opened.
  virtual int log(char* path, int level) = 0;

  // Registers a handler. The last registration of a name is the one called; a handler that was replaced is the
  // application's again, and may be running until the server has closed. "s_c_log" sets (or, with null, removes) the
  // receiver of the diagnostic lines, which the server never deletes. Names that begin with "s_c_" and are not those of
  // the notices are the library's own.
  virtual void method(const char* name, IServerMethod* handler) = 0;

  // Sets the handler for names without one. A handler that was replaced is the application's again, as above.
  virtual void methodall(IMethodAll* handler) = 0;

  // The number in the text the server was started with. A port chosen by the system (text "0") is not read back.
  virtual int GetPort() = 0;

  // How many connections have ever delivered data, or their end, since the server was started. It does not fall.
  virtual int GetClientCount() = 0;

  // True once an Init* operation was called.
  virtual bool isthread() = 0;

  // From now on the application keeps its handlers: closing the server does not delete them.
  virtual void SetCustomReleaseEvent() = 0;

  // The slice size of large results, see IClient::SetBigfileBufferSize.
  virtual void SetBigfileBufferSize(int bytes) = 0;

  // Frees every stored reply, also those that calls have returned.
  virtual void ClearRetvalMem() = 0;

  virtual ~IServer() = default;
};

// A new server, not listening.
MIVO_EXPORT IServer* CreateServer();

// Closes, waits for running handlers and for the serving thread to leave, and deletes; null is ignored, and so is, in a
// child of fork, a server of the parent. From a handler or notice of that server the deletion happens later, on another
// thread, when the handler has returned; but not while the operation that starts the server is still under way, in
// "s_c_createport" or in an "s_c_log" handler. Handlers of a server that never ran are not deleted.
MIVO_EXPORT void DestroyServer(IServer* server);

#endif  // MIVO_SERVER_H_
