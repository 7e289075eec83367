// From a method's name to the handler that serves it.
#ifndef MIVO_SERVER_DISPATCH_H_
#define MIVO_SERVER_DISPATCH_H_

#include <mivo/params.h>

#include <string>

#include "calls/diagnostics.h"
#include "calls/handler_table.h"
#include "calls/request_job.h"
#include "transport/envelope.h"

namespace mivo {

// Any thread: requests come on the pool, notices on the loop thread.
class Dispatch : public RequestServer {
 public:
  Dispatch(const void* server, Diagnostics& print, HandlerTable& handlers)
      : server_(server), print_(print), handlers_(handlers) {}

  // One request: arguments, catch-all, handler, and the reply's tail.
  void Serve(const Request& request, MIVOParams* reply) override;
  ReplyTail tail() const override { return &AppendServerReplyTail; }

  // The method alone; without one the reply says so.
  void CallMethod(const std::string& name, int client_id, MIVOParams* request, MIVOParams* reply);

  // Calls the handler registered under a notice's name, if there is one. Nothing is sent.
  void Notify(const char* name, int client_id, MIVOParams* request, MIVOParams* reply);

 private:
  // `handler` may be null.
  void Call(IServerMethod* handler, const std::string& name, int client_id, MIVOParams* request, MIVOParams* reply);

  const void* const server_;
  Diagnostics& print_;
  HandlerTable& handlers_;
};

}  // namespace mivo

#endif  // MIVO_SERVER_DISPATCH_H_
