// A rep socket with four workers, each with a context of its own, and a pull socket for what nobody waits for.
#include <nng/nng.h>
#include <nng/protocol/pipeline0/pull.h>
#include <nng/protocol/reqrep0/rep.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

#include "harness/clock.h"
#include "harness/connection.h"
#include "harness/program.h"
#include "peers/message_kind.h"

namespace bench {
namespace {

constexpr int kWorkers = 4;
std::atomic<std::uint64_t> posts{0};

void Answer(nng_msg* message) {
  auto* const data = static_cast<char*>(nng_msg_body(message));
  const std::size_t size = nng_msg_len(message);
  if (size != kNumberMessageSize) return;
  if (data[0] == kSlowMessage) Sleep(static_cast<double>(NumberIn(data, size)) * 1e-6);
  if (data[0] == kPostedMessage) PutNumber(data, kPostedMessage, posts);
}

[[noreturn]] void Work(nng_socket socket) {
  nng_ctx context{};
  nng_aio* operation = nullptr;
  Require(nng_ctx_open(&context, socket) == 0 && nng_aio_alloc(&operation, nullptr, nullptr) == 0, "no context");
  while (true) {
    nng_ctx_recv(context, operation);
    nng_aio_wait(operation);
    if (nng_aio_result(operation) != 0) continue;
    nng_msg* const message = nng_aio_get_msg(operation);
    Answer(message);
    nng_aio_set_msg(operation, message);
    nng_ctx_send(context, operation);
    nng_aio_wait(operation);
    if (nng_aio_result(operation) != 0) nng_msg_free(message);
  }
}

[[noreturn]] void CountPosts(nng_socket socket) {
  while (true) {
    nng_msg* message = nullptr;
    if (nng_recvmsg(socket, &message, 0) != 0) continue;
    ++posts;
    nng_msg_free(message);
  }
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  using namespace bench;
  return ServerMain(argc, argv, [](const Options& options, const std::function<void()>& listening) {
    nng_socket calls{};
    nng_socket pulled{};
    Require(nng_rep0_open(&calls) == 0 && nng_pull0_open(&pulled) == 0, "no sockets");
    nng_socket_set_size(calls, NNG_OPT_RECVMAXSZ, 0);
    const std::string address = "ipc://" + options.Path();
    Require(nng_listen(calls, address.c_str(), nullptr, 0) == 0, "cannot listen");
    Require(nng_listen(pulled, (address + ".posts").c_str(), nullptr, 0) == 0, "cannot listen for posts");
    for (int i = 0; i < kWorkers; ++i)
      std::thread(Work, calls).detach();
    std::thread(CountPosts, pulled).detach();
    listening();
  });
}
