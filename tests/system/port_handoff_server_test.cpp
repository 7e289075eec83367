// A server in a child process that hands its port to the parent.
#include <mivo/mivo.h>
#include <mivo/port_handoff.h>

#include "support/child_program.h"
#include "support/handlers.h"
#include "support/transport.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>

namespace {

using mivo_test::ChildProgram;
using mivo_test::LambdaMethod;
using mivo_test::Role;
using mivo_test::StartRole;
using mivo_test::Transport;

// Publishes its port, serves until asked to stop.
void ServeAndPublish() {
  IServer* const server = CreateServer();
  server->method("s_c_createport", new LambdaMethod([](int, MIVOParams* request, MIVOParams*) {
                   WritePortPipe(std::atoi(request->GetValue(0)->GetString()));
                 }));
  server->method("process id", new LambdaMethod([](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(getpid()); }));
  server->method("stop", new LambdaMethod([server](int, MIVOParams*, MIVOParams*) { server->closeasync(); }));
  const std::string port = std::to_string(mivo_test::FreePort(Transport::Tcp4));
  if (server->StartMIVOServerTcp4("127.0.0.1", port.c_str())) server->run();
  DestroyServer(server);
}

// What the server on that port says its process is; 0 without an answer. Asks it to stop.
int ProcessBehind(const std::string& port) {
  const std::unique_ptr<IClient, void (*)(IClient*)> client(CreateClient(), DestroyClient);
  if (!client->InitMIVOClientTcp4("127.0.0.1", port.c_str(), true)) return 0;
  MIVOParams* const reply = client->SendMsg("process id", nullptr, 0, 30000);
  const int id = reply->ParamsSize() > 0 ? reply->GetValue(0)->GetInt() : 0;
  if (reply->GetMap("errorCode") != nullptr) delete reply;
  client->PostMsg("stop", nullptr, 0);
  return id;
}

const Role kServes("serves and publishes its port", [](const std::string&) {
  CreatePortPipe();
  ServeAndPublish();
  return 0;
});

TEST(PortHandoffServer, PublishesItsPortToTheProcessThatExecutedIt) {
  ChildProgram server = StartRole("serves and publishes its port");
  const pid_t pid = server.pid();
  const std::string path = "/tmp/echo.pipe." + std::to_string(getpid());
  const std::string created = "create pipe: " + path + "\n";
  ASSERT_EQ(server.io().ReadBytes(created.size()), created);
  // Five digits; the end of the text comes only with the end of the server.
  ChildProgram reader({"head", "-c", "5", path});
  EXPECT_EQ(ProcessBehind(reader.ReadOutput()), pid);
  EXPECT_EQ(server.Wait(), 0);
  unlink(path.c_str());
}

const Role kForksAServer("forks a server", [](const std::string&) {
  const std::string path = CreatePortPipe();
  const pid_t child = fork();
  if (child == 0) {
    ServeAndPublish();
    _exit(0);
  }
  const std::string port = ReadPortPipe();
  unlink(path.c_str());
  const bool answered = ProcessBehind(port) == child;
  int status = -1;
  waitpid(child, &status, 0);
  return answered && status == 0 ? 0 : 1;
});

TEST(PortHandoffServer, PublishesItsPortToTheProcessThatForkedIt) {
  ChildProgram parent = StartRole("forks a server");
  const std::string output = parent.ReadOutput();
  EXPECT_EQ(parent.Wait(), 0) << output;
}

}  // namespace
