// One event loop: a handler that sleeps holds up everybody.
#include <capnp/ez-rpc.h>

#include <cstdint>

#include "echo.capnp.h"
#include "harness/clock.h"
#include "harness/program.h"
#include "peers/back_times.h"
#include "peers/capnp_small.h"

namespace bench {
namespace {

using capnproto::Caller;

class EchoServer final : public capnproto::Echo::Server {
 protected:
  kj::Promise<void> call(CallContext context) override {
    CopySmall(context.getParams().getSmall(), context.getResults().initSmall());
    return kj::READY_NOW;
  }
  kj::Promise<void> echo(EchoContext context) override {
    context.getResults().setBytes(context.getParams().getBytes());
    return kj::READY_NOW;
  }
  kj::Promise<void> slow(SlowContext context) override {
    Sleep(context.getParams().getMicroseconds() * 1e-6);
    return kj::READY_NOW;
  }
  kj::Promise<void> post(PostContext) override {
    ++posts_;
    return kj::READY_NOW;
  }
  kj::Promise<void> posted(PostedContext context) override {
    context.getResults().setCount(posts_);
    return kj::READY_NOW;
  }
  kj::Promise<void> backCalls(BackCallsContext context) override {
    const auto parameters = context.getParams();
    return CallUntil(parameters.getClient(), NowNs() + parameters.getMilliseconds() * std::uint64_t{1'000'000});
  }
  kj::Promise<void> callMeBack(CallMeBackContext context) override { return CallBack(context.getParams().getClient()); }
  kj::Promise<void> backTimes(BackTimesContext context) override {
    const std::string times = times_.Take();
    context.getResults().setTimes({reinterpret_cast<const kj::byte*>(times.data()), times.size()});
    return kj::READY_NOW;
  }

 private:
  kj::Promise<void> CallBack(Caller::Client client) {
    const std::uint64_t begin = NowNs();
    auto request = client.callRequest();
    FillSmall(request.initSmall());
    return request.send().then([this, begin](capnp::Response<Caller::CallResults>&& reply) {
      times_.Add(NowNs() - begin);
      Require(IsSmall(reply.getSmall()), "a call to the client came back different");
    });
  }
  kj::Promise<void> CallUntil(Caller::Client client, std::uint64_t end) {
    return CallBack(client).then([this, client, end]() mutable -> kj::Promise<void> {
      if (NowNs() > end) return kj::READY_NOW;
      return CallUntil(kj::mv(client), end);
    });
  }

  std::uint64_t posts_ = 0;
  BackTimes times_;
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  using namespace bench;
  return ServerMain(argc, argv, [](const Options& options, const std::function<void()>& listening) {
    capnp::EzRpcServer server(kj::heap<EchoServer>(), options.address, 0, CapnpLimits());
    kj::WaitScope& scope = server.getWaitScope();
    server.getPort().wait(scope);
    listening();
    kj::NEVER_DONE.wait(scope);
  });
}
