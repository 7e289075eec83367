// Posts: calls that nobody waits for. A thousand of them, counted by the server, which posts back when it has all.
#include <mivo/mivo.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <iostream>
#include <mutex>
#include <string>

namespace {

constexpr int kCount = 1000;

// Handlers run side by side: what they share needs a lock, and they need not run in the order of the posts.
class Add : public IServerMethod {
 public:
  explicit Add(IServer* server) : server_(server) {}
  void OnCall(int client_id, MIVOParams* request, MIVOParams*) override {
    const MIVOValue* const number = request->GetValue(0);
    if (number == nullptr || !number->IsInt()) return;
    MIVOParams total;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      sum_ += number->GetInt();
      if (++count_ < kCount) return;
      total.AddInt(sum_);
    }
    server_->PostMsg(client_id, "total", &total, 0);
  }

 private:
  IServer* const server_;
  std::mutex mutex_;
  int count_ = 0;
  int sum_ = 0;
};

class Total : public IServerMethod {
 public:
  void OnCall(int, MIVOParams* request, MIVOParams*) override {
    const MIVOValue* const sum = request->GetValue(0);
    sum_.set_value(sum != nullptr && sum->IsInt() ? sum->GetInt() : -1);
  }
  std::promise<int> sum_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) {
    std::cout << "usage: posts\n\nPosts a thousand numbers to a server, which posts back their sum.\n";
    return std::string(argv[1]) == "--help" ? 0 : 2;
  }
  const std::string name = std::to_string(::getpid());
  IServer* const server = CreateServer();
  server->log(nullptr, 0);
  server->method("add", new Add(server));
  IClient* const client = CreateClient();
  client->log(nullptr, 0);
  auto* const total = new Total;
  std::future<int> sum = total->sum_.get_future();
  client->method("total", total);
  if (!server->InitMIVOServer(name.c_str()) || !client->InitMIVOClient(name.c_str(), true)) {
    std::cout << "cannot serve or connect\n";
    return 1;
  }

  for (int i = 1; i <= kCount; ++i) {
    MIVOParams number;
    number.AddInt(i);
    client->PostMsg("add", &number, 0);  // back as soon as the number is on its way
  }
  const bool came = sum.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
  const int value = came ? sum.get() : -1;
  std::cout << "1 + 2 + ... + " << kCount << " = " << value << "\n";

  DestroyClient(client);
  DestroyServer(server);
  return value == kCount * (kCount + 1) / 2 ? 0 : 1;
}
