// Servers and clients as members, moved, in any order, and static ones, which go as the process ends.
#include <mivo/rpc.h>

#include "support/child_program.h"
#include "support/role_outcome.h"
#include "support/sanitizers.h"
#include "support/transport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using namespace mivo_test;
using namespace std::chrono_literals;

namespace {

constexpr int kTimes = 10 / kScaledown;

struct Visits {
  int count = 0;
};

// Another thread ends the process meanwhile, or the test does when it is out of patience: there is nothing to wait for.
void WaitForTheEnd() {
  for (;;)
    std::this_thread::sleep_for(1s);
}

// As in a program that has them at namespace scope: made on the first call, in this order, destroyed by exit().
struct Everything {
  explicit Everything(const std::string& name) {
    server.on("count", [this](mivo::Caller& caller) { return ++visits.of(caller)->count; });
    // Still runs when the process ends.
    server.on("slow", [] { std::this_thread::sleep_for(20ms); });
    server.on("queued", serial([] { return 1; }));
    server.on("waiting", loop([] { return 1; }));
    server.listen("unix:" + name);
    client = std::make_unique<mivo::Client>("unix:" + name);
    returning = std::make_unique<mivo::Client>("unix:" + name, mivo::kReconnect);
    nobody = std::make_unique<mivo::Client>("unix:" + name + ".nobody", mivo::kReconnect);
  }
  mivo::PerClient<Visits> visits;
  mivo::Serial serial;
  mivo::Loop loop;
  mivo::Server server;
  std::unique_ptr<mivo::Client> client;
  std::unique_ptr<mivo::Client> returning;
  std::unique_ptr<mivo::Client> nobody;
};

// Calls of every kind are under way when the process ends.
int LeaveInTheMiddle(const std::string& name) {
  static Everything all(name);
  static std::vector<std::future<void>> answers;
  if (all.client->call<int>("count") != 1 || all.returning->call<int>("count") != 1) return 1;
  for (mivo::Client* const client : {all.client.get(), all.returning.get(), all.nobody.get()}) {
    for (const char* const method : {"count", "slow", "queued", "waiting"}) {
      answers.push_back(client->async(method));
      client->post(method);
    }
  }
  return 0;
}

const Role kReturns("static objects, and a return from main",
                    [](const std::string& name) { return LeaveInTheMiddle(name); });
const Role kExits("static objects, and an exit in another thread", [](const std::string& name) {
  const int status = LeaveInTheMiddle(name);
  std::thread([status] { std::exit(status); }).join();
  return 2;
});
const Role kQuickExits("static objects, and a quick exit",
                       [](const std::string& name) -> int { std::quick_exit(LeaveInTheMiddle(name)); });
const Role kExitsInAHandler("static objects, and an exit in a handler", [](const std::string& name) -> int {
  static Everything all(name);
  all.server.on("leave", [] { std::exit(0); });
  all.client->post("leave");
  WaitForTheEnd();
  return 2;
});
const Role kExitsInAHandlerOfAClient("static objects, and an exit in a client's handler", [](const std::string& name) {
  static Everything all(name);
  all.client->on("leave", [] { std::exit(0); });
  all.server.broadcast("leave");
  WaitForTheEnd();
  return 2;
});
const Role kExitsInACompletion("static objects, and an exit in a completion", [](const std::string& name) {
  static Everything all(name);
  all.client->then<int>([](const mivo::Result<int>&) { std::exit(0); }, "count");
  WaitForTheEnd();
  return 2;
});
const Role kExitsWhenReady("static objects, and an exit when ready", [](const std::string& name) {
  static Everything all(name);
  all.returning->on_ready([] { std::exit(0); });
  WaitForTheEnd();
  return 2;
});
const Role kExitsOnConnect("static objects, and an exit when somebody connects", [](const std::string& name) {
  static Everything all(name);
  all.server.on_connect([](mivo::Caller&) { std::exit(0); });
  const mivo::Client newcomer("unix:" + name, mivo::kReconnect);
  WaitForTheEnd();
  return 2;
});
const Role kExitsInASerial("static objects, and an exit on a thread of their own", [](const std::string& name) {
  static Everything all(name);
  all.server.on("leave", all.serial([] { std::exit(0); }));
  all.returning->post("leave");
  WaitForTheEnd();
  return 2;
});

TEST(RpcLifetime, OfWhatIsMovedGoesOn) {
  const std::string address = "unix:" + UniqueSocketName();
  mivo::PerClient<Visits> visits;
  std::vector<mivo::Server> servers;
  {
    mivo::Server server;
    server.on("count", [&visits](mivo::Caller& caller) { return ++visits.of(caller)->count; });
    server.listen(address);
    servers.push_back(std::move(server));
  }
  std::vector<mivo::Client> clients;
  for (int i = 0; i < 5; ++i) {
    mivo::Client client(address, i % 2 == 0 ? mivo::ClientOptions() : mivo::kReconnect);
    client.on("double", [](int number) { return 2 * number; });
    const auto idempotent = client.idempotent();
    ASSERT_EQ(client.call<int>("count"), 1);
    std::future<int> later = client.async<int>("count");
    clients.push_back(std::move(client));
    // What was made of it before refers to the same one.
    EXPECT_EQ(later.get(), 2);
    EXPECT_EQ(idempotent.call<int>("count"), 3);
    EXPECT_EQ(clients.back().call<int>("count"), 4);
  }
  servers[0].on("add", [](int a, int b) { return a + b; });
  EXPECT_EQ(clients[0].call<int>("add", 2, 40), 42);
  ASSERT_EQ(servers[0].clients().size(), 5U);
  EXPECT_EQ(servers[0].clients()[4].call<int>("double", 21), 42);
}

TEST(RpcLifetime, OfAServerMayEndBeforeThatOfItsClients) {
  const std::string address = "unix:" + UniqueSocketName();
  auto server = std::make_unique<mivo::Server>();
  server->on("one", [] { return 1; });
  server->listen(address);
  mivo::Client client(address);
  mivo::Client returning(address, mivo::kReconnect);
  ASSERT_EQ(client.call<int>("one") + returning.call<int>("one"), 2);
  server.reset();
  EXPECT_FALSE(client.try_call<int>("one"));
  EXPECT_FALSE(returning.within(100ms).try_call<int>("one"));
}

class RpcExit : public testing::TestWithParam<const char*> {};

INSTANTIATE_TEST_SUITE_P(
    OfAProcess, RpcExit,
    testing::Values("static objects, and a return from main", "static objects, and an exit in another thread",
                    "static objects, and a quick exit", "static objects, and an exit in a handler",
                    "static objects, and an exit in a client's handler", "static objects, and an exit in a completion",
                    "static objects, and an exit when ready", "static objects, and an exit when somebody connects",
                    "static objects, and an exit on a thread of their own"),
    [](const testing::TestParamInfo<const char*>& role) { return std::to_string(role.index); });

TEST_P(RpcExit, WithStaticObjectsGivesTheStatusThatIsMeant) {
  for (int i = 0; i < kTimes; ++i) {
    const std::string name = UniqueSocketName();
    ChildProgram program = StartRole(GetParam(), name);
    ASSERT_EQ(program.Wait(kRolePatience), 0) << "time " << i;
  }
}

}  // namespace
