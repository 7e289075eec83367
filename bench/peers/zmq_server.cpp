// The flavours "req", where one REP socket answers all, and "dealer", where a ROUTER hands to four workers.
#include <zmq.h>

#include <atomic>
#include <cstdint>
#include <thread>

#include "harness/clock.h"
#include "harness/connection.h"
#include "harness/program.h"
#include "peers/message_kind.h"

namespace bench {
namespace {

constexpr int kWorkers = 4;
constexpr const char* kInside = "inproc://workers";
std::atomic<std::uint64_t> posts{0};

// Makes a request its reply. False where there is none to send.
bool Answer(zmq_msg_t& message) {
  auto* const data = static_cast<char*>(zmq_msg_data(&message));
  const std::size_t size = zmq_msg_size(&message);
  if (size == 0) return true;
  switch (data[0]) {
    case kPostMessage:
      ++posts;
      return false;
    case kSlowMessage:
      Sleep(static_cast<double>(NumberIn(data, size)) * 1e-6);
      return true;
    case kPostedMessage:
      if (size == kNumberMessageSize) PutNumber(data, kPostedMessage, posts);
      return true;
    default:
      return true;
  }
}

[[noreturn]] void AnswerAll(void* socket) {
  zmq_msg_t message;
  zmq_msg_init(&message);
  while (true) {
    if (zmq_msg_recv(&message, socket, 0) < 0 || !Answer(message)) continue;
    zmq_msg_send(&message, socket, 0);
  }
}

// As above, behind a frame that says whose request it is.
[[noreturn]] void Work(void* context) {
  void* const socket = zmq_socket(context, ZMQ_DEALER);
  Require(zmq_connect(socket, kInside) == 0, "a worker cannot connect");
  zmq_msg_t client;
  zmq_msg_t message;
  zmq_msg_init(&client);
  zmq_msg_init(&message);
  while (true) {
    if (zmq_msg_recv(&client, socket, 0) < 0 || zmq_msg_recv(&message, socket, 0) < 0 || !Answer(message)) continue;
    zmq_msg_send(&client, socket, ZMQ_SNDMORE);
    zmq_msg_send(&message, socket, 0);
  }
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  using namespace bench;
  return ServerMain(argc, argv, [](const Options& options, const std::function<void()>& listening) {
    void* const context = zmq_ctx_new();
    zmq_ctx_set(context, ZMQ_MAX_SOCKETS, zmq_ctx_get(context, ZMQ_SOCKET_LIMIT));
    const bool dealer = options.flavour == "dealer";
    void* const socket = zmq_socket(context, dealer ? ZMQ_ROUTER : ZMQ_REP);
    const int backlog = 1024;
    zmq_setsockopt(socket, ZMQ_BACKLOG, &backlog, sizeof backlog);
    Require(zmq_bind(socket, ("ipc://" + options.Path()).c_str()) == 0, "cannot listen");
    if (!dealer) {
      listening();
      AnswerAll(socket);
    }
    void* const inside = zmq_socket(context, ZMQ_DEALER);
    Require(zmq_bind(inside, kInside) == 0, "cannot bind for the workers");
    for (int i = 0; i < kWorkers; ++i)
      std::thread(Work, context).detach();
    listening();
    zmq_proxy(socket, inside, nullptr);
  });
}
