// Handlers: what a program offers to its peer.
#ifndef MIVO_HANDLER_H_
#define MIVO_HANDLER_H_

#include <mivo/export.h>

class MIVOParams;

// One named method, registered with IServer::method or IClient::method.
//
// Threads: OnCall runs on one of the library's pool threads, several calls at a time, also for one connection. The
//   notices "s_c_connect" and "s_c_closed" run on the loop thread of the object they are registered with and hold up
//   everything else of that object while they run; "s_c_createport" runs on the thread that starts the server.
// Ownership: the object a handler is registered with deletes it when it closes (a server only if it was started),
//   unless SetCustomReleaseEvent was called. Both parameter sets belong to the library and end with the call.
// Errors: an exception that leaves OnCall is reported on standard output; the caller gets the reply as filled so far.
class MIVO_EXPORT IServerMethod {
 public:
  virtual ~IServerMethod() = default;

  // `clientId` names the connection; a server may call back through it (IServer::SendMsg, IServer::PostMsg).
  // `request` holds the caller's arguments, decoded. What is added to `reply` travels back.
  // In the notices of a client both sets are null; a server's "s_c_createport" and "s_c_log" handlers get no reply set.
  virtual void OnCall(int clientId, MIVOParams* request, MIVOParams* reply) = 0;
};

// A server's catch-all, registered with IServer::methodall: called for each request whose name has no handler, before
// the "no event: <name>" text is added to the reply. Not for calls of SendMsgEx, which travel in slices: without a
// handler they get that text alone. Nor for notices, requests under the names "s_c_connect" and "s_c_closed", and what
// the library serves itself: "s_c_version", "s_c_close_server", "s_c_req_header", "s_c_req_body", "retval".
// Threads, ownership and errors as for IServerMethod.
class MIVO_EXPORT IMethodAll {
 public:
  virtual ~IMethodAll() = default;

  virtual void OnCall(const char* name, int clientId, MIVOParams* request, MIVOParams* reply) = 0;
};

#endif  // MIVO_HANDLER_H_
