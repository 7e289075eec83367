// A program of somebody else: makes one of each object, takes a set of values through bytes and back.
#include <mivo/mivo.h>

#include <cstdio>

namespace {

class Answer : public IServerMethod {
 public:
  void OnCall(int, MIVOParams* request, MIVOParams* reply) override { reply->AddInt(request->ParamsSize()); }
};

bool SurvivesTheWire() {
  MIVOParams sent;
  sent.AddInt(41);
  sent.AddKeyValueInt("answer", 42);

  MIVOParams received;
  if (!sent.ToParams() || !received.Parser(sent.GetParamasPtr(), sent.GetParamasSize())) return false;
  received.print();
  const MIVOValue* first = received.GetValue(0);
  const MIVOValue* answer = received.GetMap("answer");
  return first != nullptr && first->GetInt() == 41 && answer != nullptr && answer->GetInt() == 42;
}

}  // namespace

int main() {
  if (!SurvivesTheWire()) {
    std::puts("a set of values came back different");
    return 1;
  }

  IServer* server = CreateServer();
  server->method("answer", new Answer);
  IClient* client = CreateClient();
  const bool idle = !server->isok() && !client->isok();
  client->close();
  DestroyClient(client);
  DestroyServer(server);
  if (!idle) {
    std::puts("an object that was never started says that it is running");
    return 1;
  }

  std::puts("rpc objects: fine");
  return 0;
}
