// A thread for each connection, the fastest of the servers that Thrift brings along.
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/server/TThreadedServer.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TServerSocket.h>
#include <thrift/transport/TSocket.h>

#include <atomic>

#include "EchoService.h"
#include "harness/clock.h"
#include "harness/program.h"
#include "peers/thrift_config.h"

namespace bench {
namespace {

using apache::thrift::protocol::TBinaryProtocolFactory;
using apache::thrift::server::TServerEventHandler;
using apache::thrift::server::TThreadedServer;
using apache::thrift::transport::TBufferedTransport;
using apache::thrift::transport::TFramedTransport;
using apache::thrift::transport::TServerSocket;
using apache::thrift::transport::TSocket;
using apache::thrift::transport::TTransport;
using apache::thrift::transport::TTransportFactory;

class Handler : public thrift::EchoServiceIf {
 public:
  void call(thrift::Small& reply, const thrift::Small& small) override { reply = small; }
  void echo(std::string& reply, const std::string& bytes) override { reply = bytes; }
  void slow(const std::int32_t microseconds) override { Sleep(microseconds * 1e-6); }
  void post(const thrift::Small&) override { ++posts_; }
  std::int64_t posted() override { return posts_; }

 private:
  std::atomic<std::int64_t> posts_{0};
};

class Listener : public TServerSocket {
 public:
  using TServerSocket::TServerSocket;

 protected:
  std::shared_ptr<TSocket> createSocket(THRIFT_SOCKET socket) override {
    return std::make_shared<TSocket>(socket, nullptr, ThriftConfig());
  }
};

// Those that Thrift brings along make transports with the limits that are too low.
template <class Transport>
class Factory : public TTransportFactory {
 public:
  std::shared_ptr<TTransport> getTransport(std::shared_ptr<TTransport> inner) override {
    return std::make_shared<Transport>(inner, ThriftConfig());
  }
};

class Told : public TServerEventHandler {
 public:
  explicit Told(std::function<void()> listening) : listening_(std::move(listening)) {}
  void preServe() override { listening_(); }

 private:
  const std::function<void()> listening_;
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  using namespace bench;
  return ServerMain(argc, argv, [](const Options& options, const std::function<void()>& listening) {
    std::shared_ptr<TTransportFactory> transport = std::make_shared<Factory<TBufferedTransport>>();
    if (options.flavour == "framed") transport = std::make_shared<Factory<TFramedTransport>>();
    const auto listener = std::make_shared<Listener>(options.Path());
    listener->setAcceptBacklog(1024);
    TThreadedServer server(std::make_shared<thrift::EchoServiceProcessor>(std::make_shared<Handler>()), listener,
                           transport, std::make_shared<TBinaryProtocolFactory>());
    server.setServerEventHandler(std::make_shared<Told>(listening));
    server.serve();
  });
}
