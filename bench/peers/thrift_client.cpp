// The flavours "buffered" and "framed".
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>

#include "EchoService.h"
#include "harness/connection.h"
#include "harness/program.h"
#include "peers/thrift_config.h"

namespace bench {
namespace {

using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::transport::TBufferedTransport;
using apache::thrift::transport::TFramedTransport;
using apache::thrift::transport::TSocket;
using apache::thrift::transport::TTransport;

class ThriftConnection : public Connection {
 public:
  explicit ThriftConnection(const Options& options) {
    const auto socket = std::make_shared<TSocket>(options.Path(), ThriftConfig());
    if (options.flavour == "framed") {
      transport_ = std::make_shared<TFramedTransport>(socket, ThriftConfig());
    } else {
      transport_ = std::make_shared<TBufferedTransport>(socket, ThriftConfig());
    }
    client_ = std::make_unique<thrift::EchoServiceClient>(std::make_shared<TBinaryProtocol>(transport_));
    small_.number = kSmallInt;
    small_.text = kSmallText;
    small_.blob = SmallBlob();
    transport_->open();
  }

  void Call() override {
    thrift::Small reply;
    client_->call(reply, small_);
    Require(reply == small_, "a small call came back different");
  }
  void Echo(const std::string& bytes) override {
    client_->echo(echoed_, bytes);
    Require(echoed_.size() == bytes.size(), "an echo came back in another size");
  }
  bool EchoedIs(const std::string& bytes) override { return echoed_ == bytes; }
  void Slow(unsigned microseconds) override { client_->slow(static_cast<int>(microseconds)); }
  void Post() override { client_->post(small_); }
  std::uint64_t Posted() override { return static_cast<std::uint64_t>(client_->posted()); }

 private:
  std::shared_ptr<TTransport> transport_;
  std::unique_ptr<thrift::EchoServiceClient> client_;
  thrift::Small small_;
  std::string echoed_;
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::ClientMain(argc, argv, [](const bench::Options& options) {
    bench::Peer peer;
    peer.connect = [options] { return std::make_unique<bench::ThriftConnection>(options); };
    const char* const one_way = "a connection has no calls from the server";
    peer.left_out = {{"back", one_way}, {"back_after_call", one_way}};
    return peer;
  });
}
