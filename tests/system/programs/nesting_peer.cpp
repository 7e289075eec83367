// One side, or both, of calls that nest: "descend" is the same method on the server and on each client, and calls its
// counterpart on the other side until it has come to the bottom.
//
//   nesting_peer server TRANSPORT HOST NAME TIMEOUT
//   nesting_peer clients TRANSPORT HOST NAME TIMEOUT CLIENTS DEPTH fast|serialised
//   nesting_peer both    (the same)
//   nesting_peer large   TRANSPORT HOST NAME TIMEOUT FIRST_SIZE COUNT      a client that exchanges large messages
//
// Reports on descriptor 3: a server "ready"; the others "complete=N incomplete=N"; all of them at the end
// "overrun=MS", the longest time by which a nested call has outlasted its time-out. A server ends with its input.
#include <mivo/mivo.h>

#include "support/background.h"
#include "support/event.h"
#include "support/raw_served_client.h"
#include "support/slices.h"
#include "support/test_client.h"
#include "support/transport.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

using namespace mivo_test;

namespace {

std::atomic<long long> longest_overrun{0};

// Measures one call.
class Overrun {
 public:
  explicit Overrun(int timeout) : timeout_(timeout) {}
  ~Overrun() {
    const long long overrun = watch_.ElapsedMs() - timeout_;
    long long longest = longest_overrun;
    while (overrun > longest && !longest_overrun.compare_exchange_weak(longest, overrun)) {
    }
  }

 private:
  const Stopwatch watch_;
  const int timeout_;
};

void Report(const std::string& line) {
  if (dprintf(3, "%s\n", line.c_str()) < 0) std::_Exit(3);
}

struct Options {
  Address address;
  int timeout = 0;
  int clients = 0;
  int depth = 0;
  bool serialised = false;
};

// What a level returns: the number of levels below it, or -1 where one of them is missing.
int Above(std::optional<int> below) {
  return below && *below >= 0 ? *below + 1 : -1;
}

class Server {
 public:
  explicit Server(const Options& options) : options_(options), server_(CreateServer()) {
    char path[] = "";
    server_->log(path, 0);
    server_->method("descend", new LambdaMethod([this](int client, MIVOParams* request, MIVOParams* reply) {
                      const int depth = IntAt(request, 0).value_or(0);
                      reply->AddInt(depth == 0 ? 0 : Above(CallClient(client, depth - 1)));
                    }));
    server_->method("echo", new LambdaMethod([](int, MIVOParams* request, MIVOParams* reply) {
                      const std::string bytes = StreamAt(request, 0).value_or("");
                      reply->AddStream(bytes.data(), static_cast<long>(bytes.size()));
                    }));
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  ~Server() { DestroyServer(server_); }

  bool Start() { return InitServer(server_, options_.address); }

 private:
  std::optional<int> CallClient(int client, int depth) {
    MIVOParams params;
    params.AddInt(depth);
    // The reply that is stored under a key of an earlier time would be returned where none comes: a key for each call.
    const int key = ++next_key_;
    const Overrun overrun(options_.timeout);
    return IntAt(server_->SendMsg(client, "descend", &params, key, options_.timeout), 0);
  }

  const Options options_;
  IServer* const server_;
  std::atomic<int> next_key_{1000000};
};

class Client {
 public:
  explicit Client(const Options& options) : options_(options), client_(CreateClient()) {
    char path[] = "";
    client_->log(path, 0);
    client_->method("descend", new LambdaMethod([this](int, MIVOParams* request, MIVOParams* reply) {
                      const int depth = IntAt(request, 0).value_or(0);
                      reply->AddInt(depth == 0 ? 0 : Above(CallServer(depth - 1)));
                    }));
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  ~Client() { DestroyClient(client_); }

  bool Start() { return InitClient(client_, options_.address); }

  std::optional<int> CallServer(int depth) {
    MIVOParams params;
    params.AddInt(depth);
    if (options_.serialised) {
      // Its time starts when its turn has come.
      return IntAt(Reply(client_->SendMsg("descend", &params, 0, options_.timeout)).get(), 0);
    }
    const Overrun overrun(options_.timeout);
    return IntAt(Reply(client_->SendMsgFast("descend", &params, 0, options_.timeout)).get(), 0);
  }

  IClient* get() const { return client_; }

 private:
  const Options options_;
  IClient* const client_;
};

int RunClients(const Options& options) {
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < options.clients; ++i) {
    clients.push_back(std::make_unique<Client>(options));
    if (!clients.back()->Start()) return 4;
  }
  int complete = 0;
  {
    std::vector<std::unique_ptr<Background<std::optional<int>>>> calls;
    for (const auto& client : clients) {
      calls.push_back(std::make_unique<Background<std::optional<int>>>(
          [&options, &client] { return client->CallServer(options.depth); }));
    }
    for (const auto& call : calls)
      complete += call->Get() == options.depth ? 1 : 0;
  }
  Report("complete=" + std::to_string(complete) + " incomplete=" + std::to_string(options.clients - complete));
  return 0;
}

int RunLarge(const Options& options, int first_size, int count) {
  Client client(options);
  if (!client.Start()) return 4;
  int complete = 0;
  for (int i = 0; i < count; ++i) {
    const std::string bytes = Pattern(static_cast<std::size_t>(first_size + i * 9973));
    MIVOParams params;
    params.AddStream(bytes.data(), static_cast<long>(bytes.size()));
    const Reply reply(client.get()->SendMsgEx("echo", &params, 0, options.timeout));
    complete += StreamAt(reply.get(), 0) == bytes ? 1 : 0;
  }
  Report("complete=" + std::to_string(complete) + " incomplete=" + std::to_string(count - complete));
  return 0;
}

int Run(const std::vector<std::string>& arguments) {
  if (arguments.size() < 6) return 2;
  const std::string& role = arguments[1];
  Options options;
  options.address = {arguments[2] == "Tcp4" ? Transport::Tcp4 : Transport::Local, arguments[3], arguments[4]};
  options.timeout = std::atoi(arguments[5].c_str());

  if (role == "large" && arguments.size() == 8)
    return RunLarge(options, std::atoi(arguments[6].c_str()), std::atoi(arguments[7].c_str()));

  std::unique_ptr<Server> server;
  if (role == "server" || role == "both") {
    server = std::make_unique<Server>(options);
    if (!server->Start()) return 5;
  }
  if (role == "server") {
    Report("ready");
    char byte = 0;
    while (read(STDIN_FILENO, &byte, 1) > 0) {
    }
    return 0;
  }
  if (arguments.size() != 9) return 2;
  options.clients = std::atoi(arguments[6].c_str());
  options.depth = std::atoi(arguments[7].c_str());
  options.serialised = arguments[8] == "serialised";
  return RunClients(options);
}

}  // namespace

int main(int count, char** arguments) {
  const int status = Run(std::vector<std::string>(arguments, arguments + count));
  // After everything was destroyed, so that late work has been measured too.
  Report("overrun=" + std::to_string(longest_overrun));
  return status;
}
