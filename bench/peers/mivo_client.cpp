#include <mivo/mivo.h>

#include <condition_variable>
#include <cstring>
#include <mutex>

#include "harness/connection.h"
#include "harness/program.h"
#include "peers/mivo_echo.h"

namespace bench {
namespace {

constexpr int kTimeoutMs = 30'000;

// The small calls of the server, answered and counted.
class Answer : public IServerMethod {
 public:
  void OnCall(int, MIVOParams* request, MIVOParams* reply) override {
    EchoSmall(*request, *reply);
    const std::lock_guard<std::mutex> lock(mutex_);
    ++count_;
    changed_.notify_all();
  }
  std::uint64_t Count() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return count_;
  }
  void WaitForMoreThan(std::uint64_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return count_ > count; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::uint64_t count_ = 0;
};

class MivoConnection : public Connection {
 public:
  explicit MivoConnection(const Options& options) : client_(CreateClient()) {
    client_->log(nullptr, 0);
    client_->SetCustomReleaseEvent();
    client_->method("small", &answer_);
    const bool connected = options.Tcp() ? client_->InitMIVOClientTcp4(options.Host().c_str(),
                                                                       std::to_string(options.Port()).c_str(), true)
                                         : client_->InitMIVOClient(MivoName(options).c_str(), true);
    Require(connected, "cannot connect");
  }
  ~MivoConnection() override { DestroyClient(client_); }

  void Call() override {
    MIVOParams request;
    AddSmall(request);
    const MIVOParams* const reply = client_->SendMsgFast("small", &request, 0, kTimeoutMs);
    Require(IsSmall(*reply), "a small call came back different");
  }
  void Echo(const std::string& bytes) override {
    MIVOParams request;
    request.AddStream(bytes.data(), static_cast<long>(bytes.size()));
    Keep(client_->SendMsgFast("echo", &request, 0, kTimeoutMs), bytes.size());
  }
  void EchoLarge(const std::string& bytes) override {
    MIVOParams request;
    request.AddStream(bytes.data(), static_cast<long>(bytes.size()));
    Keep(client_->SendMsgEx("echo", &request, kLargeKey, 4 * kTimeoutMs), bytes.size());
  }
  bool EchoedIs(const std::string& bytes) override {
    return static_cast<std::size_t>(echoed_size_) == bytes.size() &&
           std::memcmp(echoed_, bytes.data(), bytes.size()) == 0;
  }
  void Slow(unsigned microseconds) override { NumberFrom("slow", microseconds); }
  void Post() override {
    MIVOParams request;
    AddSmall(request);
    Require(client_->PostMsgFast("post", &request, 0) == 0, "a post was not sent");
  }
  std::uint64_t Posted() override { return NumberFrom("posted", 0); }
  void BackCalls(unsigned milliseconds) override { NumberFrom("back_calls", milliseconds); }
  void CallMeBack() override {
    const std::uint64_t count = answer_.Count();
    MIVOParams request;
    client_->PostMsgFast("call_me_back", &request, 0);
    answer_.WaitForMoreThan(count);
  }
  std::string BackTimes() override {
    MIVOParams request;
    const MIVOParams* const reply = client_->SendMsgFast("back_times", &request, 0, kTimeoutMs);
    const MIVOValue* const value = reply->GetValue(0);
    Require(value != nullptr && value->IsStream(), "no times");
    long size = 0;
    const char* const bytes = value->GetStream(size);
    return {bytes, static_cast<std::size_t>(size)};
  }

 private:
  // A result of SendMsgEx must not meet the reply of another call.
  static constexpr int kLargeKey = 1'000'001;

  void Keep(const MIVOParams* reply, std::size_t size) {
    const MIVOValue* const value = reply->GetValue(0);
    Require(value != nullptr && value->IsStream(), "an echo did not come back");
    echoed_ = value->GetStream(echoed_size_);
    Require(static_cast<std::size_t>(echoed_size_) == size, "an echo came back in another size");
  }
  std::uint64_t NumberFrom(const char* method, unsigned argument) {
    MIVOParams request;
    request.AddInt(static_cast<int>(argument));
    const MIVOParams* const reply = client_->SendMsgFast(method, &request, 0, kTimeoutMs);
    const MIVOValue* const number = reply->GetValue(0);
    Require(number != nullptr && number->IsDouble(), "no number");
    return static_cast<std::uint64_t>(number->GetDouble());
  }

  Answer answer_;
  IClient* const client_;
  // In the reply, which the client keeps until the next call.
  const char* echoed_ = nullptr;
  long echoed_size_ = 0;
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::ClientMain(argc, argv, [](const bench::Options& options) {
    bench::Peer peer;
    peer.connect = [options] { return std::make_unique<bench::MivoConnection>(options); };
    peer.connect_shared = peer.connect;
    peer.slow_to_close = true;
    return peer;
  });
}
