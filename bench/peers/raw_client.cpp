#include <cstring>

#include "harness/connection.h"
#include "harness/program.h"
#include "harness/sockets.h"
#include "peers/raw_stream.h"

namespace bench {
namespace {

class RawConnection : public Connection {
 public:
  explicit RawConnection(const Options& options) : stream_(options, Connect(options)) {}

  void Call() override {
    Exchange(RawKind::kEcho, small_);
    Require(stream_.body() == small_, "a small call came back different");
  }
  void Echo(const std::string& bytes) override {
    Exchange(RawKind::kEcho, bytes);
    Require(stream_.body().size() == bytes.size(), "an echo came back in another size");
  }
  bool EchoedIs(const std::string& bytes) override { return stream_.body() == bytes; }
  void Slow(unsigned microseconds) override { Exchange(RawKind::kSlow, Bytes(microseconds)); }
  void Post() override { Require(stream_.Write(RawKind::kPost, small_), "a post was not sent"); }
  std::uint64_t Posted() override {
    Exchange(RawKind::kPosted, {});
    std::uint64_t count = 0;
    Require(stream_.body().size() == sizeof count, "no count");
    std::memcpy(&count, stream_.body().data(), sizeof count);
    return count;
  }
  void BackCalls(unsigned milliseconds) override {
    Require(stream_.Write(RawKind::kBackCalls, Bytes(milliseconds)), "no connection");
    while (true) {
      Require(stream_.Read(), "no connection");
      if (stream_.kind() == RawKind::kBackCalls) return;
      Require(stream_.Write(stream_.kind(), stream_.body()), "no connection");
    }
  }
  void CallMeBack() override {
    Require(stream_.Write(RawKind::kCallMeBack, {}), "no connection");
    Require(stream_.Read() && stream_.Write(stream_.kind(), stream_.body()), "no call from the server");
  }
  std::string BackTimes() override {
    Exchange(RawKind::kBackTimes, {});
    return stream_.body();
  }

 private:
  static std::string Bytes(unsigned number) { return {reinterpret_cast<const char*>(&number), sizeof number}; }
  void Exchange(RawKind kind, const std::string& body) {
    Require(stream_.Write(kind, body) && stream_.Read(), "the connection has ended");
  }

  RawStream stream_;
  const std::string small_ = std::string(kSmallBody, 's');
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::ClientMain(argc, argv, [](const bench::Options& options) {
    bench::Peer peer;
    peer.connect = [options] { return std::make_unique<bench::RawConnection>(options); };
    return peer;
  });
}
