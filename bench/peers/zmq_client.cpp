// The flavours "req" and "dealer".
#include <zmq.h>

#include <string>

#include "harness/connection.h"
#include "harness/program.h"
#include "peers/message_kind.h"

namespace bench {
namespace {

void* Context() {
  static void* const context = [] {
    void* const made = zmq_ctx_new();
    zmq_ctx_set(made, ZMQ_MAX_SOCKETS, zmq_ctx_get(made, ZMQ_SOCKET_LIMIT));
    return made;
  }();
  return context;
}

class ZmqConnection : public Connection {
 public:
  explicit ZmqConnection(const Options& options)
      : socket_(zmq_socket(Context(), options.flavour == "dealer" ? ZMQ_DEALER : ZMQ_REQ)) {
    Require(socket_ != nullptr, "no socket");
    const int no_linger = 0;
    zmq_setsockopt(socket_, ZMQ_LINGER, &no_linger, sizeof no_linger);
    Require(zmq_connect(socket_, ("ipc://" + options.Path()).c_str()) == 0, "cannot connect");
    zmq_msg_init(&reply_);
  }
  ~ZmqConnection() override {
    zmq_msg_close(&reply_);
    zmq_close(socket_);
  }

  void Call() override {
    Exchange(small_.data(), small_.size());
    Require(zmq_msg_size(&reply_) == small_.size() && std::memcmp(Reply(), small_.data(), small_.size()) == 0,
            "a small call came back different");
  }
  void Echo(const std::string& bytes) override {
    zmq_msg_t request;
    zmq_msg_init_size(&request, bytes.size() + 1);
    auto* const data = static_cast<char*>(zmq_msg_data(&request));
    data[0] = kEchoMessage;
    bytes.copy(data + 1, bytes.size());
    Require(zmq_msg_send(&request, socket_, 0) >= 0 && zmq_msg_recv(&reply_, socket_, 0) >= 0, "no echo");
    Require(zmq_msg_size(&reply_) == bytes.size() + 1, "an echo came back in another size");
  }
  bool EchoedIs(const std::string& bytes) override { return std::memcmp(Reply() + 1, bytes.data(), bytes.size()) == 0; }
  void Slow(unsigned microseconds) override { Number(kSlowMessage, microseconds); }
  void Post() override { Require(zmq_send(socket_, post_.data(), post_.size(), 0) >= 0, "a post was not sent"); }
  std::uint64_t Posted() override { return Number(kPostedMessage, 0); }

 private:
  const char* Reply() { return static_cast<const char*>(zmq_msg_data(&reply_)); }
  void Exchange(const char* message, std::size_t size) {
    Require(zmq_send(socket_, message, size, 0) >= 0 && zmq_msg_recv(&reply_, socket_, 0) >= 0, "no reply");
  }
  std::uint64_t Number(char kind, std::uint64_t number) {
    char message[kNumberMessageSize];
    PutNumber(message, kind, number);
    Exchange(message, sizeof message);
    return NumberIn(Reply(), zmq_msg_size(&reply_));
  }

  void* const socket_;
  zmq_msg_t reply_;
  const std::string small_ = kEchoMessage + std::string(kSmallBody, 's');
  const std::string post_ = kPostMessage + std::string(kSmallBody, 's');
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::ClientMain(argc, argv, [](const bench::Options& options) {
    bench::Peer peer;
    peer.connect = [options] { return std::make_unique<bench::ZmqConnection>(options); };
    const char* const one_way = "these sockets have no calls from the server";
    peer.left_out = {{"back", one_way}, {"back_after_call", one_way}};
    if (options.flavour == "req") peer.left_out["posts"] = "a REQ socket waits for each reply";
    return peer;
  });
}
