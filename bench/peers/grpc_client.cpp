#include <grpcpp/grpcpp.h>

#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "echo.grpc.pb.h"
#include "harness/connection.h"
#include "harness/program.h"

namespace bench {
namespace {

void Check(const ::grpc::Status& status) {
  if (!status.ok()) throw Wrong(status.error_message());
}

// gRPC's own way to send without waiting for each: a stream. One for each thread that posts.
class PostStream {
 public:
  explicit PostStream(grpc::Echo::Stub& stub) : writer_(stub.Posts(&context_, &nothing_)) {}
  ~PostStream() {
    writer_->WritesDone();
    writer_->Finish();
  }
  void Write(const grpc::Small& small) { Require(writer_->Write(small), "a post was not sent"); }

 private:
  ::grpc::ClientContext context_;
  grpc::Nothing nothing_;
  std::unique_ptr<::grpc::ClientWriter<grpc::Small>> writer_;
};

class GrpcConnection : public Connection {
 public:
  explicit GrpcConnection(const Options& options) {
    ::grpc::ChannelArguments arguments;
    arguments.SetMaxReceiveMessageSize(-1);
    arguments.SetMaxSendMessageSize(-1);
    // Otherwise all channels of a process share one connection.
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    const std::string target = options.Tcp() ? options.Path() : options.address;
    stub_ = grpc::Echo::NewStub(::grpc::CreateCustomChannel(target, ::grpc::InsecureChannelCredentials(), arguments));
    small_.set_number(kSmallInt);
    small_.set_text(kSmallText);
    small_.set_blob(SmallBlob());
  }

  void Call() override {
    ::grpc::ClientContext context;
    grpc::Small reply;
    Check(stub_->Call(&context, small_, &reply));
    Require(reply.number() == kSmallInt && reply.text() == kSmallText && reply.blob() == SmallBlob(),
            "a small call came back different");
  }
  void Echo(const std::string& bytes) override {
    ::grpc::ClientContext context;
    grpc::Bytes request;
    request.set_bytes(bytes);
    Check(stub_->EchoBytes(&context, request, &echoed_));
    Require(echoed_.bytes().size() == bytes.size(), "an echo came back in another size");
  }
  bool EchoedIs(const std::string& bytes) override { return echoed_.bytes() == bytes; }
  void Slow(unsigned microseconds) override {
    ::grpc::ClientContext context;
    grpc::Number request;
    grpc::Nothing reply;
    request.set_number(microseconds);
    Check(stub_->Slow(&context, request, &reply));
  }
  void Post() override {
    PostStream* stream = nullptr;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      auto& mine = streams_[std::this_thread::get_id()];
      if (!mine) mine = std::make_unique<PostStream>(*stub_);
      stream = mine.get();
    }
    stream->Write(small_);
  }
  std::uint64_t Posted() override {
    ::grpc::ClientContext context;
    grpc::Number reply;
    Check(stub_->Posted(&context, {}, &reply));
    return reply.number();
  }

 private:
  std::unique_ptr<grpc::Echo::Stub> stub_;
  grpc::Small small_;
  grpc::Bytes echoed_;
  std::mutex mutex_;
  std::map<std::thread::id, std::unique_ptr<PostStream>> streams_;
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::ClientMain(argc, argv, [](const bench::Options& options) {
    bench::Peer peer;
    peer.connect = [options] { return std::make_unique<bench::GrpcConnection>(options); };
    peer.connect_shared = peer.connect;
    const char* const one_way = "a server cannot call its clients";
    peer.left_out = {{"back", one_way}, {"back_after_call", one_way}};
    return peer;
  });
}
