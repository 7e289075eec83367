// The client: connects to a server, calls its methods by name, and serves calls that the server makes.
#ifndef MIVO_CLIENT_H_
#define MIVO_CLIENT_H_

#include <mivo/export.h>

class IMethodAll;
class IServerMethod;
class MIVOParams;

// A connection to one server.
//
// Threads: every operation may be called from any thread, also from several at once, from handlers and from the
//   "s_c_closed" notice; only destruction must not race with other operations. On the client's own loop thread (that
//   notice) a call never waits: it is sent, and comes back with "errorCode" -1001.
// Blocking: Init*, SendMsg*, PostMsg* and close block as told at each. A call ends when its reply is there, its
//   time-out has passed, the connection has ended or the client is closed. SendMsg, PostMsg, the slices of SendMsgEx
//   and the version check of Init* take turns in the whole process, except on loop threads; the time-out begins with
//   the turn.
// Call key: a non-zero `key` names the call; 0 means the calling thread's id. Two calls in flight at one time should
//   not share a key.
// Replies: a set returned by a call belongs to the client and stays valid until the next call with the same key starts,
//   ClearRetvalMem, the end of a later connection, or destruction. Do not delete it.
// Errors: where no reply came, the client makes a set itself, which is the caller's to delete. It holds "errorCode" and
//   nothing else: -1000 not connected, nothing was sent (from SendMsgEx also: the connection has ended meanwhile);
//   -1001 no reply came, whether the call was carried out is unknown. A reply has further entries, so the number of
//   entries tells a set of the client's own from a reply in which the server has used that key. A result of SendMsgEx
//   is whatever the server has sent: one that is not trusted can make it look like a set of the client's own.
class MIVO_EXPORT IClient {
 public:
  virtual ~IClient() = default;

  // Connects to the local socket "/tmp/echo.sock." + `name` and checks the server's version; true when both succeeded.
  // `name` has at most 92 bytes. Blocks until then: the version check for at most about 10 s, once it has its turn.
  // `threaded` is accepted and ignored: a client always runs its loop on a thread of its own. On a connected client
  // nothing happens and the result is true. False in the client's own notice, and in one of its handlers when the
  // connection has ended.
  //
  // After a failure or a close the client can be initialised again. A failed connect (diagnostic line "cant connect: ")
  // leaves the handlers registered. A failed version check ("Check Server Version Error!"), by another banner or for
  // want of an answer, has closed the client, with its handlers. The result does not tell the one from the other: to
  // try again, keep the handlers (SetCustomReleaseEvent) and register them before every attempt; where they still stand
  // that does nothing. Patch releases keep the banner.
  virtual bool InitMIVOClient(const char* name, bool threaded) = 0;

  // The same over TCP. `host` is a numeric address; `port` is read as a decimal number. An address that is not one
  // leaves 0.0.0.0 (or ::), which reaches the local host. Blocks as long as the kernel tries to connect.
  virtual bool InitMIVOClientTcp4(const char* host, const char* port, bool threaded) = 0;
  virtual bool InitMIVOClientTcp6(const char* host, const char* port, bool threaded) = 0;

  // True from a successful connect until the connection ends or is closed.
  virtual bool isok() = 0;

  // Accepted for symmetry with the server; a client looks for expired calls every 100 ms whatever is set here.
  virtual void SetTimeoutStep(int ms) = 0;

  // Ends the connection: what waits to be written is written, for half a second at most, while the server reads; wakes
  // every blocked call, also those that wait for their turn, deletes the registered handlers (see
  // SetCustomReleaseEvent), waits for running handlers and for the loop thread. Takes at least 100 ms. May be repeated.
  // No notice runs. In a handler or notice of this client it only begins the close and returns; a later close or
  // DestroyClient waits for its end.
  virtual void close() = 0;

  // Calls `name` and waits for the reply; never null. `params` (null: no arguments) is only read. `timeout` is in
  // milliseconds and is looked at every 100 ms, first 500 ms after connecting; 0 waits without limit, below 0 some 50
  // days. A request that cannot be sent is not waited for. `name` is any text; those that begin with "s_c_", and
  // "retval", are the library's own. Arguments and results travel in one message each of less than 2 GiB; meanwhile
  // everything else on the connection waits. At most one SendMsg or PostMsg runs at a time in the whole process;
  // SendMsgFast has no such limit and is the one to use from handlers.
  virtual MIVOParams* SendMsg(const char* name, MIVOParams* params, int key, int timeout) = 0;
  virtual MIVOParams* SendMsgFast(const char* name, MIVOParams* params, int key, int timeout) = 0;

  // The same for arguments and results so large that others would notice: they travel in slices, between which other
  // calls pass. Slower than SendMsg, by a round trip for each slice. `params` is emptied (unless the client was
  // not connected). One SendMsgEx runs at a time in the process. `timeout` counts from the beginning, but the call
  // does not end before all slices are sent, each of which waits for its answer for at most about 600 ms. A result that
  // comes after its call has timed out may be taken for the result of the next SendMsgEx with the same key: give such
  // calls keys of their own.
  virtual MIVOParams* SendMsgEx(const char* name, MIVOParams* params, int key, int timeout) = 0;

  // Sends a call nobody waits for and returns 0 once it is on its way (or was dropped because there is no connection);
  // on a loop thread at once. What a peer does not read waits in memory, without limit. Posts and calls of one thread
  // keep their order. PostMsgFast does not queue behind a running SendMsg.
  virtual int PostMsg(const char* name, MIVOParams* params, int key) = 0;
  virtual int PostMsgFast(const char* name, MIVOParams* params, int key) = 0;

  // Registers a handler for calls from the server. The first registration of a name stays; a second one is ignored and
  // its handler remains the caller's. "s_c_closed" names the notice of the connection's end. Other names that begin
  // with "s_c_" are the library's own.
  virtual void method(const char* name, IServerMethod* handler) = 0;

  // Takes ownership of a catch-all handler. A client never calls it.
  virtual void methodall(IMethodAll* handler) = 0;

  // Sets the level of the diagnostic lines: above 0 (as at construction) they appear on standard output, else only
  // those that tell of errors do, and the "run" and "run out" of TCP clients. The text is not printed. 1 if the text is
  // not empty, else 0. The first call in a process, on any object, also calls std::ios_base::sync_with_stdio(false):
  // std::cout and printf are no longer in step.
  virtual int log(char* text, int level) = 0;

  // From now on the application keeps its handlers: closing the client does not delete them.
  virtual void SetCustomReleaseEvent() = 0;

  // The slice size of SendMsgEx in bytes, 32768 at first; one value for every client and server of the process.
  // A value below 1 is kept as it is but sends slices of 32768.
  virtual void SetBigfileBufferSize(int bytes) = 0;
  virtual int GetBigfileBufferSize() = 0;

  // Frees every stored reply, also those that calls have returned.
  virtual void ClearRetvalMem() = 0;
};

// A new client, not connected.
MIVO_EXPORT IClient* CreateClient();

// Closes and deletes; null is ignored, and so is, in a child of fork, a client of the parent. From a handler or notice
// of that client the deletion happens later, on another thread, when the handler has returned.
MIVO_EXPORT void DestroyClient(IClient* client);

#endif  // MIVO_CLIENT_H_
