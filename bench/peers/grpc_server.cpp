#include <grpcpp/grpcpp.h>

#include <atomic>
#include <cstdint>

#include "echo.grpc.pb.h"
#include "harness/clock.h"
#include "harness/connection.h"
#include "harness/program.h"

namespace bench {
namespace {

using ::grpc::ServerContext;
using ::grpc::Status;

class Service : public grpc::Echo::Service {
 public:
  Status Call(ServerContext*, const grpc::Small* request, grpc::Small* reply) override {
    *reply = *request;
    return Status::OK;
  }
  Status EchoBytes(ServerContext*, const grpc::Bytes* request, grpc::Bytes* reply) override {
    *reply = *request;
    return Status::OK;
  }
  Status Slow(ServerContext*, const grpc::Number* request, grpc::Nothing*) override {
    Sleep(static_cast<double>(request->number()) * 1e-6);
    return Status::OK;
  }
  Status Posts(ServerContext*, ::grpc::ServerReader<grpc::Small>* reader, grpc::Nothing*) override {
    grpc::Small small;
    while (reader->Read(&small))
      ++posts_;
    return Status::OK;
  }
  Status Posted(ServerContext*, const grpc::Nothing*, grpc::Number* reply) override {
    reply->set_number(posts_);
    return Status::OK;
  }

 private:
  std::atomic<std::uint64_t> posts_{0};
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  using namespace bench;
  return ServerMain(argc, argv, [](const Options& options, const std::function<void()>& listening) {
    Service service;
    ::grpc::ServerBuilder builder;
    builder.SetMaxReceiveMessageSize(-1);
    builder.SetMaxSendMessageSize(-1);
    builder.AddListeningPort(options.Tcp() ? options.Path() : options.address, ::grpc::InsecureServerCredentials());
    builder.RegisterService(&service);
    const auto server = builder.BuildAndStart();
    Require(server != nullptr, "cannot listen");
    listening();
    server->Wait();
  });
}
