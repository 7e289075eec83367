// A client's life with one connection: its thread, its loop, its stream, from connecting to the end.
#ifndef MIVO_CLIENT_SESSION_H_
#define MIVO_CLIENT_SESSION_H_

#include <uv.h>

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/one_shot.h"
#include "calls/handler_table.h"
#include "calls/reply_table.h"
#include "calls/request_work.h"
#include "calls/unanswered_posts.h"
#include "calls/waiters.h"
#include "client/connector.h"
#include "loop/event_loop.h"
#include "loop/hand_over.h"
#include "loop/loop_thread.h"
#include "loop/timer.h"
#include "loop/wakeup.h"
#include "loop/work_queue.h"
#include "transport/connection.h"
#include "transport/endpoint.h"
#include "transport/print_object.h"

namespace mivo {

// What outlives a session and belongs to its client.
struct ClientParts {
  const void* client;
  PrintObject& print;
  HandlerTable& handlers;
  ReplyTable& replies;
  ReplyTable& large_replies;
  RequestServer& requests;
};

// Everything that must not survive a connection lives here and dies with it: a new connection gets a new session.
//
// Who ends what, in order:
//   the connection ends   the notices run; then isok is false; then the queue is shut, and every waiting call is woken.
//                         The loop goes on until it is closed.
//   Close                 on the loop thread: queue written and shut, calls woken, requests that wait for the pool
//                         dropped, handlers out of the table, handles closed. Handlers that run still finish; their
//                         replies are dropped.
//   the loop's end        nothing runs any more: the handlers are deleted, and the thread ends.
// A call lists itself as waiting before it pushes its request. So a push that is taken before the queue is shut belongs
// to a waiter that is woken afterwards, and a push that is refused tells its caller.
class Session : private Connection::Owner {
 public:
  Session(const ClientParts& parts, Endpoint endpoint);
  ~Session() override;

  // Starts the thread and blocks until the connection stands or cannot be had. After a failure the session is over.
  bool Connect();

  // Any thread. True from the connect until the connection ends or is closed.
  bool is_connected() const { return connected_; }

  // Any thread. True from the moment the end is certain: the connection was seen to end, or a close was asked for. It
  // may still be connected, while notices run.
  bool is_ending() const { return ending_; }

  // Any thread. Whether this is the session's own loop thread.
  bool InThread() const { return loop_.InThread(); }

  // Any thread. Sends a request and waits for its reply; nothing if none came. On the loop thread it is sent only. What
  // earlier calls under the key have returned is dropped when `params` has been read, for it may be among that.
  std::optional<std::string> Call(std::string_view name, const MIVOParams* params, int key, int timeout_ms);

  // Any thread. Returns once the request is on its way, or cannot be sent; on a loop thread at once.
  void Post(std::string_view name, const MIVOParams* params, int key);

  // Any thread. Runs `send`, which sends a large request, and waits for the result under `key` that DeliverLargeResult
  // brings; nothing if none came. On the loop thread it does not wait.
  std::optional<std::string> CallLarge(int key, int timeout_ms, const std::function<void()>& send);

  // Pool threads. False if nobody waits under `key`: then `result` is as it was.
  bool DeliverLargeResult(int key, std::string* result) { return large_waiters_.WakeByKey(key, result); }

  enum class Handlers { kRelease, kKeep };

  // Any thread. Begins the end; does not wait. May be repeated: then handlers are released if any call said so.
  void Close(Handlers handlers);

  // Waits until the thread has ended. Not on the loop thread, nor in a handler of this client.
  void Join() { thread_.Join(); }

 private:
  struct Outgoing {
    Frame frame;
    int key;
    bool is_post;
    OneShot* written;  // null if nobody waits for that
  };

  // Loop thread, all of these.
  void RunThread();
  bool OpenLoop();
  bool ConnectStream();
  bool StartServing();
  void CloseHandles();
  void SendQueued(std::vector<Outgoing> queued);
  void DoQueueWork(std::string_view payload);
  void DeliverReply(const Envelope& envelope, std::string_view payload);
  void RunNotice(const char* name);
  void ShutQueueAndWakeCalls();
  void AsyncClose();
  void CloseClient();

  void OnRead(Connection&) override {}
  void OnPayload(Connection&, std::string_view payload) override { DoQueueWork(payload); }
  void OnEnd(Connection& connection, int status) override;
  void OnFrameDropped(Connection&) override;

  const ClientParts parts_;
  const Endpoint endpoint_;
  LoopThread thread_;
  OneShot started_;

  EventLoop loop_;
  Wakeup close_request_;
  HandOver<Outgoing> outgoing_;
  Timer sweep_timer_;
  WorkQueue work_;
  const std::shared_ptr<Connection> connection_;
  Connector connector_;
  Waiters waiters_{Waiters::ZeroTimeout::kWaitsForEver};
  Waiters large_waiters_{Waiters::ZeroTimeout::kWaitsForEver};
  UnansweredPosts posts_;

  // Written by the loop thread; read by any thread. Set before started_ is, cleared before waiting calls are woken.
  std::atomic<bool> connected_{false};
  // Written by whoever closes, before the wake-up that makes the loop thread read them; the first by the loop thread
  // too, when the connection ends.
  std::atomic<bool> ending_{false};
  std::atomic<bool> release_handlers_{false};

  // Written by the loop thread before started_ is set: whether the session came about.
  bool is_up_ = false;

  // Loop thread only.
  int notices_running_ = 0;
  ClosedHandlers closed_handlers_;
};

}  // namespace mivo

#endif  // MIVO_CLIENT_SESSION_H_
