// Calls of the typed layer: both ways, errors, deadlines, without waiting, ends.
#include <mivo/rpc.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/event.h"
#include "support/sanitizers.h"
#include "support/transport.h"

namespace {

using mivo_test::Event;
using mivo_test::Transport;
using namespace std::chrono_literals;

std::string AddressOn(Transport transport) {
  switch (transport) {
    case Transport::Local:
      return "unix:" + mivo_test::UniqueSocketName();
    case Transport::Tcp4:
      return "tcp:127.0.0.1:" + std::to_string(mivo_test::FreePort(transport));
    case Transport::Tcp6:
      return "tcp:[::1]:" + std::to_string(mivo_test::FreePort(transport));
  }
  return "";
}

class RpcCalls : public testing::TestWithParam<Transport> {
 protected:
  RpcCalls() { server_.listen(address_); }

  const std::string address_ = AddressOn(GetParam());
  mivo::Server server_;
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, RpcCalls, mivo_test::kEveryTransport, mivo_test::TransportName);

TEST_P(RpcCalls, GoBothWaysOverOneConnection) {
  server_.on("twice_of_yours", [](mivo::Caller& caller) { return 2 * caller.call<int>("yours"); });
  mivo::Client client(address_);
  client.on("yours", [] { return 21; });
  EXPECT_EQ(client.call<int>("twice_of_yours"), 42);
}

TEST_P(RpcCalls, BringErrorsOfHandlersToTheCaller) {
  server_.on("full", [] { throw mivo::Error("queue.full", "try again later"); });
  server_.on("standard", [] { throw std::runtime_error("it happened"); });
  server_.on("odd", [] { throw 7; });
  mivo::Client client(address_);
  try {
    client.call("full");
    FAIL();
  } catch (const mivo::Error& error) {
    EXPECT_EQ(error.code(), "queue.full");
    EXPECT_STREQ(error.what(), "try again later");
  }
  const mivo::Result<void> standard = client.try_call("standard");
  ASSERT_FALSE(standard);
  EXPECT_EQ(standard.error().code(), "mivo.exception");
  EXPECT_STREQ(standard.error().what(), "it happened");
  EXPECT_EQ(client.try_call<int>("odd").error().code(), "mivo.exception");
  EXPECT_THROW(client.call("missing"), mivo::NoSuchMethod);
  client.on("mine", [] { throw mivo::Error("client.busy", "no"); });
  server_.on("call_back", [](mivo::Caller& caller) { return caller.try_call("mine").error().code(); });
  EXPECT_EQ(client.call<std::string>("call_back"), "client.busy");
}

TEST_P(RpcCalls, EndWithTheirDeadlines) {
  Event leave;
  server_.on("stuck", [&leave] { leave.WaitFor(); });
  mivo::Client client(address_);
  const mivo_test::Stopwatch watch;
  EXPECT_THROW(client.within(300ms).call("stuck"), mivo::NoAnswer);
  EXPECT_GE(watch.ElapsedMs(), 300);
  EXPECT_THROW(client.within(1ms).async("stuck").get(), mivo::NoAnswer);
  leave.Signal();
  server_.on("prompt", [] { return 1; });
  EXPECT_EQ(client.within(mivo::kNoLimit).call<int>("prompt"), 1);
  // The handlers still use what goes with this function.
  server_.close();
}

TEST_P(RpcCalls, AreWokenByTheEndOfTheConnection) {
  Event begun;
  Event leave;
  server_.on("stuck", [&] {
    begun.Signal();
    leave.WaitFor();
  });
  auto client = std::make_unique<mivo::Client>(address_);
  std::future<void> waiting = client->async("stuck");
  std::thread blocked([&] { EXPECT_THROW(client->call("stuck"), mivo::Disconnected); });
  EXPECT_TRUE(begun.WaitFor(2));
  std::thread closing([this] { server_.close(); });
  blocked.join();
  EXPECT_THROW(waiting.get(), mivo::Disconnected);
  leave.Signal();
  closing.join();
  EXPECT_THROW(client->call("stuck"), mivo::NotConnected);
  EXPECT_THROW(client->async("stuck").get(), mivo::NotConnected);
  EXPECT_FALSE(client->is_connected());
}

TEST_P(RpcCalls, AreToldOnceEachWhenNobodyWaits) {
  constexpr int kCalls = 2000;
  server_.on("next", [](int number) { return number + 1; });
  mivo::Client client(address_);
  std::atomic<int> right{0};
  Event all;
  for (int i = 0; i < kCalls; ++i) {
    client.then<int>(
        [&, i](const mivo::Result<int>& result) {
          if (result && *result == i + 1 && ++right == kCalls) all.Signal();
        },
        "next", i);
  }
  EXPECT_TRUE(all.WaitFor());
  EXPECT_EQ(right, kCalls);
}

TEST_P(RpcCalls, ThatNobodyWaitsForAreToldBeforeTheClientHasGone) {
  // One thread of the pool, which both sides share here, is left to tell them.
  constexpr int kCalls = 3;
  Event leave;
  server_.on("stuck", [&leave] { leave.WaitFor(); });
  std::atomic<int> told{0};
  {
    mivo::Client client(address_);
    for (int i = 0; i < kCalls; ++i) {
      client.then(
          [&](const mivo::Result<void>& result) {
            if (!result && result.error().code() == mivo::Disconnected::kCode) ++told;
          },
          "stuck");
    }
  }
  EXPECT_EQ(told, kCalls);
  leave.Signal();
  // The handlers still use what goes with this function.
  server_.close();
}

TEST_P(RpcCalls, OfAServerReachWhoeverIsConnectedAndNobodyElse) {
  std::mutex mutex;
  std::vector<mivo::Caller> registered;
  server_.on("register", [&](mivo::Caller& caller) {
    const std::lock_guard<std::mutex> lock(mutex);
    registered.push_back(caller);
  });
  std::atomic<int> notes{0};
  Event both;
  const auto note = [&](int number) {
    if ((notes += number) == 14) both.Signal();
  };
  mivo::Client first(address_);
  first.on("note", note);
  {
    mivo::Client second(address_);
    second.on("note", note);
    first.call("register");
    second.call("register");
    server_.broadcast("note", 7);
    EXPECT_TRUE(both.WaitFor());
    EXPECT_EQ(server_.clients().size(), 2U);
  }
  EXPECT_TRUE(mivo_test::Eventually([this] { return server_.clients().size() == 1; }));
  const std::vector<mivo::Caller> callers = [&] {
    const std::lock_guard<std::mutex> lock(mutex);
    return registered;
  }();
  ASSERT_EQ(callers.size(), 2U);
  EXPECT_THROW(callers.at(1).call("note", 1), mivo::NotConnected);
  callers.at(1).post("note", 1000);
  callers.at(0).call("note", 1);
  EXPECT_EQ(notes, 15);
  EXPECT_EQ(callers.at(0).async("note", 1).wait_for(60s), std::future_status::ready);
}

TEST_P(RpcCalls, AreServedAgainAfterAClose) {
  server_.on("one", [] { return 1; });
  server_.close();
  EXPECT_THROW(mivo::Client client(address_), mivo::NotConnected);
  server_.listen(address_);
  EXPECT_EQ(mivo::Client(address_).call<int>("one"), 1);
}

// A call that is refused because the connection ends may have been told, and deleted, by then.
TEST_P(RpcCalls, ThatAreBegunWhileTheConnectionEndsAreToldOnceEach) {
  constexpr int kRounds = 40;
  server_.on("one", [] { return 1; });
  for (int round = 0; round < kRounds / mivo_test::kScaledown; ++round) {
    std::atomic<int> told{0};
    std::atomic<int> begun{0};
    mivo::Client client(address_);
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
      threads.emplace_back([&] {
        while (client.is_connected()) {
          ++begun;
          client.then([&](const mivo::Result<void>&) { ++told; }, "one");
        }
      });
    }
    EXPECT_TRUE(mivo_test::Eventually([&] { return told > 100; }));
    server_.close();
    for (std::thread& thread : threads)
      thread.join();
    EXPECT_TRUE(mivo_test::Eventually([&] { return told == begun; }));
    server_.listen(address_);
  }
}

TEST(RpcServer, SaysThatItCannotListen) {
  const std::string address = AddressOn(Transport::Tcp4);
  mivo::Server first;
  first.listen(address);
  mivo::Server second;
  EXPECT_THROW(second.listen(address), mivo::Error);
}

TEST(RpcServer, RefusesNamesThatAreTheLibrarysOwn) {
  mivo::Server server;
  for (const std::string& name :
       {std::string("s_c_connect"), std::string("retval"), std::string(), std::string("a\0b", 3)})
    EXPECT_THROW(server.on(name, [] {}), std::invalid_argument) << name;
}

TEST(RpcClient, RefusesASecondHandlerOfAName) {
  const std::string address = AddressOn(Transport::Local);
  mivo::Server server;
  server.listen(address);
  mivo::Client client(address);
  client.on("name", [] {});
  EXPECT_THROW(client.on("name", [] {}), std::logic_error);
}

TEST(RpcAddress, IsReadOrRefusedWithItsReason) {
  using mivo::Address;
  using mivo::AddressKind;
  EXPECT_EQ(Address::Parse("unix:jobs").kind, AddressKind::kName);
  EXPECT_EQ(Address::Parse("unix:jobs").where, "jobs");
  EXPECT_EQ(Address::Parse("unix:/run/jobs").kind, AddressKind::kPath);
  EXPECT_EQ(Address::Parse("unix:/run/jobs").where, "/run/jobs");
  EXPECT_EQ(Address::Parse("unix:./jobs").kind, AddressKind::kPath);
  EXPECT_EQ(Address::Parse("tcp:127.0.0.1:80").where, "127.0.0.1");
  EXPECT_EQ(Address::Parse("tcp:127.0.0.1:80").port, "80");
  EXPECT_EQ(Address::Parse("tcp:[::1]:65535").kind, AddressKind::kTcp6);
  EXPECT_EQ(Address::Parse("tcp:[::1]:65535").where, "::1");
  for (const std::string& wrong :
       {std::string(), std::string("jobs"), std::string("unix:"), "unix:/" + std::string(107, 'x'),
        "unix:" + std::string(93, 'x'), std::string("tcp:127.0.0.1"), std::string("tcp::80"),
        std::string("tcp:localhost:80"), std::string("tcp:127.0.0.1:"), std::string("tcp:127.0.0.1:65536"),
        std::string("tcp:127.0.0.1:8x")}) {
    EXPECT_THROW(Address::Parse(wrong), std::invalid_argument) << wrong;
  }
}

}  // namespace
