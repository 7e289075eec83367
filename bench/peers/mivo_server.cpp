#include <mivo/mivo.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>

#include "harness/program.h"
#include "peers/back_times.h"
#include "peers/mivo_echo.h"

namespace bench {
namespace {

class Method : public IServerMethod {
 public:
  using Body = std::function<void(int client_id, const MIVOParams& request, MIVOParams& reply)>;
  explicit Method(Body body) : body_(std::move(body)) {}
  void OnCall(int client_id, MIVOParams* request, MIVOParams* reply) override { body_(client_id, *request, *reply); }

 private:
  const Body body_;
};

class SmallMethod : public IServerMethod {
 public:
  void OnCall(int, MIVOParams* request, MIVOParams* reply) override { EchoSmall(*request, *reply); }
};

int NumberIn(const MIVOParams& request) {
  const MIVOValue* const number = request.GetValue(0);
  return number != nullptr && number->IsInt() ? number->GetInt() : 0;
}

class MivoServer {
 public:
  MivoServer() : server_(CreateServer()) {
    server_->log(nullptr, 0);
    server_->method("small", new SmallMethod);
    On("echo", [](int, const MIVOParams& request, MIVOParams& reply) {
      const MIVOValue* const bytes = request.GetValue(0);
      if (bytes == nullptr || !bytes->IsStream()) return;
      long size = 0;
      const char* const begin = bytes->GetStream(size);
      reply.AddStream(begin, size);
    });
    On("slow", [](int, const MIVOParams& request, MIVOParams& reply) {
      Sleep(NumberIn(request) * 1e-6);
      reply.AddDouble(0);
    });
    On("post", [this](int, const MIVOParams&, MIVOParams&) { ++posts_; });
    On("posted",
       [this](int, const MIVOParams&, MIVOParams& reply) { reply.AddDouble(static_cast<double>(posts_.load())); });
    On("back_calls", [this](int client_id, const MIVOParams& request, MIVOParams& reply) {
      const double seconds = NumberIn(request) * 1e-3;
      for (const std::uint64_t begin = NowNs(); SecondsSince(begin) < seconds;)
        CallBack(client_id);
      reply.AddDouble(0);
    });
    On("call_me_back", [this](int client_id, const MIVOParams&, MIVOParams&) { CallBack(client_id); });
    On("back_times", [this](int, const MIVOParams&, MIVOParams& reply) {
      const std::string times = times_.Take();
      reply.AddStream(times.data(), static_cast<long>(times.size()));
    });
  }

  bool Start(const Options& options) {
    if (!options.Tcp()) return server_->StartMIVOServer(MivoName(options).c_str());
    return server_->StartMIVOServerTcp4(options.Host().c_str(), std::to_string(options.Port()).c_str());
  }
  void Run() { server_->run(); }

 private:
  void On(const char* name, Method::Body body) { server_->method(name, new Method(std::move(body))); }
  void CallBack(int client_id) {
    times_.Time([this, client_id] {
      MIVOParams request;
      AddSmall(request);
      const MIVOParams* const reply = server_->SendMsg(client_id, "small", &request, 0, 30'000);
      // The client misses the time, and says so.
      if (reply == nullptr || !IsSmall(*reply)) throw std::runtime_error("a call to the client came back different");
    });
  }

  IServer* const server_;
  std::atomic<std::uint64_t> posts_{0};
  BackTimes times_;
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  using namespace bench;
  return ServerMain(argc, argv, [](const Options& options, const std::function<void()>& listening) {
    // Never destroyed: the program ends while it serves.
    auto* const server = new MivoServer;
    Require(server->Start(options), "cannot listen");
    listening();
    server->Run();
  });
}
