// Calls from a server to its clients.
#ifndef MIVO_SERVER_CLIENT_CALLS_H_
#define MIVO_SERVER_CLIENT_CALLS_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/one_shot.h"
#include "calls/reply_table.h"
#include "loop/event_loop.h"
#include "loop/hand_over.h"
#include "loop/timer.h"
#include "server/client_table.h"
#include "transport/envelope.h"
#include "transport/frame.h"

class MIVOParams;

namespace mivo {

// The callers of all servers of the process wait in one list, and the timer of each server looks after all of them. As
// on the client, a caller lists itself before it pushes its request: once the queue is shut, whoever is listed gets
// woken, and nobody comes after.
class ClientCalls {
 public:
  // `timeout_step_ms` may change at any time.
  ClientCalls(const void* server, EventLoop& loop, ClientTable& clients, ReplyTable& replies,
              const std::atomic<int>& timeout_step_ms);

  // Loop thread. Returns libuv's result.
  int Open();

  // Any thread. Sends a request and waits for its reply; nothing if none came or there is no such client. On the loop
  // thread it is sent only.
  std::optional<std::string> Call(int client_id, std::string_view name, const MIVOParams* params, int key,
                                  int timeout_ms);

  // Any thread. Returns once the request is on its way, or cannot be sent; on a loop thread at once.
  void Post(int client_id, std::string_view name, const MIVOParams* params, int key);

  // Loop thread. A client has answered.
  void DeliverReply(int client_id, const Envelope& envelope, std::string_view payload);

  // Loop thread. Sends what is queued, then nothing more; wakes every caller of this server.
  void Close();

 private:
  struct Outgoing {
    int client_id;
    Frame frame;
    std::uintptr_t token;  // of the caller that waits for the reply; 0 for a post
    OneShot* written;      // null if nobody waits for that
  };

  void SendQueued(std::vector<Outgoing> queued);
  // Null if there is no such client.
  std::shared_ptr<Connection> SendNow(int client_id, Frame frame);
  void StartTimer();
  void Sweep();

  const void* const server_;
  EventLoop& loop_;
  ClientTable& clients_;
  ReplyTable& replies_;
  const std::atomic<int>& timeout_step_ms_;
  HandOver<Outgoing> outgoing_;
  Timer sweep_timer_;
  int timer_step_ms_ = 0;
};

}  // namespace mivo

#endif  // MIVO_SERVER_CLIENT_CALLS_H_
