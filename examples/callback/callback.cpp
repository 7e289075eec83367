// A handler of the server calls the client that it serves, and the client's handler calls the server in turn.
#include <mivo/mivo.h>
#include <unistd.h>

#include <iostream>
#include <string>

namespace {

constexpr int kTimeoutMs = 5000;

std::string TextOf(const MIVOParams* set) {
  const MIVOValue* const text = set == nullptr ? nullptr : set->GetValue(0);
  return text != nullptr && text->IsString() ? text->GetString() : "";
}

// Orders wine, but asks the guest first which one.
class Order : public IServerMethod {
 public:
  explicit Order(IServer* server) : server_(server) {}
  void OnCall(int client_id, MIVOParams*, MIVOParams* reply) override {
    // Null if the guest has left or does not answer. A set that comes back stays the server's.
    const std::string choice = TextOf(server_->SendMsg(client_id, "choose", nullptr, 0, kTimeoutMs));
    reply->AddString(choice.empty() ? "nothing was ordered" : ("one glass of " + choice).c_str());
  }

 private:
  IServer* const server_;
};

class Card : public IServerMethod {
 public:
  void OnCall(int, MIVOParams*, MIVOParams* reply) override { reply->AddString("Riesling"); }
};

// Runs on a pool thread of the client's process, while its main thread is inside SendMsg.
class Choose : public IServerMethod {
 public:
  explicit Choose(IClient* client) : client_(client) {}
  void OnCall(int, MIVOParams*, MIVOParams* reply) override {
    // SendMsgFast: SendMsg would wait for the main thread's call to end, which waits for us.
    MIVOParams* const card = client_->SendMsgFast("card", nullptr, 0, kTimeoutMs);
    if (card->GetMap("errorCode") != nullptr && card->MapSize() == 1) {
      delete card;
      return;
    }
    reply->AddString(TextOf(card).c_str());
  }

 private:
  IClient* const client_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) {
    std::cout << "usage: callback\n\nA call from a handler back to the caller, and from its handler back again.\n";
    return std::string(argv[1]) == "--help" ? 0 : 2;
  }
  const std::string name = std::to_string(::getpid());
  IServer* const server = CreateServer();
  server->log(nullptr, 0);
  server->method("order", new Order(server));
  server->method("card", new Card);
  IClient* const client = CreateClient();
  client->log(nullptr, 0);
  client->method("choose", new Choose(client));
  if (!server->InitMIVOServer(name.c_str()) || !client->InitMIVOClient(name.c_str(), true)) {
    std::cout << "cannot serve or connect\n";
    return 1;
  }

  MIVOParams* const reply = client->SendMsg("order", nullptr, 0, kTimeoutMs);
  const std::string ordered = TextOf(reply);
  std::cout << ordered << "\n";
  if (reply->GetMap("errorCode") != nullptr && reply->MapSize() == 1) delete reply;

  DestroyClient(client);
  DestroyServer(server);
  return ordered == "one glass of Riesling" ? 0 : 1;
}
