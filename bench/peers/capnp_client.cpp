#include <capnp/ez-rpc.h>

#include <cstring>
#include <functional>
#include <future>
#include <string>
#include <thread>

#include "echo.capnp.h"
#include "harness/connection.h"
#include "harness/program.h"
#include "peers/capnp_small.h"

namespace bench {
namespace {

using capnproto::Caller;

kj::ArrayPtr<const kj::byte> BytesOf(const std::string& text) {
  return {reinterpret_cast<const kj::byte*>(text.data()), text.size()};
}

// What the server's own calls reach.
class Answer final : public Caller::Server {
 protected:
  kj::Promise<void> call(CallContext context) override {
    CopySmall(context.getParams().getSmall(), context.getResults().initSmall());
    return kj::READY_NOW;
  }
};

// One connection, on the thread whose loop it uses. Each operation begins a call and checks what it brings.
class Link final : private kj::TaskSet::ErrorHandler {
 public:
  using Begun = kj::Promise<void>;

  explicit Link(const Options& options)
      : client_(options.address, 0, CapnpLimits()),
        echo_(client_.getMain<capnproto::Echo>()),
        own_(kj::heap<Answer>()),
        posts_(*this) {}
  kj::WaitScope& scope() { return client_.getWaitScope(); }

  Begun Call() {
    auto request = echo_.callRequest();
    FillSmall(request.initSmall());
    return request.send().then([](capnp::Response<Caller::CallResults>&& reply) {
      Require(IsSmall(reply.getSmall()), "a small call came back different");
    });
  }
  Begun Echo(const std::string& bytes) {
    auto request = echo_.echoRequest();
    request.setBytes(BytesOf(bytes));
    const std::size_t size = bytes.size();
    return request.send().then([this, size](Echoed&& reply) {
      Require(reply.getBytes().size() == size, "an echo came back in another size");
      echoed_ = kj::mv(reply);
    });
  }
  bool EchoedIs(const std::string& bytes) {
    KJ_IF_MAYBE (echoed, echoed_) return echoed->getBytes() == BytesOf(bytes);
    return false;
  }
  Begun Slow(unsigned microseconds) {
    auto request = echo_.slowRequest();
    request.setMicroseconds(microseconds);
    return request.send().ignoreResult();
  }
  // A call whose answer nobody looks at; but after some of them one waits, so that neither side drowns.
  Begun Post() {
    auto request = echo_.postRequest();
    FillSmall(request.initSmall());
    auto sent = request.send().ignoreResult();
    if (++posted_ % kPostsTogether == 0) return sent;
    posts_.add(kj::mv(sent));
    return kj::READY_NOW;
  }
  Begun Posted(std::uint64_t& count) {
    return echo_.postedRequest().send().then(
        [&count](capnp::Response<capnproto::Echo::PostedResults>&& reply) { count = reply.getCount(); });
  }
  Begun BackCalls(unsigned milliseconds) {
    auto request = echo_.backCallsRequest();
    request.setClient(own_);
    request.setMilliseconds(milliseconds);
    return request.send().ignoreResult();
  }
  Begun CallMeBack() {
    auto request = echo_.callMeBackRequest();
    request.setClient(own_);
    return request.send().ignoreResult();
  }
  Begun BackTimes(std::string& times) {
    return echo_.backTimesRequest().send().then([&times](capnp::Response<capnproto::Echo::BackTimesResults>&& reply) {
      const auto bytes = reply.getTimes().asChars();
      times.assign(bytes.begin(), bytes.size());
    });
  }

 private:
  using Echoed = capnp::Response<capnproto::Echo::EchoResults>;
  static constexpr unsigned kPostsTogether = 64;
  // The post's place in the server's count is missing, which the measure will notice.
  void taskFailed(kj::Exception&&) override {}

  capnp::EzRpcClient client_;
  capnproto::Echo::Client echo_;
  Caller::Client own_;
  kj::TaskSet posts_;
  unsigned posted_ = 0;
  kj::Maybe<Echoed> echoed_;
};

class CapnpConnection : public Connection {
 public:
  void Call() override {
    Run([](Link& link) { return link.Call(); });
  }
  void Echo(const std::string& bytes) override {
    Run([&](Link& link) { return link.Echo(bytes); });
  }
  bool EchoedIs(const std::string& bytes) override {
    bool same = false;
    Run([&](Link& link) -> Link::Begun {
      same = link.EchoedIs(bytes);
      return kj::READY_NOW;
    });
    return same;
  }
  void Slow(unsigned microseconds) override {
    Run([&](Link& link) { return link.Slow(microseconds); });
  }
  void Post() override {
    Run([](Link& link) { return link.Post(); });
  }
  std::uint64_t Posted() override {
    std::uint64_t count = 0;
    Run([&](Link& link) { return link.Posted(count); });
    return count;
  }
  void BackCalls(unsigned milliseconds) override {
    Run([&](Link& link) { return link.BackCalls(milliseconds); });
  }
  void CallMeBack() override {
    Run([](Link& link) { return link.CallMeBack(); });
  }
  std::string BackTimes() override {
    std::string times;
    Run([&](Link& link) { return link.BackTimes(times); });
    return times;
  }

 protected:
  using Operation = std::function<Link::Begun(Link&)>;

 private:
  // Begins the operation where the loop is, and waits for its end.
  virtual void Run(const Operation& operation) = 0;
};

// For the thread that made it.
class OwnLoop final : public CapnpConnection {
 public:
  explicit OwnLoop(const Options& options) : link_(options) {}
  // Its members may throw when they end.
  ~OwnLoop() noexcept override {}

 private:
  void Run(const Operation& operation) override { operation(link_).wait(link_.scope()); }

  Link link_;
};

// For many threads: the loop has one of its own, and their calls are handed to it.
class SharedLoop final : public CapnpConnection {
 public:
  explicit SharedLoop(const Options& options) : thread_([this, options] { Loop(options); }) {
    started_.get_future().wait();
  }
  ~SharedLoop() noexcept override {
    executor_->executeSync([this] { stop_->fulfill(); });
    thread_.join();
  }

 private:
  void Run(const Operation& operation) override {
    executor_->executeSync([&] { return operation(*link_); });
  }
  void Loop(const Options& options) {
    Link link(options);
    link_ = &link;
    executor_ = kj::getCurrentThreadExecutor().addRef();
    auto stopped = kj::newPromiseAndFulfiller<void>();
    stop_ = kj::mv(stopped.fulfiller);
    started_.set_value();
    stopped.promise.wait(link.scope());
  }

  Link* link_ = nullptr;
  kj::Own<const kj::Executor> executor_;
  kj::Own<kj::PromiseFulfiller<void>> stop_;
  std::promise<void> started_;
  std::thread thread_;
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::ClientMain(argc, argv, [](const bench::Options& options) {
    bench::Peer peer;
    peer.connect = [options] { return std::make_unique<bench::OwnLoop>(options); };
    peer.connect_shared = [options] { return std::make_unique<bench::SharedLoop>(options); };
    return peer;
  });
}
