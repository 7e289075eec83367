// The one place where handlers of the application are called.
#ifndef MIVO_CALLS_HANDLER_RUN_H_
#define MIVO_CALLS_HANDLER_RUN_H_

#include <string>

class IMethodAll;
class IServerMethod;
class MIVOParams;

namespace mivo {

class Diagnostics;

// What a call of a handler needs beside the handler.
struct HandlerCall {
  const void* owner;   // the client or server the handler is registered with
  Diagnostics& print;  // where an exception is reported
  const std::string& name;
  int connection_id;
  MIVOParams* request;
  MIVOParams* reply;
};

// Calls it on this thread. An exception goes no further: what the handler has put into the reply until then travels.
void RunHandler(IServerMethod& handler, const HandlerCall& call);
void RunCatchAll(IMethodAll& handler, const HandlerCall& call);

}  // namespace mivo

#endif  // MIVO_CALLS_HANDLER_RUN_H_
