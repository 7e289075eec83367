// One stretch of serving: from a successful start to the end of its loop.
#ifndef MIVO_SERVER_SERVING_H_
#define MIVO_SERVER_SERVING_H_

#include <atomic>
#include <memory>
#include <string_view>

#include "base/mutex.h"
#include "calls/diagnostics.h"
#include "calls/handler_table.h"
#include "calls/reply_table.h"
#include "largedata/recv_large_data_server.h"
#include "loop/event_loop.h"
#include "pool/job.h"
#include "server/calls_to_clients.h"
#include "server/client_table.h"
#include "server/dispatch.h"
#include "server/listener.h"
#include "transport/endpoint.h"

namespace mivo {

// What outlives a stretch of serving and belongs to its server.
struct ServerParts {
  const void* server;
  Diagnostics& print;
  HandlerTable& handlers;
  ReplyTable& replies;
  Dispatch& dispatch;
  RecvLargeDataServer& slices;
  RecvLargeDataServer& slice_headers;  // the same under a second name
  const std::atomic<int>& timeout_step_ms;
  JobGroup& async_calls;
};

// Requests are read, served and answered by the pool, and calls to clients go from their own threads. The loop accepts,
// sweeps, runs the notices, and ends what there is.
//
// Who runs the loop is the application's choice: a thread of the server's, one of its own, or none at all between the
// start and the end. So the loop's objects belong to whoever has taken hold of it: Start and Run take hold, and so does
// a close when nobody else has. Anybody else asks the holder.
//
//   Close             isok is false; connections written out and closed, callers woken, the rest of the handles closed;
//                     requests that no pool thread has begun dropped; handlers out of the table. Handlers that run
//                     still finish; their replies are dropped.
//   the loop's end    nothing runs any more: the handlers are deleted.
class Serving {
 public:
  explicit Serving(const ServerParts& parts);
  ~Serving();

  // The thread that will own the loop until it returns. 0, or a negative errno: what failed was printed, everything is
  // closed.
  int Start(const Endpoint& endpoint);

  // Any thread. Nobody can connect any more, as soon as the thread that serves gets to it.
  void StopListening() {
    loop_.Post([this] { listener_.Close(); });
  }

  // Serves on the calling thread until closed. While another thread serves: waits for its end.
  void Run();

  // Any thread. Closes here and now if this is the thread that serves, or nobody serves; otherwise asks and, with
  // `wait`, waits until that thread has left, and with it every handler.
  enum class Wait { kNo, kUntilEnded };
  void Close(Wait wait);

  // Any thread. Asks the thread that serves, or will serve, to close.
  void RequestClose() {
    loop_.Post([this] { CloseHere(); });
  }

  // Any thread. True from the start until the close.
  bool is_running() const { return running_; }
  bool InThread() const { return loop_.InThread(); }
  CallsToClients& calls() { return calls_; }
  int read_count() const { return clients_.read_count(); }
  int requests_under_way() { return jobs_.count(); }
  // The user of a client's process, or -1. Any thread.
  int UserOf(int client_id);

 private:
  class LargeRequestJob;

  // Whoever holds the loop may touch what belongs to it.
  bool TryTakeLoop();
  void TakeLoop();
  void ReleaseLoop();

  void CloseHere();
  void CloseHandles();
  void Notify(const char* name, int client_id);
  void PublishPort(const std::string& name);
  void ForgetClient(int client_id);

  // The thread that reads.
  void TakePayload(Connection& client, std::string_view payload, Jobs& jobs);
  void TakeSlice(RecvLargeDataServer& receiver, Connection& client, std::string_view payload, const Envelope& envelope,
                 Jobs& jobs);

  const ServerParts parts_;
  EventLoop loop_;
  JobGroup jobs_;
  Listener listener_;
  ClientTable clients_;
  CallsToClients calls_;

  // Loop thread only.
  bool closing_ = false;
  int notices_running_ = 0;
  ClosedHandlers closed_handlers_;

  // Written by the holder of the loop, read by any thread.
  std::atomic<bool> running_{false};

  Mutex mutex_;
  Condition loop_released_;
  bool loop_taken_ MIVO_GUARDED_BY(mutex_) = false;
};

}  // namespace mivo

#endif  // MIVO_SERVER_SERVING_H_
