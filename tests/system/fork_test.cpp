// Objects of the library on both sides of a fork.
#include <mivo/mivo.h>

#include "support/event.h"
#include "support/test_client.h"
#include "support/test_server.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <thread>

namespace {

using mivo_test::Address;
using mivo_test::Event;
using mivo_test::FreeAddress;
using mivo_test::TestClient;
using mivo_test::TestServer;
using mivo_test::Transport;

constexpr unsigned int kChildSeconds = 60;

// In the child: a server and a client of its own, and one call between them.
bool ServesAndCalls(const Address& address) {
  TestServer server(address.transport);
  server.On("double",
            [](int, MIVOParams* request, MIVOParams* reply) { reply->AddInt(2 * request->GetValue(0)->GetInt()); });
  TestClient client;
  if (!server.Init() || !client.Init(server.address())) return false;
  MIVOParams params;
  params.AddInt(21);
  return mivo_test::TakeInt(client->SendMsg("double", &params, 0, 10000)) == 42;
}

TEST(ForkedChild, WorksWithObjectsOfItsOwnWhateverItsParentIsDoing) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "ThreadSanitizer ends a child of fork that starts threads";
#endif
  Event entered;
  Event leave;
  TestServer server(Transport::Local);
  server.On("slow", [&](int, MIVOParams*, MIVOParams* reply) {
    entered.Signal();
    leave.WaitFor();
    reply->AddInt(1);
  });
  ASSERT_TRUE(server.Init());
  TestClient client;
  ASSERT_TRUE(client.Init(server.address()));
  // While this call waits it has the turn that every SendMsg of the process has to wait for.
  std::thread caller([&] { EXPECT_EQ(mivo_test::TakeInt(client->SendMsg("slow", nullptr, 0, 0)), 1); });
  ASSERT_TRUE(entered.WaitFor());

  const pid_t child = fork();
  if (child == 0) {
    alarm(kChildSeconds);
    DestroyClient(client.get());
    DestroyServer(server.get());
    _exit(ServesAndCalls(FreeAddress(Transport::Local)) ? 0 : 1);
  }
  ASSERT_GT(child, 0);
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;

  // The parent's objects are as they were.
  leave.Signal();
  caller.join();
  EXPECT_TRUE(client->isok());
}

}  // namespace
