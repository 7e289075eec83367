// Calls from a server to its clients.
#ifndef MIVO_SERVER_CALLS_TO_CLIENTS_H_
#define MIVO_SERVER_CALLS_TO_CLIENTS_H_

#include <mivo/calls.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "calls/reply_table.h"
#include "calls/waiters.h"
#include "loop/event_loop.h"
#include "loop/timer.h"
#include "server/client_table.h"
#include "transport/envelope.h"
#include "transport/frame.h"

class MIVOParams;

namespace mivo {

class AsyncCall;

// As on the client, a caller lists itself before it sends: once the connections are closed, whoever is listed gets
// woken, and nobody comes after.
class CallsToClients {
 public:
  // `timeout_step_ms` may change at any time.
  CallsToClients(EventLoop& loop, ClientTable& clients, ReplyTable& replies, const std::atomic<int>& timeout_step_ms);

  // Any thread. Sends a request and waits for its reply; nothing if none came or there is no such client. On the loop
  // thread it is sent only.
  std::optional<std::string> Call(int client_id, std::string_view name, const MIVOParams* params, int key,
                                  int timeout_ms);

  // Any thread. The same for a call under nobody's key, without any reply stored before. Not on the loop thread: then
  // nothing is sent.
  CallOutcome CallApart(int client_id, std::string_view name, const MIVOParams* params, int timeout_ms,
                        std::string* reply);
  // Any thread. The same, without waiting.
  void CallAsync(int client_id, std::string_view name, const MIVOParams* params, std::unique_ptr<AsyncCall> call);

  // Any thread. The request is on its way, or in line, when it returns; or it cannot be sent.
  void Post(int client_id, std::string_view name, const MIVOParams* params, int key);

  // Any thread. Lists a waiter and sends its request, and does not wait. False, or an exception, if nobody will wake
  // it.
  bool Begin(Connection& client, Waiter& waiter, Frame request);

  // The thread that reads. A client has answered.
  void DeliverReply(int client_id, const Envelope& envelope, std::string_view payload);

  // Loop thread, when the connections are closed: wakes every caller.
  void Close();

 private:
  // Null if there is nobody to be reached under that id.
  std::shared_ptr<Connection> Find(int client_id);
  // The sweep's timer starts with the first call or post.
  void NeedTimer();
  void StartTimer();
  void Sweep();

  EventLoop& loop_;
  ClientTable& clients_;
  ReplyTable& replies_;
  const std::atomic<int>& timeout_step_ms_;
  Waiters waiters_{Waiters::ZeroTimeout::kEndsAtNextSweep};
  std::atomic<bool> timer_needed_{false};

  // Loop thread only.
  Timer sweep_timer_;
  int timer_step_ms_ = 0;
  bool is_closed_ = false;
};

}  // namespace mivo

#endif  // MIVO_SERVER_CALLS_TO_CLIENTS_H_
