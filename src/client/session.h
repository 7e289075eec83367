// A client's life with one connection: its loop thread, its stream, its calls, from connecting to the end.
#ifndef MIVO_CLIENT_SESSION_H_
#define MIVO_CLIENT_SESSION_H_

#include <mivo/calls.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/one_shot.h"
#include "calls/diagnostics.h"
#include "calls/handler_table.h"
#include "calls/post_answers.h"
#include "calls/reply_table.h"
#include "calls/request_job.h"
#include "calls/waiters.h"
#include "client/connector.h"
#include "largedata/recv_large_data_client.h"
#include "loop/event_loop.h"
#include "loop/loop_thread.h"
#include "loop/timer.h"
#include "pool/job.h"
#include "transport/connection.h"
#include "transport/endpoint.h"

namespace mivo {

// What outlives a session and belongs to its client.
struct ClientParts {
  const void* client;
  Diagnostics& print;
  HandlerTable& handlers;
  ReplyTable& replies;
  ReplyTable& large_replies;
  RecvLargeDataClient& large_results;
  RequestServer& requests;
  JobGroup& async_calls;
};

// Everything that must not survive a connection lives here and dies with it: a new connection gets a new session.
//
// Calls go through the connection from their own threads, and nothing of them through the loop thread. It connects,
// sweeps, runs the notices, and ends what there is:
//   the connection ends   the notices run; then isok is false; then every waiting call is woken. The loop goes on until
//                         it is closed.
//   Close                 what waits to be written is written, while the peer reads; isok is false; calls are woken;
//                         requests that no pool thread has begun are dropped; handlers are out of the table. Handlers
//                         that run still finish; their replies are dropped.
//   the loop's end        nothing runs any more: the handlers are deleted, and the thread ends.
// A call lists itself as waiting before it sends. So what is sent before the connection is closed belongs to a waiter
// that is woken afterwards, and what is refused tells its caller.
class Session : private Connection::Owner {
 public:
  // The connection is to stand by `connect_deadline_ms` by NowMs; 0: when the kernel gives up.
  Session(const ClientParts& parts, Endpoint endpoint, std::int64_t connect_deadline_ms);
  ~Session() override;

  // Starts the thread and blocks until the connection stands: 0; or cannot be had: the negative errno, and the session
  // is over.
  int Connect();

  // Any thread. True from the connect until the connection ends or is closed.
  bool is_connected() const;

  // Any thread. True from the moment the end is certain: the connection was seen to end, or a close was asked for. It
  // may still be connected, while notices run.
  bool is_ending() const { return state_ > State::kConnected || closing_ != Closing::kNo; }

  // Any thread. Whether this is the session's own loop thread.
  bool InThread() const { return loop_.InThread(); }

  // Any thread. Sends a request and waits for its reply; nothing if none came. On the loop thread it is sent only. What
  // earlier calls of the application under the key have returned is dropped when `params` has been read, for it may be
  // among that.
  std::optional<std::string> Call(Waiter::Of of, std::string_view name, const MIVOParams* params, int key,
                                  int timeout_ms);

  // Any thread. The same for a call under nobody's key. Not on the loop thread: then nothing is sent.
  CallOutcome CallApart(std::string_view name, const MIVOParams* params, int timeout_ms, std::string* reply);
  // Any thread. The same, without waiting: `completion` is told.
  void CallAsync(std::string_view name, const MIVOParams* params, int timeout_ms,
                 std::unique_ptr<CallCompletion> completion);

  // Any thread. The request is on its way, or in line, when it returns; or it cannot be sent.
  void Post(std::string_view name, const MIVOParams* params, int key);

  // Any thread. Runs `send`, which sends a large request, and waits for the result under `key` that DeliverLargeResult
  // brings; nothing if none came. On the loop thread it does not wait.
  std::optional<std::string> CallLarge(int key, int timeout_ms, const std::function<void()>& send);

  // Any thread. False if nobody waits under `key`: then `result` is as it was.
  bool DeliverLargeResult(int key, std::string* result) { return large_waiters_.WakeByKey(key, result); }

  // In the order of their strength.
  enum class Closing { kNo, kKeepHandlers, kReleaseHandlers };

  // Any thread. Begins the end; does not wait. May be repeated: then handlers are released if any call said so.
  void Close(Closing how);

  // Waits until the thread has ended. Not on the loop thread, nor in a handler of this client.
  void Join() { thread_.Join(); }

 private:
  enum class State {
    kConnecting,
    kConnected,
    kEnding,  // the end was seen, and the notices of it have not all run yet
    kEnded,   // not connected any more; the loop still runs, until it is closed
    kClosed,
  };

  // Loop thread, all of these.
  void RunThread();
  int Start();
  void SayThatItRuns(const char* local_text, const char* tcp_text);
  void Sweep();
  void EndConnection();
  void CloseClient();
  void WakeCalls();
  void RunNotice(const char* name);

  // The thread that reads.
  void OnFirstRead(Connection&) override {}
  void OnPayload(Connection& connection, std::string_view payload, Jobs& jobs) override;
  void OnEnd(Connection& connection, int status) override;
  void DeliverReply(const Envelope& envelope, std::string_view payload);
  void TakeSlice(const Envelope& envelope);

  // Any thread.
  void OnFrameDropped(Connection& connection) override;

  const ClientParts parts_;
  const Endpoint endpoint_;
  const std::int64_t connect_deadline_ms_;
  LoopThread thread_{"mivo-client"};
  OneShot started_;
  int start_status_ = 0;  // written before started_ is set

  EventLoop loop_;
  Timer sweep_timer_;
  Connector connector_;
  JobGroup jobs_;
  const std::shared_ptr<Connection> connection_;
  Waiters waiters_{Waiters::ZeroTimeout::kWaitsForEver};
  Waiters large_waiters_{Waiters::ZeroTimeout::kWaitsForEver};
  PostAnswers post_answers_;

  // Written by the loop thread, and by the thread that reads when it finds the end; read by any. Set before started_
  // is; left before waiting calls are woken.
  std::atomic<State> state_{State::kConnecting};
  // Written by whoever closes, before it tells the loop thread.
  std::atomic<Closing> closing_{Closing::kNo};

  // Loop thread only.
  int notices_running_ = 0;
  ClosedHandlers closed_handlers_;
};

}  // namespace mivo

#endif  // MIVO_CLIENT_SESSION_H_
