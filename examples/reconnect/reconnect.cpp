// The server goes and comes back, and its client with it: the notice of the end, and connecting again.
#include <mivo/mivo.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>

namespace {

constexpr auto kPatience = std::chrono::seconds(20);

bool Expect(bool holds, const std::string& what) {
  std::cout << (holds ? "ok: " : "WRONG: ") << what << std::endl;
  return holds;
}

struct Destroy {
  void operator()(IServer* server) const { DestroyServer(server); }
};
using Server = std::unique_ptr<IServer, Destroy>;

class Answer : public IServerMethod {
 public:
  explicit Answer(int answer) : answer_(answer) {}
  void OnCall(int, MIVOParams*, MIVOParams* reply) override { reply->AddInt(answer_); }

 private:
  const int answer_;
};

Server Start(const std::string& name, int answer) {
  Server server(CreateServer());
  server->log(nullptr, 0);
  server->method("answer", new Answer(answer));
  return server->InitMIVOServer(name.c_str()) ? std::move(server) : nullptr;
}

// "s_c_closed": runs on the client's loop thread, which is no place to connect again. So it only passes on the news.
class Closed : public IServerMethod {
 public:
  void OnCall(int, MIVOParams*, MIVOParams*) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++count_;
    changed_.notify_all();
  }

  bool Await(int count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return count_ == count; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int count_ = 0;
};

// The server's answer, or the error.
int Ask(IClient* client) {
  MIVOParams* const reply = client->SendMsg("answer", nullptr, 0, 5000);
  const MIVOValue* const code = reply->GetMap("errorCode");
  if (code != nullptr && reply->MapSize() == 1) {
    const int error = code->GetInt();
    delete reply;
    return error;
  }
  const MIVOValue* const value = reply->GetValue(0);
  return value != nullptr && value->IsInt() ? value->GetInt() : 0;
}

bool Play(IClient* client, Closed& closed, const std::string& name) {
  bool fine = true;
  for (int round = 1; round <= 3; ++round) {
    std::cout << "-- round " << round << std::endl;
    Server server = Start(name, 100 + round);
    if (!Expect(server != nullptr, "a server has started")) return false;
    // A client drops its handlers in close() and when the version check fails, not when a connection is lost or cannot
    // be had. So: once more before every connect. Where it still stands, this does nothing.
    client->method("s_c_closed", &closed);
    fine &= Expect(client->InitMIVOClient(name.c_str(), true), "connected");
    fine &= Expect(Ask(client) == 100 + round, "this server's answer");
    server.reset();
    fine &= Expect(closed.Await(round), "the client was told that the server has gone");
    fine &= Expect(!client->InitMIVOClient(name.c_str(), true), "nobody to connect to");
  }
  return fine & Expect(!client->isok(), "not connected any more");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) {
    std::cout << "usage: reconnect\n\nA client that outlives three servers of one name.\n";
    return std::string(argv[1]) == "--help" ? 0 : 2;
  }
  Closed closed;
  IClient* const client = CreateClient();
  client->log(nullptr, 0);
  client->SetCustomReleaseEvent();  // `closed` is ours
  const bool fine = Play(client, closed, std::to_string(::getpid()));
  DestroyClient(client);
  return fine ? 0 : 1;
}
