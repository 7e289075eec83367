// A plain TCP server: bytes in, bytes out, clients by number. It stands beside the RPC server and shares nothing with
// it.
//
// The one public header that needs libuv's: the server runs on a loop of the application's.
#ifndef MIVO_TCPSERVER_H_
#define MIVO_TCPSERVER_H_

#include <mivo/export.h>

#include <uv.h>

#include <map>
#include <string>

class CTcpServer;

// One connected client. Made by the server on accepting, deleted by it when the connection's handle has closed;
// `handle` and the buffers' memory come from malloc and go with it.
class MIVO_EXPORT clientdata {
 public:
  clientdata() = default;
  clientdata(const clientdata&) = delete;
  clientdata& operator=(const clientdata&) = delete;
  virtual ~clientdata();

  int id = 0;
  uv_tcp_t* handle = nullptr;  // its `data` points back here
  CTcpServer* server = nullptr;
  uv_buf_t readBuf = {nullptr, 0};   // 1 MiB; every read lands here
  uv_buf_t writeBuf = {nullptr, 0};  // 1 MiB at first, grows to the largest message, never shrinks
  void (*onRecv)(int clientId, const char* bytes, int count) = nullptr;
};

// A listening socket and its clients, on a loop given by the application.
//
// Threads: everything happens on the thread that runs the loop, the callbacks too. From other threads only NextClientId
//   and IntToString may be called; to reach a running server, send a uv_async_t on its loop and act in its callback.
//   The loop need not be this server's alone.
// Blocking: StartTcp4, StartTcp6 and Run block while the loop has anything to do: until CloseAll, if nothing else is on
//   it. When an earlier CloseAll has not been finished by a turn of the loop, Init, Start* and the destructor turn it
//   first, as the destructor does after its own; such a turn also serves whatever else is ready on the loop.
// Signals: SIGPIPE is blocked in the calling thread while Start*, Run and Write last, and left as it was afterwards.
//   Threads and programs started in a callback inherit it blocked. An application that turns the loop by itself, with
//   uv_run, has to keep SIGPIPE from itself.
// Errors: a step that fails returns false and prints nothing. One failure is not survived, on purpose: a write that did
//   not reach its client ends the process by exit(-1), status 255. Closing a client whose last Write is not through yet
//   counts as such a failure, unless the rest is taken down by Init, Start* or the destructor.
// Ownership: the loop stays the application's, and has to outlive the server; a loop that was never initialised for the
//   server is not touched. Bytes given to a callback are valid until it returns.
// Lifetime: not to be destroyed in a callback of its own loop, nor while another thread turns it. When the process
//   exits inside a callback, a server with static storage leaves its loop alone.
class MIVO_EXPORT CTcpServer {
 public:
  // Null is allowed; nothing can be started then.
  explicit CTcpServer(uv_loop_t* servingLoop);
  CTcpServer(const CTcpServer&) = delete;
  CTcpServer& operator=(const CTcpServer&) = delete;
  virtual ~CTcpServer();

  // Closes what is open, listens on a numeric address and a port (0: one that the system picks) and serves until the
  // loop has nothing left to do. True when it ran out by itself; false at the first step that fails, or when the loop
  // was stopped with work left. May be called again afterwards; what a failed start has opened is closed by the next
  // one, by CloseAll or by the destructor. On a loop that is running already: false, nothing changed.
  bool StartTcp4(const char* ip, int port);
  bool StartTcp6(const char* ip, int port);

  // The steps of the above, one by one: Init, Bind*, Listen, Run. Only Init may come first; the others are false before
  // it. Init is true when it was done before. It is false without a loop, and in a callback after CloseAll: the socket
  // that was closed needs the rest of the loop's turn.
  bool BindTcp4(const char* ip, int port);
  bool BindTcp6(const char* ip, int port);
  bool Init();
  bool Listen(int backlog);

  // Runs the loop; true when nothing is left to do on it. False at once on a loop that is running already.
  bool Run(uv_run_mode mode);

  // Options of the listening socket, between Init and Listen; accepted connections inherit them.
  bool SetNoDelay(bool enable);
  bool SetKeepAlive(bool enable, unsigned int delaySeconds);

  // `callback` is told of every new client before anything of it is read: the place to call SetRecvCallback.
  void SetConnectCallback(void (*callback)(int clientId));

  // `callback` gets what the client sends, up to 1 MiB at a time. Without one it is thrown away. An unknown id is
  // ignored.
  void SetRecvCallback(int clientId, void (*callback)(int clientId, const char* bytes, int count));

  // Sends. The bytes are copied; an unknown id is ignored.
  // One message at a time per client: all messages of a client go through its one `writeBuf`, so a Write that comes
  // while an earlier one is not through overwrites what is left of it (a longer one, for which the buffer has to grow,
  // does not). uv_stream_get_write_queue_size() of the client's handle is 0 when it is through.
  void Write(int clientId, const char* bytes, int count);

  // Ends a connection and forgets the client; safe in every callback. A client whose connection has ended is forgotten
  // already. False, with lastError "can't find client <id>", for an unknown id.
  bool CloseClient(int clientId);

  // Ends every connection and stops listening, at once; memory is freed in the loop's next turn. Safe in every
  // callback.
  void CloseAll();

  // Counts on and returns the number. One counter for the whole process: ids are never used twice, by any server.
  static int NextClientId();
  static std::string IntToString(int value);

  uv_tcp_t listener = {};              // its `data` is this server from Init until it is closed
  std::map<int, clientdata*> clients;  // owned
  uv_mutex_t mutex = {};               // guards `clients` in CloseClient
  uv_loop_t* loop = nullptr;
  std::string lastError;
  void (*onConnect)(int clientId) = nullptr;
  bool initialised = false;  // from Init until CloseAll
};

#endif  // MIVO_TCPSERVER_H_
