// A request on its way: read by whoever reads, served on the pool, answered from there.
#ifndef MIVO_CALLS_REQUEST_JOB_H_
#define MIVO_CALLS_REQUEST_JOB_H_

#include <mivo/calls.h>
#include <mivo/params.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "pool/job.h"
#include "transport/envelope.h"
#include "transport/frame_reassembler.h"

namespace mivo {

class Connection;

// One incoming request. It does not move: the envelope points into the payload.
struct Request {
  // `read` is the envelope of `bytes`; both are copied.
  Request(std::shared_ptr<Connection> from, std::string_view bytes, const Envelope& read);
  // The same of bytes that were taken from where `bytes` views or viewed them.
  Request(std::shared_ptr<Connection> from, OwnedPayload taken, std::string_view bytes, const Envelope& read);
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;

  const std::shared_ptr<Connection> connection;
  const OwnedPayload owned;
  const std::string_view payload;
  const Envelope envelope;
  const std::string name;
};

// Decodes the request's own arguments; what stands before a fault counts.
void ReadArguments(const Request& request, MIVOParams* arguments);

// Appends the end of a reply to that request.
using ReplyTail = void (*)(std::string& reply, const Envelope& request);

// What a side does with requests; lives longer than its jobs. Pool threads, several at a time.
class RequestServer {
 public:
  virtual ~RequestServer() = default;
  // Runs the handler and completes the reply.
  virtual void Serve(const Request& request, MIVOParams* reply) = 0;
  // What completes the reply to a request.
  virtual ReplyTail tail() const = 0;
};

// Sends a reply to where its request came from: to nobody if that has gone. One that is too long ends the program that
// has made it; but no peer may bring that about, with a name or token that fills its request and would have to go back:
// then it is dropped.
void SendReply(Connection& connection, const Envelope& request, std::string reply);

class RequestJob : public Job {
 public:
  RequestJob(JobGroup& group, RequestServer& server, std::shared_ptr<Connection> from, std::string_view bytes,
             const Envelope& read)
      : Job(group, KindOf(read)), server_(server), request_(std::move(from), bytes, read) {}
  RequestJob(JobGroup& group, RequestServer& server, std::shared_ptr<Connection> from, OwnedPayload taken,
             std::string_view bytes, const Envelope& read)
      : Job(group, KindOf(read)), server_(server), request_(std::move(from), std::move(taken), bytes, read) {}

  // Has it served: here and now if `now`, otherwise with `jobs`.
  static void Serve(std::unique_ptr<RequestJob> job, bool now, Jobs& jobs);

  // Without memory for the arguments or the reply, the connection that has sent the request ends.
  void Run() override;
  void Finish() override;

  // The job that runs on this thread; null outside of one.
  static RequestJob* Current();
  // In Run. What this job comes to is not sent; null if it was taken before.
  std::unique_ptr<LateReply> TakeReply();

 private:
  static std::size_t KindOf(const Envelope& request) {
    return std::hash<std::string_view>()(request.name.value_or(std::string_view()));
  }

  RequestServer& server_;
  const Request request_;
  MIVOParams reply_;
  bool is_taken_ = false;
};

}  // namespace mivo

#endif  // MIVO_CALLS_REQUEST_JOB_H_
