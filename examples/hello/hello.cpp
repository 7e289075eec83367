// The smallest whole: a server that greets, and a client that wants to be greeted.
#include <mivo/mivo.h>
#include <unistd.h>

#include <iostream>
#include <string>

namespace {

class Greet : public IServerMethod {
 public:
  void OnCall(int, MIVOParams* request, MIVOParams* reply) override {
    const MIVOValue* const name = request->GetMap("name");
    const bool has_name = name != nullptr && name->IsString();
    reply->AddString(("Hello, " + std::string(has_name ? name->GetString() : "whoever you are") + "!").c_str());
  }
};

std::string GreetingFor(IClient* client, MIVOParams* request) {
  MIVOParams* const reply = client->SendMsg("greet", request, 0, 5000);
  // No reply came if this is all there is, and then the set is ours.
  if (reply->GetMap("errorCode") != nullptr && reply->MapSize() == 1) {
    delete reply;
    return "no reply";
  }
  const MIVOValue* const greeting = reply->GetValue(0);  // a reply stays the client's
  return greeting != nullptr && greeting->IsString() ? greeting->GetString() : "no greeting";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) {
    std::cout << "usage: hello\n\nA server that greets and a client that calls it, in one program.\n";
    return std::string(argv[1]) == "--help" ? 0 : 2;
  }
  // The local socket /tmp/echo.sock.<process id>
  const std::string name = std::to_string(::getpid());

  IServer* const server = CreateServer();
  server->log(nullptr, 0);             // no diagnostic lines
  server->method("greet", new Greet);  // deleted by the server
  IClient* const client = CreateClient();
  client->log(nullptr, 0);
  if (!server->InitMIVOServer(name.c_str()) || !client->InitMIVOClient(name.c_str(), true)) {
    std::cout << "cannot serve or connect\n";
    return 1;
  }

  MIVOParams request;
  request.AddKeyValueString("name", "stranger");
  const std::string greeting = GreetingFor(client, &request);
  const std::string anonymous = GreetingFor(client, nullptr);
  std::cout << greeting << "\n" << anonymous << "\n";

  DestroyClient(client);
  DestroyServer(server);
  return greeting == "Hello, stranger!" && anonymous == "Hello, whoever you are!" ? 0 : 1;
}
