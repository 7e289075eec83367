// A request on its way: read on the loop thread, served on the pool, answered from the loop thread.
#ifndef MIVO_CALLS_REQUEST_WORK_H_
#define MIVO_CALLS_REQUEST_WORK_H_

#include <mivo/params.h>

#include <memory>
#include <string>
#include <string_view>

#include "calls/in_order_method.h"
#include "loop/work_queue.h"
#include "transport/envelope.h"

namespace mivo {

class Connection;
class HandlerTable;

// One incoming request. It does not move: the envelope points into the payload.
struct Request {
  // `read` is the envelope of `bytes`; both are copied. `in_order`, where not null, is the handler that hears of the
  // request here.
  Request(std::shared_ptr<Connection> from, std::string_view bytes, const Envelope& read,
          InOrderMethod* in_order = nullptr);
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;

  const std::shared_ptr<Connection> connection;
  const std::string payload;
  const Envelope envelope;
  const std::string name;
  InOrderMethod* const in_order;
  // What `in_order` wants called instead. It views the payload, and needs no arguments.
  const std::unique_ptr<IServerMethod> in_its_place;
};

// The handler to call for `request`, null if there is none: whose the name is now, not when the request came.
IServerMethod* FindHandler(const HandlerTable& handlers, const Request& request);

// Decodes the request's own arguments; what stands before a fault counts.
void ReadArguments(const Request& request, MIVOParams* arguments);

// What a side does with requests; lives longer than its work. Pool threads, several at a time.
class RequestServer {
 public:
  virtual ~RequestServer() = default;
  // Runs the handler and completes the reply.
  virtual void Serve(const Request& request, MIVOParams* reply) = 0;
};

class RequestWork : public Work {
 public:
  RequestWork(RequestServer& server, std::shared_ptr<Connection> from, std::string_view bytes, const Envelope& read,
              InOrderMethod* in_order = nullptr)
      : server_(server), request_(std::move(from), bytes, read, in_order) {}

  void Run() override;
  // A reply to a peer that has gone is dropped by its connection, and one that is too long only for what it repeats of
  // the request is dropped here.
  void Finish() override;

 private:
  RequestServer& server_;
  const Request request_;
  MIVOParams reply_;
};

}  // namespace mivo

#endif  // MIVO_CALLS_REQUEST_WORK_H_
