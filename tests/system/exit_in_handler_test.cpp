// A handler may end the process.
#include <mivo/mivo.h>

#include "support/child_program.h"
#include "support/raw_server.h"
#include "support/role_outcome.h"
#include "support/test_client.h"
#include "support/test_server.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <string>

using namespace mivo_test;

namespace {

constexpr int kTimes = 20;
constexpr int kStatus = 7;

void WaitForTheEndOfInput() {
  char byte = 0;
  while (read(STDIN_FILENO, &byte, 1) > 0) {
  }
}

class Leave : public IServerMethod {
 public:
  void OnCall(int, MIVOParams*, MIVOParams*) override { std::exit(kStatus); }
};

// Listens under the name that it is given. As a plain program would: nothing is destroyed on the way out.
const Role kServerThatLeaves("a server that exits in a handler", [](const std::string& name) {
  IServer* const server = CreateServer();
  SetLog(server, "", 0);
  server->method("leave", new Leave);
  if (!server->InitMIVOServer(name.c_str())) return 1;
  WaitForTheEndOfInput();
  _exit(2);
});

const Role kClientThatLeaves("a client that exits in a handler", [](const std::string& name) {
  IClient* const client = CreateClient();
  SetLog(client, "", 0);
  client->method("leave", new Leave);
  if (!client->InitMIVOClient(name.c_str(), true)) return 1;
  WaitForTheEndOfInput();
  _exit(2);
});

TEST(ExitInHandler, OfAServerEndsTheProcessWithItsStatus) {
  for (int i = 0; i < kTimes; ++i) {
    const Address address = FreeAddress(Transport::Local);
    ChildProgram program = StartRole("a server that exits in a handler", address.name);
    RawPeer peer = RawPeer::ConnectTo(address);
    ASSERT_TRUE(peer.SendFrame(Request({"leave", 1})));
    ASSERT_EQ(program.Wait(kRolePatience), kStatus) << "time " << i;
    unlink(SocketPath(address.name).c_str());
  }
}

TEST(ExitInHandler, OfAServerWithACallerThatWaitsEndsTheProcessWithItsStatus) {
  TestClient client;
  SetLog(client.get(), "", 0);
  for (int i = 0; i < kTimes; ++i) {
    const Address address = FreeAddress(Transport::Local);
    ChildProgram program = StartRole("a server that exits in a handler", address.name);
    ASSERT_TRUE(RawPeer::ConnectTo(address).connected());
    ASSERT_TRUE(client.Init(address));
    EXPECT_EQ(TakeError(client->SendMsg("leave", nullptr, 0, 60000)), kNoReply);
    ASSERT_EQ(program.Wait(kRolePatience), kStatus) << "time " << i;
    unlink(SocketPath(address.name).c_str());
  }
}

TEST(ExitInHandler, OfAClientEndsTheProcessWithItsStatus) {
  RawServer server(Transport::Local);
  for (int i = 0; i < kTimes; ++i) {
    ChildProgram program = StartRole("a client that exits in a handler", server.address().name);
    RawPeer peer = server.AcceptAndAnswerHandshake();
    ASSERT_TRUE(peer.SendFrame(Request({"leave", 1})));
    ASSERT_EQ(program.Wait(kRolePatience), kStatus) << "time " << i;
  }
}

}  // namespace
