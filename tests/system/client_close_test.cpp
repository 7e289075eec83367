#include <mivo/mivo.h>

#include "support/event.h"
#include "support/journal.h"
#include "support/raw_server.h"
#include "support/stdout_capture.h"
#include "support/teardown.h"
#include "support/test_client.h"
#include "support/test_server.h"
#include "support/transport.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

using namespace mivo_test;

namespace {

// Time for something to go wrong that must not.
constexpr std::chrono::milliseconds kMoment{50};

class ClientClose : public testing::TestWithParam<Transport> {
 protected:
  bool IsLocal() const { return GetParam() == Transport::Local; }

  RawServer server_{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, ClientClose, kEveryTransport, TransportName);

// The lines of `all` that are in `wanted`, in the order of `all`.
std::vector<std::string> Only(const std::string& all, const std::vector<std::string>& wanted) {
  std::vector<std::string> found;
  for (std::size_t begin = 0; begin < all.size();) {
    const std::size_t end = std::min(all.find('\n', begin), all.size());
    const std::string line = all.substr(begin, end - begin);
    for (const std::string& one : wanted) {
      if (line == one) found.push_back(line);
    }
    begin = end + 1;
  }
  return found;
}

// True when the connection ends, whatever was sent before.
bool EndsInTheEnd(RawPeer* peer) {
  while (peer->ReadFrame().has_value()) {
  }
  return peer->ReadEof(std::chrono::milliseconds(0));
}

TEST_P(ClientClose, WaitsForTheLoopThreadAndATenthOfASecondMore) {
  const Resources before = CountResourcesWhenWarm();
  const std::set<int> threads_before = Threads();
  TestClient client;
  {
    RawPeer peer = client.InitAgainst(server_);
    ASSERT_TRUE(peer.connected());
    EXPECT_TRUE(HasNewThreads(threads_before, 1));
    const Stopwatch watch;
    client->close();
    EXPECT_GE(watch.ElapsedMs(), 99);
    EXPECT_LT(watch.ElapsedMs(), 20000);
    EXPECT_FALSE(client->isok());
    EXPECT_TRUE(HasNewThreads(threads_before, 0));
  }
  ExpectSameResources(before);
}

TEST_P(ClientClose, PrintsTheLinesOfBothThreadsEachInTheirOrder) {
  TestClient client;
  RawPeer peer = client.InitAgainst(server_);
  ASSERT_TRUE(peer.connected());
  StdoutCapture output;
  client->close();
  const std::string printed = output.Text();
  const std::string out = IsLocal() ? "out run ....." : "run out";
  EXPECT_EQ(Only(printed, {"Closing!", "Client Closing waiting thread!", "Closed!"}),
            (Lines{"Closing!", "Client Closing waiting thread!", "Closed!", "Closed!"}));
  EXPECT_EQ(Only(printed, {"async_closeing Client!", "closeClient!", "Closed!", "async_closed Client!", out}),
            (Lines{"async_closeing Client!", "closeClient!", "Closed!", "async_closed Client!", out, "Closed!"}));
  EXPECT_EQ(output.Count("\n"), 8) << "and nothing else";
}

TEST_P(ClientClose, EndsTheConnection) {
  TestClient client;
  RawPeer peer = client.InitAgainst(server_);
  client->close();
  EXPECT_TRUE(peer.ReadEof());
}

// --- Where there is nothing to close, or not any more

TEST_P(ClientClose, AClosedClientIsClosedAgainWithoutHarm) {
  TestClient client;
  ASSERT_TRUE(client.InitAgainst(server_).connected());
  client->close();
  StdoutCapture output;
  client->close();
  EXPECT_EQ(output.Text(), "Closing!\nClosed!\n");
}

TEST_P(ClientClose, AClosedClientIsDestroyedWithoutHarm) {
  const Resources before = CountResourcesWhenWarm();
  {
    TestClient client;
    ASSERT_TRUE(client.InitAgainst(server_).connected());
    client->close();
  }
  ExpectSameResources(before);
}

TEST_P(ClientClose, AClientThatCouldNotConnectIsClosedWithoutHarm) {
  TestClient client;
  ASSERT_FALSE(client.Init(FreeAddress(GetParam())));
  StdoutCapture output;
  client->close();
  EXPECT_EQ(output.Text(), "Closing!\nClosed!\n");
}

TEST(FreshClient, IsClosedWithoutHarm) {
  TestClient client;
  StdoutCapture output;
  const Stopwatch watch;
  client->close();
  EXPECT_GE(watch.ElapsedMs(), 99);
  EXPECT_EQ(output.Text(), "Closing!\nClosed!\n");
}

TEST_P(ClientClose, AClientWhoseServerWentAwayIsClosedWithItsThread) {
  const Resources before = CountResourcesWhenWarm();
  const std::set<int> threads_before = Threads();
  TestClient client;
  RawPeer peer = client.InitAgainst(server_);
  peer.Close();
  ASSERT_TRUE(Eventually([&] { return !client->isok(); }));
  EXPECT_TRUE(HasNewThreads(threads_before, 1)) << "the loop still runs";
  const Stopwatch watch;
  {
    StdoutCapture output;
    client->close();
    EXPECT_EQ(output.Count("Client Closing waiting thread!\n"), 1);
    EXPECT_FALSE(output.Contains("bad close"));
  }
  EXPECT_GE(watch.ElapsedMs(), 99);
  EXPECT_FALSE(client->isok());
  ExpectSameResources(before);
}

TEST_P(ClientClose, TwoThreadsMayCloseAtOnce) {
  const Resources before = CountResourcesWhenWarm();
  for (int round = 0; round < 3; ++round) {
    TestClient client;
    Deletions deletions;
    client.On("name", nullptr, &deletions);
    RawPeer peer = client.InitAgainst(server_);
    ASSERT_TRUE(peer.connected());
    std::atomic<bool> go{false};
    std::vector<std::thread> closers;
    for (int i = 0; i < 2; ++i) {
      closers.emplace_back([&] {
        while (!go)
          std::this_thread::yield();
        client->close();
        EXPECT_FALSE(client->isok());
        EXPECT_EQ(deletions.count, 1) << "closed is closed for the second, too";
      });
    }
    go = true;
    for (std::thread& closer : closers)
      closer.join();
    EXPECT_TRUE(peer.ReadEof());
  }
  ExpectSameResources(before);
}

TEST_P(ClientClose, DestroyClosesFirst) {
  const Resources before = CountResourcesWhenWarm();
  Deletions deletions;
  {
    TestClient client;
    client.On("name", nullptr, &deletions);
    RawPeer peer = client.InitAgainst(server_);
    ASSERT_TRUE(peer.connected());
    StdoutCapture output;
    client.Destroy();
    EXPECT_EQ(output.Count("Client Closing waiting thread!\n"), 1);
    EXPECT_EQ(output.Count("Closed!\n"), 2);
    EXPECT_EQ(deletions.count, 1);
    EXPECT_TRUE(peer.ReadEof());
  }
  ExpectSameResources(before);
}

TEST_P(ClientClose, DeletingTheObjectEndsItsThreadFirst) {
  const Resources before = CountResourcesWhenWarm();
  {
    TestClient client;
    RawPeer peer = client.InitAgainst(server_);
    ASSERT_TRUE(peer.connected());
    delete client.Release();
    EXPECT_TRUE(peer.ReadEof());
  }
  ExpectSameResources(before);
}

// --- Calls that wait

TEST_P(ClientClose, WakesTheCallsThatWaitWithNoReply) {
  TestClient client;
  RawPeer peer = client.InitAgainst(server_);
  ASSERT_TRUE(peer.connected());
  PendingCall serialised([&] { return client->SendMsg("silence", nullptr, 0, 0); });
  PendingCall fast([&] { return client->SendMsgFast("silence", nullptr, 0, 0); });
  PendingCall bounded([&] { return client->SendMsgFast("silence", nullptr, 0, 100000); });
  for (int i = 0; i < 3; ++i)
    ASSERT_TRUE(peer.ReadFrame().has_value());
  client->close();
  EXPECT_EQ(TakeError(serialised.Wait()), -1001);
  EXPECT_EQ(TakeError(fast.Wait()), -1001);
  EXPECT_EQ(TakeError(bounded.Wait()), -1001);
}

TEST_P(ClientClose, WakesALargeCallWithNotConnected) {
  TestServer server(GetParam());
  ASSERT_TRUE(server.Init());
  Event called;
  Event release;
  server.On("slow", [&](int, MIVOParams*, MIVOParams*) {
    called.Signal();
    release.WaitFor();
  });
  TestClient client;
  ASSERT_TRUE(client.Init(server.address()));
  MIVOParams params;
  params.AddInt(1);
  PendingCall call([&] { return client->SendMsgEx("slow", &params, 0, 0); });
  ASSERT_TRUE(called.WaitFor());
  client->close();
  EXPECT_EQ(TakeError(call.Wait()), -1000);
  release.Signal();
}

TEST_P(ClientClose, AWokenCallLeavesTheTurnToTheNext) {
  TestClient client;
  RawPeer peer = client.InitAgainst(server_);
  ASSERT_TRUE(peer.connected());
  PendingCall first([&] { return client->SendMsg("silence", nullptr, 0, 0); });
  ASSERT_TRUE(peer.ReadFrame().has_value());
  PendingCall second([&] { return client->SendMsg("silence", nullptr, 0, 0); });
  EXPECT_TRUE(peer.ExpectSilence(kMoment));
  client->close();
  EXPECT_EQ(TakeError(first.Wait()), -1001);
  EXPECT_EQ(TakeError(second.Wait()), -1000);
}

TEST_P(ClientClose, DestroyWaitsForTheCallsItWakes) {
  for (int round = 0; round < 3; ++round) {
    TestClient client;
    RawPeer peer = client.InitAgainst(server_);
    ASSERT_TRUE(peer.connected());
    IClient* const raw = client.get();
    PendingCall call([raw] { return raw->SendMsgFast("silence", nullptr, 0, 0); });
    ASSERT_TRUE(peer.ReadFrame().has_value());
    client.Destroy();
    EXPECT_EQ(TakeError(call.Wait()), -1001);
  }
}

// --- Handlers

TEST_P(ClientClose, DeletesEveryHandlerOnce) {
  Deletions deletions;
  TestClient client;
  client.On("a", nullptr, &deletions);
  client.On("b", nullptr, &deletions);
  client.On("s_c_closed", nullptr, &deletions);
  client->methodall(new LambdaMethodAll(nullptr, &deletions));
  ASSERT_TRUE(client.InitAgainst(server_).connected());
  EXPECT_EQ(deletions.count, 0);
  client->close();
  EXPECT_EQ(deletions.count, 4);
  client->close();
  client.Destroy();
  EXPECT_EQ(deletions.count, 4);
}

TEST_P(ClientClose, AHandlerUnderTwoNamesIsDeletedOnce) {
  Deletions deletions;
  TestClient client;
  auto* const handler = new LambdaMethod(nullptr, &deletions);
  client->method("a", handler);
  client->method("b", handler);
  client->method("s_c_closed", handler);
  ASSERT_TRUE(client.InitAgainst(server_).connected());
  client.Destroy();
  EXPECT_EQ(deletions.count, 1);
}

TEST_P(ClientClose, CustomReleaseLeavesTheHandlersToTheApplication) {
  Deletions deletions;
  {
    LambdaMethod handler(nullptr, &deletions);
    LambdaMethodAll catch_all(nullptr, &deletions);
    TestClient client;
    client->SetCustomReleaseEvent();
    client->method("a", &handler);
    client->methodall(&catch_all);
    ASSERT_TRUE(client.InitAgainst(server_).connected());
    client->close();
    client.Destroy();
    EXPECT_EQ(deletions.count, 0);
  }
  EXPECT_EQ(deletions.count, 2);
}

TEST_P(ClientClose, AHandlerLivesUntilItHasReturned) {
  Event called;
  Event release;
  Deletions deletions;
  std::atomic<int> deleted_while_running{-1};
  TestClient client;
  client.On(
      "slow",
      [&](int, MIVOParams*, MIVOParams*) {
        called.Signal();
        release.WaitFor();
        deleted_while_running = deletions.count.load();
      },
      &deletions);
  RawPeer peer = client.InitAgainst(server_);
  ASSERT_TRUE(peer.SendFrame(Request({"slow", 1})));
  ASSERT_TRUE(called.WaitFor());
  Event closed;
  std::thread closing([&] {
    client->close();
    EXPECT_EQ(deleted_while_running, 0) << "close has waited for the handler";
    EXPECT_EQ(deletions.count, 1);
    closed.Signal();
  });
  EXPECT_TRUE(peer.ReadEof());
  EXPECT_FALSE(closed.WaitFor(1, kMoment));
  release.Signal();
  EXPECT_TRUE(closed.WaitFor());
  closing.join();
}

TEST_P(ClientClose, QueuedRequestsOfAClosedClientDoNoHarm) {
  Event called;
  Event release;
  Deletions deletions;
  TestClient client;
  client.On(
      "slow",
      [&](int, MIVOParams*, MIVOParams*) {
        called.Signal();
        release.WaitFor();
      },
      &deletions);
  RawPeer peer = client.InitAgainst(server_);
  for (int i = 0; i < 20; ++i)
    ASSERT_TRUE(peer.SendFrame(Request({"slow", i + 1})));
  ASSERT_TRUE(called.WaitFor());
  ASSERT_TRUE(peer.WaitUntilTaken());
  std::thread closing([&] { client->close(); });
  EXPECT_TRUE(peer.ReadEof());
  release.Signal();
  closing.join();
  EXPECT_EQ(deletions.count, 1);
}

TEST_P(ClientClose, AReplyHeldByAHandlerOutlivesTheClose) {
  TestServer server(GetParam());
  server.On("text", [](int, MIVOParams*, MIVOParams* reply) { reply->AddString("as it was"); });
  server.On("ring", [&](int id, MIVOParams*, MIVOParams*) { server->PostMsg(id, "read", nullptr, 0); });
  ASSERT_TRUE(server.Init());
  Event got;
  Event release;
  std::string text;
  TestClient client;
  client.On("read", [&](int, MIVOParams*, MIVOParams*) {
    MIVOParams* const reply = client->SendMsgFast("text", nullptr, 0, 0);
    got.Signal();
    release.WaitFor();
    const MIVOValue* const value = reply->GetValue(0);
    text = value != nullptr ? value->GetString() : "nothing";
  });
  ASSERT_TRUE(client.Init(server.address()));
  client->PostMsgFast("ring", nullptr, 0);
  ASSERT_TRUE(got.WaitFor());
  std::thread closing([&] { client->close(); });
  EXPECT_TRUE(Eventually([&] { return !client->isok(); }));
  release.Signal();
  closing.join();
  EXPECT_EQ(text, "as it was");
}

// --- From inside

TEST_P(ClientClose, AHandlerMayCloseItsClient) {
  const Resources before = CountResourcesWhenWarm();
  {
    Event closed;
    Deletions deletions;
    TestClient client;
    client.On(
        "close",
        [&](int, MIVOParams*, MIVOParams*) {
          client->close();
          closed.Signal();
        },
        &deletions);
    RawPeer peer = client.InitAgainst(server_);
    ASSERT_TRUE(peer.SendFrame(Request({"close", 1})));
    EXPECT_TRUE(closed.WaitFor());
    EXPECT_TRUE(Eventually([&] { return !client->isok(); }));
    EXPECT_TRUE(EndsInTheEnd(&peer));
    client->close();
    EXPECT_EQ(deletions.count, 1);
  }
  ExpectSameResources(before);
}

TEST_P(ClientClose, ACloseNoticeMayCloseItsClient) {
  const Resources before = CountResourcesWhenWarm();
  {
    Event closed;
    Deletions deletions;
    TestClient client;
    client.On(
        "s_c_closed",
        [&](int, MIVOParams*, MIVOParams*) {
          client->close();
          closed.Signal();
        },
        &deletions);
    RawPeer peer = client.InitAgainst(server_);
    peer.Close();
    EXPECT_TRUE(closed.WaitFor());
    EXPECT_TRUE(Eventually([&] { return !client->isok(); }));
    client.Destroy();
    EXPECT_EQ(deletions.count, 1);
    EXPECT_EQ(closed.count(), 1);
  }
  ExpectSameResources(before);
}

TEST_P(ClientClose, AHandlerMayDestroyItsClient) {
  const Resources before = CountResourcesWhenWarm();
  Deletions deletions;
  {
    Event destroyed;
    TestClient owner;
    IClient* const client = owner.get();
    owner.On(
        "destroy",
        [&](int, MIVOParams*, MIVOParams*) {
          DestroyClient(client);
          destroyed.Signal();
        },
        &deletions);
    RawPeer peer = owner.InitAgainst(server_);
    owner.Release();
    ASSERT_TRUE(peer.SendFrame(Request({"destroy", 1})));
    EXPECT_TRUE(destroyed.WaitFor());
    EXPECT_TRUE(EndsInTheEnd(&peer));
    EXPECT_TRUE(Eventually([&] { return deletions.count == 1; }));
    ExpectSameResources({before.threads, before.descriptors + 1});
  }
  ExpectSameResources(before);
}

TEST_P(ClientClose, ACloseNoticeMayDestroyItsClient) {
  const Resources before = CountResourcesWhenWarm();
  Deletions deletions;
  {
    Event destroyed;
    TestClient owner;
    IClient* const client = owner.get();
    owner.On(
        "s_c_closed",
        [&](int, MIVOParams*, MIVOParams*) {
          DestroyClient(client);
          destroyed.Signal();
        },
        &deletions);
    RawPeer peer = owner.InitAgainst(server_);
    owner.Release();
    peer.Close();
    EXPECT_TRUE(destroyed.WaitFor());
    EXPECT_TRUE(Eventually([&] { return deletions.count == 1; }));
  }
  ExpectSameResources(before);
}

TEST_P(ClientClose, NothingIsCalledAfterTheCloseHasReturned) {
  std::atomic<bool> over{false};
  std::atomic<int> late{0};
  LambdaMethod counting([&](int, MIVOParams*, MIVOParams*) { late += over ? 1 : 0; });
  for (int round = 0; round < 5; ++round) {
    over = false;
    TestClient client;
    client->SetCustomReleaseEvent();
    client->method("count", &counting);
    client->method("s_c_closed", &counting);
    RawPeer peer = client.InitAgainst(server_);
    std::atomic<bool> stop{false};
    std::thread sending([&] {
      for (int i = 1; !stop && peer.SendFrame(Request({"count", i})); ++i) {
        if (!peer.ReadFrame().has_value()) break;
      }
    });
    client->close();
    over = true;
    stop = true;
    sending.join();
    peer.Close();
  }
  EXPECT_EQ(late, 0);
}

}  // namespace
