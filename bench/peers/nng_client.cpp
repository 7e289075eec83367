#include <nng/nng.h>
#include <nng/protocol/pipeline0/push.h>
#include <nng/protocol/reqrep0/req.h>

#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "harness/connection.h"
#include "harness/program.h"
#include "peers/message_kind.h"

namespace bench {
namespace {

void Check(int code, const char* what) {
  if (code != 0) throw Wrong(std::string(what) + ": " + nng_strerror(code));
}

// What one thread needs to make calls beside others over one socket.
class Caller {
 public:
  explicit Caller(nng_socket socket) {
    Check(nng_ctx_open(&context_, socket), "no context");
    Check(nng_aio_alloc(&operation_, nullptr, nullptr), "no operation");
  }
  ~Caller() {
    Free();
    nng_aio_free(operation_);
    nng_ctx_close(context_);
  }
  Caller(const Caller&) = delete;
  Caller& operator=(const Caller&) = delete;

  // Takes the request. The reply is kept until the next one.
  void Exchange(nng_msg* request) {
    Free();
    nng_aio_set_msg(operation_, request);
    nng_ctx_send(context_, operation_);
    nng_aio_wait(operation_);
    Check(nng_aio_result(operation_), "send");
    nng_ctx_recv(context_, operation_);
    nng_aio_wait(operation_);
    Check(nng_aio_result(operation_), "receive");
    reply_ = nng_aio_get_msg(operation_);
  }
  const char* reply() const { return static_cast<const char*>(nng_msg_body(reply_)); }
  std::size_t reply_size() const { return nng_msg_len(reply_); }

 private:
  void Free() {
    if (reply_ != nullptr) nng_msg_free(reply_);
    reply_ = nullptr;
  }
  nng_ctx context_{};
  nng_aio* operation_ = nullptr;
  nng_msg* reply_ = nullptr;
};

nng_msg* Message(std::size_t size) {
  nng_msg* message = nullptr;
  Check(nng_msg_alloc(&message, size), "no message");
  return message;
}

nng_msg* MessageOf(char kind, const std::string& body) {
  nng_msg* const message = Message(body.size() + 1);
  auto* const data = static_cast<char*>(nng_msg_body(message));
  data[0] = kind;
  body.copy(data + 1, body.size());
  return message;
}

class NngConnection : public Connection {
 public:
  explicit NngConnection(const Options& options) : address_("ipc://" + options.Path()) {
    Check(nng_req0_open(&socket_), "no socket");
    nng_socket_set_size(socket_, NNG_OPT_RECVMAXSZ, 0);
    // No second request while a slow one is under way.
    nng_socket_set_ms(socket_, NNG_OPT_REQ_RESENDTIME, NNG_DURATION_INFINITE);
    Check(nng_dial(socket_, address_.c_str(), nullptr, 0), "cannot connect");
  }
  ~NngConnection() override {
    callers_.clear();
    nng_close(socket_);
    if (posting_.id != 0) nng_close(posting_);
  }

  void Call() override {
    Caller& caller = Mine();
    caller.Exchange(MessageOf(kEchoMessage, small_));
    Require(
        caller.reply_size() == small_.size() + 1 && std::memcmp(caller.reply() + 1, small_.data(), small_.size()) == 0,
        "a small call came back different");
  }
  void Echo(const std::string& bytes) override {
    Caller& caller = Mine();
    caller.Exchange(MessageOf(kEchoMessage, bytes));
    Require(caller.reply_size() == bytes.size() + 1, "an echo came back in another size");
  }
  bool EchoedIs(const std::string& bytes) override {
    return std::memcmp(Mine().reply() + 1, bytes.data(), bytes.size()) == 0;
  }
  void Slow(unsigned microseconds) override { Number(kSlowMessage, microseconds); }
  void Post() override {
    // A req socket has none: another pair of sockets, as an application would use.
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (posting_.id == 0) {
        Check(nng_push0_open(&posting_), "no socket for posts");
        Check(nng_dial(posting_, (address_ + ".posts").c_str(), nullptr, 0), "cannot connect for posts");
      }
    }
    Check(nng_sendmsg(posting_, MessageOf(kPostMessage, small_), 0), "a post was not sent");
  }
  std::uint64_t Posted() override { return Number(kPostedMessage, 0); }

 private:
  Caller& Mine() {
    const std::lock_guard<std::mutex> lock(mutex_);
    auto& caller = callers_[std::this_thread::get_id()];
    if (!caller) caller = std::make_unique<Caller>(socket_);
    return *caller;
  }
  std::uint64_t Number(char kind, std::uint64_t number) {
    nng_msg* const message = Message(kNumberMessageSize);
    PutNumber(static_cast<char*>(nng_msg_body(message)), kind, number);
    Caller& caller = Mine();
    caller.Exchange(message);
    return NumberIn(caller.reply(), caller.reply_size());
  }

  const std::string address_;
  const std::string small_ = std::string(kSmallBody, 's');
  nng_socket socket_{};
  std::mutex mutex_;
  nng_socket posting_{};
  std::map<std::thread::id, std::unique_ptr<Caller>> callers_;
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::ClientMain(argc, argv, [](const bench::Options& options) {
    bench::Peer peer;
    peer.connect = [options] { return std::make_unique<bench::NngConnection>(options); };
    peer.connect_shared = peer.connect;
    const char* const one_way = "these sockets have no calls from the server";
    peer.left_out = {{"back", one_way}, {"back_after_call", one_way}};
    return peer;
  });
}
