// A server that serves on the thread that calls run(), here the main thread, until a client asks it to stop.
#include <mivo/mivo.h>
#include <unistd.h>

#include <iostream>
#include <string>
#include <thread>

namespace {

class Where : public IServerMethod {
 public:
  explicit Where(IServer* server) : server_(server) {}
  void OnCall(int, MIVOParams*, MIVOParams* reply) override { reply->AddBool(server_->isthread()); }

 private:
  IServer* const server_;
};

class Stop : public IServerMethod {
 public:
  explicit Stop(IServer* server) : server_(server) {}
  // In a handler a close only begins; run() returns when this handler, too, has ended. So the reply may get lost, and
  // the client had better post.
  void OnCall(int, MIVOParams*, MIVOParams*) override { server_->closeasync(); }

 private:
  IServer* const server_;
};

// A bool, or not what was expected.
bool IsFalse(MIVOParams* reply) {
  if (reply->GetMap("errorCode") != nullptr && reply->MapSize() == 1) {
    delete reply;
    return false;
  }
  const MIVOValue* const value = reply->GetValue(0);
  return value != nullptr && value->IsBool() && !value->GetBool();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) {
    std::cout << "usage: own_thread\n\nServes on its main thread until a client posts \"stop\".\n";
    return std::string(argv[1]) == "--help" ? 0 : 2;
  }
  // Start* takes any name; Init* takes numbers only.
  const std::string name = "own_thread." + std::to_string(::getpid());
  IServer* const server = CreateServer();
  server->log(nullptr, 0);
  server->method("where", new Where(server));
  server->method("stop", new Stop(server));
  if (!server->StartMIVOServer(name.c_str())) {
    std::cout << "cannot serve or connect\n";
    return 1;
  }
  std::cout << "listening\n";

  // Connects at once: the server listens, though nobody serves yet.
  bool connected = false;
  bool on_own_thread = false;
  std::thread other([&] {
    IClient* const client = CreateClient();
    client->log(nullptr, 0);
    connected = client->InitMIVOClient(name.c_str(), true);
    on_own_thread = connected && IsFalse(client->SendMsg("where", nullptr, 0, 5000));
    if (connected) {
      client->PostMsg("stop", nullptr, 0);
    } else {
      server->closeasync();
    }
    DestroyClient(client);
  });
  server->run();
  other.join();
  std::cout << (on_own_thread ? "served a client on the main thread\n" : "WRONG: the client was not served\n")
            << (server->isok() ? "WRONG: still serving\n" : "stopped\n");
  const bool fine = connected && on_own_thread && !server->isok();
  DestroyServer(server);
  return fine ? 0 : 1;
}
