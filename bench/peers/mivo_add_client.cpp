// The addition of two numbers, called through the plain interface (flavour "plain") or the typed layer ("typed"): what
// the one costs beside the other.
#include <mivo/mivo.h>
#include <mivo/rpc.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "harness/connection.h"
#include "harness/program.h"
#include "peers/mivo_echo.h"

namespace bench {
namespace {

constexpr int kTimeoutMs = 30'000;
constexpr int kFirst = 2;
constexpr int kSecond = 40;

class PlainAddition : public Connection {
 public:
  explicit PlainAddition(const Options& options) : client_(CreateClient()) {
    client_->log(nullptr, 0);
    Require(client_->InitMIVOClient(MivoName(options).c_str(), true), "cannot connect");
  }
  ~PlainAddition() override { DestroyClient(client_); }

  void Call() override {
    MIVOParams request;
    request.AddInt(kFirst);
    request.AddInt(kSecond);
    const MIVOParams* const reply = client_->SendMsgFast("add", &request, 0, kTimeoutMs);
    const MIVOValue* const sum = reply->GetValue(0);
    Require(sum != nullptr && sum->IsInt() && sum->GetInt() == kFirst + kSecond, "a wrong sum");
  }
  void Echo(const std::string&) override { Require(false, "not offered"); }
  bool EchoedIs(const std::string&) override { return false; }

 private:
  IClient* const client_;
};

class TypedAddition : public Connection {
 public:
  explicit TypedAddition(const Options& options)
      : client_("unix:" + MivoName(options), std::chrono::milliseconds(kTimeoutMs)) {}

  void Call() override { Require(client_.call<int>("add", kFirst, kSecond) == kFirst + kSecond, "a wrong sum"); }
  void Echo(const std::string&) override { Require(false, "not offered"); }
  bool EchoedIs(const std::string&) override { return false; }

  void CallMany(int count) override {
    std::mutex mutex;
    std::condition_variable changed;
    int left = count;
    bool are_right = true;
    for (int i = 0; i < count; ++i) {
      client_.then<int>(
          [&, i](const mivo::Result<int>& sum) {
            const std::lock_guard<std::mutex> lock(mutex);
            are_right = are_right && sum && *sum == kFirst + i;
            if (--left == 0) changed.notify_all();
          },
          "add", kFirst, i);
    }
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [&] { return left == 0; });
    Require(are_right, "a wrong sum");
  }

 private:
  mivo::Client client_;
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::ClientMain(argc, argv, [](const bench::Options& options) {
    bench::Peer peer;
    if (options.flavour == "typed") {
      peer.connect = [options] { return std::make_unique<bench::TypedAddition>(options); };
    } else {
      peer.connect = [options] { return std::make_unique<bench::PlainAddition>(options); };
    }
    peer.connect_shared = peer.connect;
    peer.slow_to_close = true;
    return peer;
  });
}
