// Calls whose replies are the caller's own, and calls that keep no thread waiting.
//
// IClient and IServer keep replies under keys, which whoever calls has to know about. These functions do the same calls
// without: on the same connection, with the same bytes, to the same handlers.
//
// Threads: any, several at a time, as for SendMsgFast. The objects are those of CreateClient and CreateServer; what is
// called on another implementation of the interface is not sent. An object must outlive the calls on it that wait.
#ifndef MIVO_CALLS_H_
#define MIVO_CALLS_H_

#include <mivo/export.h>
#include <mivo/handler.h>

class IClient;
class IServer;
class MIVOParams;

namespace mivo {

enum class CallOutcome : int {
  kAnswered = 0,      // a reply came
  kNotSent = 1,       // nothing was sent: not connected, no such client, or in a notice of the object's own
  kNoAnswer = 2,      // none came in time; the call may have been carried out, or may still be
  kDisconnected = 3,  // the connection ended first, or was closed; the call may have been carried out
};

// Calls `name` and waits. `params` (null: no arguments) is only read. `timeout_ms` is looked at as for SendMsg: every
// 100 ms, at a server every time-out step; below 1 there is no limit (at a server, 50 days). When it is answered
// `reply` is replaced by what came, otherwise emptied. Throws std::bad_alloc without memory; then nobody waits any
// more.
MIVO_EXPORT CallOutcome Call(IClient& client, const char* name, const MIVOParams* params, int timeout_ms,
                             MIVOParams& reply);
MIVO_EXPORT CallOutcome Call(IServer& server, int client_id, const char* name, const MIVOParams* params, int timeout_ms,
                             MIVOParams& reply);

// Told how a call has ended.
class MIVO_EXPORT CallCompletion {
 public:
  virtual ~CallCompletion() = default;

  // Once, on one of the library's pool threads: as for handlers, `reply` ends with this, an exception goes no further
  // than a line on standard output, and closing the object waits until it is over. Empty unless answered.
  virtual void OnCompleted(CallOutcome outcome, MIVOParams& reply) = 0;
};

// The same calls without waiting: they return once the call is on its way, or in line, or cannot be sent. `completion`
// is made with new and belongs to the library, which tells it once in any case, and deletes it. Throws std::bad_alloc
// without memory; then it was deleted without being told.
MIVO_EXPORT void CallAsync(IClient& client, const char* name, const MIVOParams* params, int timeout_ms,
                           CallCompletion* completion);
MIVO_EXPORT void CallAsync(IServer& server, int client_id, const char* name, const MIVOParams* params, int timeout_ms,
                           CallCompletion* completion);

// A request that its handler has not answered when it returned.
class MIVO_EXPORT LateReply {
 public:
  // Sends an empty reply if none was sent: nobody is left waiting.
  virtual ~LateReply() = default;

  // Any thread, once. Sends the reply, as the handler's return would have, and leaves `reply` in any state. To nobody
  // if whoever has asked has gone, or the object that was asked has closed, or in a child of fork.
  virtual void Send(MIVOParams& reply) = 0;
};

// In a handler (OnCall) that was called for a request: whatever it puts into its reply is dropped, and what the result
// sends travels instead, whenever that is. It is the caller's, to be deleted. An object that closes waits for handlers,
// and not for these.
//
// Null elsewhere: in notices, in handlers of large messages (SendMsgEx), and when it was taken already. Throws
// std::bad_alloc without memory.
MIVO_EXPORT LateReply* ReplyLater();

// A handler that hands its requests on in the order in which they came. OnCall is called by the thread that reads, for
// one request of a connection at a time. Others wait for it, also on other connections: it takes the reply
// (ReplyLater), puts what it needs of the request where somebody else works on it, and returns. It must not call the
// peer and wait, and must not close or destroy the object.
class MIVO_EXPORT IInOrderMethod : public IServerMethod {};

}  // namespace mivo

#endif  // MIVO_CALLS_H_
