// A request on its way: read on the loop thread, served on the pool, answered from the loop thread.
#ifndef MIVO_CALLS_REQUEST_WORK_H_
#define MIVO_CALLS_REQUEST_WORK_H_

#include <mivo/params.h>

#include <memory>
#include <string>
#include <string_view>

#include "loop/work_queue.h"
#include "transport/envelope.h"

namespace mivo {

class Connection;

// One incoming request. It does not move: the envelope points into the payload.
struct Request {
  // `read` is the envelope of `bytes`; both are copied.
  Request(std::shared_ptr<Connection> from, std::string_view bytes, const Envelope& read);
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;

  const std::shared_ptr<Connection> connection;
  const std::string payload;
  const Envelope envelope;
  const std::string name;
};

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
  RequestWork(RequestServer& server, std::shared_ptr<Connection> from, std::string_view bytes, const Envelope& read)
      : server_(server), request_(std::move(from), bytes, read) {}

  void Run() override;
  // A reply to a peer that has gone is dropped by its connection.
  void Finish() override;

 private:
  RequestServer& server_;
  const Request request_;
  MIVOParams reply_;
};

}  // namespace mivo

#endif  // MIVO_CALLS_REQUEST_WORK_H_
