// A parent that starts a child, and learns from it on which port it serves.
#include <mivo/mivo.h>
#include <mivo/port_handoff.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <string>

namespace {

// Told by the server of the port on which it has begun to listen.
class PublishPort : public IServerMethod {
 public:
  void OnCall(int, MIVOParams* request, MIVOParams*) override {
    WritePortPipe(std::atoi(request->GetValue(0)->GetString()));
  }
};

class ProcessId : public IServerMethod {
 public:
  void OnCall(int, MIVOParams*, MIVOParams* reply) override { reply->AddInt(::getpid()); }
};

class Stop : public IServerMethod {
 public:
  explicit Stop(IServer* server) : server_(server) {}
  void OnCall(int, MIVOParams*, MIVOParams*) override { server_->closeasync(); }

 private:
  IServer* const server_;
};

void Serve() {
  IServer* const server = CreateServer();
  server->log(nullptr, 0);
  server->method("s_c_createport", new PublishPort);
  server->method("process id", new ProcessId);
  server->method("stop", new Stop(server));
  // Of five digits: the reader takes no more, and waits for the writer to end when there are fewer. And above the ports
  // that the system picks by itself.
  int port = 61000 + ::getpid() % 4000;
  const int last = port + 100;
  while (!server->StartMIVOServerTcp4("127.0.0.1", std::to_string(port).c_str())) {
    if (++port > last) {
      WritePortPipe(0);  // do not keep the parent waiting
      break;
    }
  }
  server->run();
  DestroyServer(server);
}

// The child's process id as the child tells it; -1 when it does not.
int AskForProcessId(IClient* client) {
  MIVOParams* const reply = client->SendMsg("process id", nullptr, 0, 5000);
  if (reply->GetMap("errorCode") != nullptr && reply->MapSize() == 1) {
    delete reply;
    return -1;
  }
  const MIVOValue* const id = reply->GetValue(0);
  return id != nullptr && id->IsInt() ? id->GetInt() : -1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) {
    std::cout << "usage: port_handoff\n\nStarts a server as a child process, learns its port and calls it.\n";
    return std::string(argv[1]) == "--help" ? 0 : 2;
  }
  // Before the fork, so that parent and child mean the same pipe; and before anything that starts a thread.
  const std::string pipe = CreatePortPipe();
  if (pipe.empty()) return 1;  // it has said why
  const pid_t child = fork();
  if (child < 0) return 1;
  if (child == 0) {
    Serve();
    _exit(0);
  }

  const std::string port = ReadPortPipe();
  ::unlink(pipe.c_str());
  IClient* const client = CreateClient();
  client->log(nullptr, 0);
  int answer = -1;
  if (client->InitMIVOClientTcp4("127.0.0.1", port.c_str(), true)) {
    answer = AskForProcessId(client);
    client->PostMsg("stop", nullptr, 0);
  }
  DestroyClient(client);
  if (answer != child) ::kill(child, SIGTERM);  // it may serve without having heard of "stop"
  ::waitpid(child, nullptr, 0);
  std::cout << (answer == child ? "the child answered on port " : "WRONG: no answer on port ") << port << "\n";
  return answer == child ? 0 : 1;
}
