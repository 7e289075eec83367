// Clients that reconnect: away from their servers, at the door of servers that do not serve, and at their end.
#include <mivo/rpc.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/background.h"
#include "support/event.h"
#include "support/raw_server.h"
#include "support/sanitizers.h"
#include "support/thread_state.h"
#include "support/transport.h"
#include "support/wire.h"
#include "system/rpc_reconnect.h"

namespace {

using mivo_test::Background;
using mivo_test::CodeOf;
using mivo_test::Codes;
using mivo_test::Endings;
using mivo_test::Event;
using mivo_test::Eventually;
using mivo_test::kBackWithinMs;
using mivo_test::kOverrunMs;
using mivo_test::RawPeer;
using mivo_test::RawServer;
using mivo_test::Reconnecting;
using mivo_test::RpcAddress;
using mivo_test::Stopwatch;
using mivo_test::Transport;
using namespace std::chrono_literals;

// A destructor that waits for nobody but the connection.
constexpr long long kGoneWithinMs = 1000 * mivo_test::kSlowdown;
constexpr std::chrono::minutes kNotInThisTest{10};

class RpcReconnect : public testing::TestWithParam<Transport> {
 protected:
  RpcReconnect() {
    server_.on("one", [] { return 1; });
  }

  const std::string address_ = RpcAddress(mivo_test::FreeAddress(GetParam()));
  mivo::Server server_;
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, RpcReconnect, mivo_test::kEveryTransport, mivo_test::TransportName);

TEST_P(RpcReconnect, AnswersWhatWasCalledBeforeThereWasAServer) {
  std::atomic<int> told{0};
  Event then_told;
  mivo::Client client(address_, Reconnecting());
  EXPECT_FALSE(client.is_connected());
  Background<int> waiting([&] { return client.call<int>("one"); });
  std::future<int> future = client.async<int>("one");
  client.then<int>(
      [&](const mivo::Result<int>& result) {
        if (result) told += *result;
        then_told.Signal();
      },
      "one");
  EXPECT_TRUE(Eventually([&] { return client.last_error().find(address_ + ": cannot connect") == 0; }));
  EXPECT_FALSE(waiting.IsDone());
  EXPECT_EQ(future.wait_for(0s), std::future_status::timeout);
  server_.listen(address_);
  const Stopwatch watch;
  EXPECT_EQ(waiting.Get(), 1);
  EXPECT_LE(watch.ElapsedMs(), kBackWithinMs);
  EXPECT_EQ(future.get(), 1);
  EXPECT_TRUE(then_told.WaitFor());
  EXPECT_EQ(told, 1);
  EXPECT_TRUE(client.is_connected());
  EXPECT_EQ(client.last_error(), "");
}

TEST_P(RpcReconnect, FailsAtOnceWhileAwayIfItIsToWaitForNothing) {
  Endings endings;
  mivo::ClientOptions options = Reconnecting();
  options.while_away = mivo::WhileAway::kFail;
  mivo::Client client(address_, options);
  const Stopwatch watch;
  EXPECT_THROW(client.call("one"), mivo::NotConnected);
  EXPECT_THROW(client.idempotent().call("one"), mivo::NotConnected);
  EXPECT_THROW(client.async("one").get(), mivo::NotConnected);
  client.then(endings.Next(), "one");
  EXPECT_TRUE(endings.WaitFor(1));
  EXPECT_EQ(endings.codes(), Codes{mivo::NotConnected::kCode});
  EXPECT_LE(watch.ElapsedMs(), kBackWithinMs);
  server_.listen(address_);
  EXPECT_TRUE(client.wait_until_ready(mivo_test::kPatience));
  EXPECT_EQ(client.call<int>("one"), 1);
}

TEST_P(RpcReconnect, EndsCallsByTheirDeadlinesWhileAway) {
  Endings endings;
  std::string code_of_next;
  mivo::Client client(address_, Reconnecting());
  const Stopwatch watch;
  client.within(300ms).then(
      [&](const mivo::Result<void>&) {
        // It would hold up those that end next.
        code_of_next = CodeOf(client.try_call("one"));
      },
      "one");
  client.within(300ms).then(endings.Next(), "one");
  std::future<void> future = client.within(300ms).async("one");
  EXPECT_THROW(client.within(300ms).call("one"), mivo::NotConnected);
  EXPECT_GE(watch.ElapsedMs(), 300);
  EXPECT_THROW(future.get(), mivo::NotConnected);
  EXPECT_TRUE(endings.WaitFor(1));
  EXPECT_LE(watch.ElapsedMs(), 300 + kOverrunMs);
  EXPECT_EQ(endings.codes(), Codes{mivo::NotConnected::kCode});
  EXPECT_EQ(code_of_next, mivo::NotConnected::kCode);

  const Stopwatch ready;
  EXPECT_FALSE(client.wait_until_ready(100ms));
  EXPECT_GE(ready.ElapsedMs(), 100);
  EXPECT_LE(ready.ElapsedMs(), 100 + kOverrunMs);
}

TEST_P(RpcReconnect, EndsCallsByTheirDeadlinesWhileItConnectsToAServerThatIsMute) {
  RawServer mute(GetParam());
  Endings endings;
  mivo::ClientOptions options = Reconnecting();
  options.connect_deadline = kNotInThisTest;
  mivo::Client client(RpcAddress(mute.address()), options);
  const RawPeer peer = mute.Accept();
  ASSERT_TRUE(peer.connected());
  const Stopwatch watch;
  client.within(300ms).then(endings.Next(), "one");
  EXPECT_THROW(client.within(300ms).call("one"), mivo::NotConnected);
  EXPECT_TRUE(endings.WaitFor(1));
  EXPECT_LE(watch.ElapsedMs(), 300 + kOverrunMs);
  EXPECT_EQ(endings.codes(), Codes{mivo::NotConnected::kCode});
}

TEST_P(RpcReconnect, TriesAgainWhenItsServerDoesNotAnswerInTime) {
  RawServer mute(GetParam());
  mivo::ClientOptions options = Reconnecting();
  options.connect_deadline = 700ms;
  mivo::Client client(RpcAddress(mute.address()), options);
  const RawPeer first = mute.Accept();
  ASSERT_TRUE(first.connected());
  const Stopwatch watch;
  RawPeer second = mute.Accept();
  EXPECT_TRUE(second.connected());
  EXPECT_GE(watch.ElapsedMs(), 600);
  EXPECT_LE(watch.ElapsedMs(), 700 + kOverrunMs + kBackWithinMs);
  EXPECT_NE(client.last_error().find("no answer in time"), std::string::npos) << client.last_error();
  EXPECT_TRUE(mivo_test::AnswerHandshake(&second));
  EXPECT_TRUE(client.wait_until_ready(mivo_test::kPatience));
  EXPECT_EQ(client.last_error(), "");
}

TEST_P(RpcReconnect, SendsWhatHasWaitedInItsOrderAndFirst) {
  RawServer server(GetParam());
  mivo::Client client(RpcAddress(server.address()), Reconnecting());
  for (const char* const name : {"first", "second", "third"})
    client.post(name);
  Background<bool> later([&] {
    const bool is_ready = client.wait_until_ready(mivo_test::kPatience);
    client.post("last");
    return is_ready;
  });
  RawPeer peer = server.AcceptAndAnswerHandshake();
  ASSERT_TRUE(peer.connected());
  for (const char* const name : {"first", "second", "third", "last"})
    EXPECT_EQ(mivo_test::TextOf(peer.ReadFrame().value_or(""), "s_c_sw_name"), name);
  EXPECT_TRUE(later.Get());
}

TEST_P(RpcReconnect, DoesNotWaitOutThePauseWhenItIsTold) {
  mivo::ClientOptions options = Reconnecting();
  options.shortest_pause = kNotInThisTest;
  mivo::Client client(address_, options);
  EXPECT_TRUE(Eventually([&] { return !client.last_error().empty(); }));
  server_.listen(address_);
  EXPECT_FALSE(client.wait_until_ready(300ms));
  client.retry_now();
  const Stopwatch watch;
  EXPECT_EQ(client.call<int>("one"), 1);
  EXPECT_LE(watch.ElapsedMs(), kBackWithinMs);
}

TEST_P(RpcReconnect, DoesNotKeepAskingAServerThatClosesAtOnce) {
  for (const bool answers_first : {false, true}) {
    RawServer rude(GetParam());
    const mivo::Client client(RpcAddress(rude.address()), Reconnecting());
    int accepted = 0;
    const Stopwatch watch;
    while (watch.ElapsedMs() < 1000) {
      RawPeer peer = rude.Accept(std::chrono::milliseconds(std::max(1LL, 1000 - watch.ElapsedMs())));
      if (!peer.connected()) continue;
      if (answers_first) mivo_test::AnswerHandshake(&peer);
      ++accepted;
    }
    // Pauses of 5 ms, 10, 20, ... 100, 100 at the shortest.
    EXPECT_LE(accepted, 20) << answers_first;
    EXPECT_GE(accepted, 2) << answers_first;
  }
}

TEST_P(RpcReconnect, GivesUpAConnectionOfWhichTheFirstStepFails) {
  std::atomic<int> begun{0};
  Event fine;
  server_.listen(address_);
  mivo::ClientOptions options = Reconnecting();
  options.shortest_pause = kNotInThisTest;
  mivo::Client client(address_, options);
  client.on_ready([&] {
    ++begun;
    if (begun == 1) throw mivo::Error("test.first", "not at the first");
    if (begun == 2) throw 2;
    fine.Signal();
  });
  EXPECT_TRUE(Eventually([&] { return client.last_error() == "not at the first" && !client.is_connected(); }));
  EXPECT_TRUE(Eventually([this] { return server_.clients().empty(); }));
  client.retry_now();
  EXPECT_TRUE(Eventually([&] { return client.last_error() == "unknown exception" && !client.is_connected(); }));
  client.retry_now();
  EXPECT_TRUE(fine.WaitFor());
  EXPECT_EQ(begun, 3);
  EXPECT_EQ(client.call<int>("one"), 1);
  EXPECT_EQ(client.last_error(), "");
}

TEST_P(RpcReconnect, IsNotHeldUpByItsOwnFirstStepThatFindsTheConnectionGone) {
  std::atomic<int> begun{0};
  Event first_runs;
  Event second_done;
  std::string first_code;
  server_.listen(address_);
  mivo::Client client(address_, Reconnecting(kNotInThisTest));
  client.on_ready([&] {
    if (++begun == 1) {
      first_runs.Signal();
      Eventually([&] { return !client.is_connected(); });
      first_code = CodeOf(client.idempotent().try_call("one"));
      EXPECT_THROW(client.async("one").get(), mivo::NotConnected);
      client.call("one");
    }
    second_done.Signal();
  });
  EXPECT_TRUE(first_runs.WaitFor());
  server_.close();
  server_.listen(address_);
  EXPECT_TRUE(second_done.WaitFor());
  EXPECT_EQ(first_code, mivo::NotConnected::kCode);
  EXPECT_EQ(begun, 2);
}

TEST_P(RpcReconnect, IsNotHeldUpByHandlersAndCompletionsThatFindTheConnectionGone) {
  Event handler_runs;
  Event completion_done;
  Event handler_done;
  Event leave;
  std::string handler_code;
  std::string completion_code;
  server_.on("stuck", [&] { leave.WaitFor(); });
  server_.on("ask", [](mivo::Caller& caller) { caller.post("yours"); });
  server_.listen(address_);
  mivo::Client client(address_, Reconnecting(kNotInThisTest));
  client.on("yours", [&] {
    handler_runs.Signal();
    Eventually([&] { return !client.is_connected(); });
    handler_code = CodeOf(client.try_call("one"));
    handler_done.Signal();
  });
  client.then(
      [&](const mivo::Result<void>&) {
        completion_code = CodeOf(client.try_call("one"));
        completion_done.Signal();
      },
      "stuck");
  client.call("ask");
  EXPECT_TRUE(handler_runs.WaitFor());
  Background<bool> closing([&] {
    server_.close();
    return true;
  });
  EXPECT_TRUE(handler_done.WaitFor());
  EXPECT_TRUE(completion_done.WaitFor());
  EXPECT_EQ(handler_code, mivo::NotConnected::kCode);
  EXPECT_EQ(completion_code, mivo::NotConnected::kCode);
  leave.Signal();
  closing.Get();
  server_.listen(address_);
  EXPECT_EQ(client.call<int>("one"), 1);
}

TEST_P(RpcReconnect, EndsWithEverybodyToldWhileAway) {
  Endings endings;
  auto client = std::make_unique<mivo::Client>(address_, Reconnecting());
  Background<std::string> waiting([&] { return CodeOf(client->try_call("one")); });
  Background<bool> waiting_until_ready([&] { return client->wait_until_ready(kNotInThisTest); });
  constexpr int kCalls = 1000;
  for (int i = 0; i < kCalls; ++i)
    client->then(endings.Next(), "one");
  client->post("one");
  EXPECT_TRUE(mivo_test::WaitUntilAsleep(waiting.thread_id()));
  EXPECT_TRUE(mivo_test::WaitUntilAsleep(waiting_until_ready.thread_id()));
  const Stopwatch watch;
  client.reset();
  EXPECT_LE(watch.ElapsedMs(), kGoneWithinMs);
  EXPECT_EQ(waiting.Get(), mivo::NotConnected::kCode);
  EXPECT_FALSE(waiting_until_ready.Get());
  EXPECT_EQ(endings.codes(), Codes(kCalls, mivo::NotConnected::kCode));
}

TEST_P(RpcReconnect, EndsWithEverybodyToldWhileConnected) {
  Endings endings;
  Event leave;
  server_.on("stuck", [&leave] { leave.WaitFor(); });
  server_.listen(address_);
  auto client = std::make_unique<mivo::Client>(address_, Reconnecting());
  // Inside the first step of the connection, and outside.
  Event in_step;
  std::string step_code;
  client->on_ready([&, within = client->idempotent()] {
    in_step.Signal();
    step_code = CodeOf(within.try_call("stuck"));
  });
  EXPECT_TRUE(in_step.WaitFor());
  Background<std::string> waiting([&, within = client->idempotent()] { return CodeOf(within.try_call("stuck")); });
  // One thread of the pool, which both sides share here, is left to tell it.
  client->idempotent().then(endings.Next(), "stuck");
  EXPECT_TRUE(mivo_test::WaitUntilAsleep(waiting.thread_id()));
  const Stopwatch watch;
  client.reset();
  EXPECT_LE(watch.ElapsedMs(), kGoneWithinMs);
  // These may have been carried out.
  EXPECT_EQ(waiting.Get(), mivo::Disconnected::kCode);
  EXPECT_EQ(step_code, mivo::Disconnected::kCode);
  EXPECT_EQ(endings.codes(), Codes{mivo::Disconnected::kCode});
  leave.Signal();
  server_.close();
}

TEST_P(RpcReconnect, EndsWhileItConnectsToAServerThatIsMute) {
  RawServer mute(GetParam());
  Endings endings;
  mivo::ClientOptions options = Reconnecting();
  options.connect_deadline = kNotInThisTest;
  auto client = std::make_unique<mivo::Client>(RpcAddress(mute.address()), options);
  const RawPeer peer = mute.Accept();
  ASSERT_TRUE(peer.connected());
  client->then(endings.Next(), "one");
  const Stopwatch watch;
  client.reset();
  EXPECT_LE(watch.ElapsedMs(), kGoneWithinMs);
  EXPECT_EQ(endings.codes(), Codes{mivo::NotConnected::kCode});
}

TEST_P(RpcReconnect, RefusesNoServerThatIsNotThereYetButWhatIsNoAddress) {
  EXPECT_THROW(mivo::Client("tcp:nowhere:1", Reconnecting()), std::invalid_argument);
  EXPECT_NO_THROW(mivo::Client(address_, Reconnecting()));
}

TEST_P(RpcReconnect, LeavesAClientThatDoesNotReconnectAsItIs) {
  server_.listen(address_);
  mivo::Client client(address_);
  EXPECT_THROW(client.on_ready([] { throw mivo::Error("test.here", "here and now"); }), mivo::Error);
  EXPECT_TRUE(client.wait_until_ready(1ms));
  server_.close();
  EXPECT_TRUE(Eventually([&] { return !client.is_connected(); }));
  EXPECT_THROW(client.call("one"), mivo::NotConnected);
  const Stopwatch watch;
  EXPECT_FALSE(client.wait_until_ready(kNotInThisTest));
  EXPECT_LE(watch.ElapsedMs(), kBackWithinMs);
}

}  // namespace
