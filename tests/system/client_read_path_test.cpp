#include <mivo/mivo.h>

#include "support/event.h"
#include "support/journal.h"
#include "support/raw_server.h"
#include "support/stdout_capture.h"
#include "support/test_client.h"
#include "support/test_server.h"
#include "support/transport.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace mivo_test;

namespace {

// Time for the client to do what it must not do.
constexpr std::chrono::milliseconds kMoment{50};

class ClientReadPath : public testing::TestWithParam<Transport> {
 protected:
  RawServer server_{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, ClientReadPath, kEveryTransport, TransportName);

TEST_P(ClientReadPath, RepliesFindTheirCallsInWhateverOrderTheyCome) {
  TestClient client;
  RawPeer peer = client.InitAgainst(server_);
  ASSERT_TRUE(peer.connected());
  PendingCall first([&] { return client->SendMsgFast("first", nullptr, 1, 0); });
  PendingCall second([&] { return client->SendMsgFast("second", nullptr, 2, 0); });
  std::string replies;
  for (int i = 0; i < 2; ++i) {
    const std::string request = peer.ReadFrame().value_or("");
    const int key = IntOf(request, "s_c_sw_threadid").value_or(0);
    replies.insert(0, Frame(ServerReply(Wire().Int(key * 10), key, TextOf(request, "s_c_sw_semid"))));
  }
  ASSERT_TRUE(peer.SendBytes(replies));
  EXPECT_EQ(TakeInt(first.Wait()), 10);
  EXPECT_EQ(TakeInt(second.Wait()), 20);
}

// --- The end of the connection

TEST_P(ClientReadPath, TheEndIsPrintedAndNoticedOnceUnderOneId) {
  Event closed;
  std::atomic<int> id{0};
  std::atomic<bool> sets{false};
  TestClient client;
  client.On("s_c_closed", [&](int client_id, MIVOParams* request, MIVOParams* reply) {
    id = client_id;
    sets = request != nullptr || reply != nullptr;
    closed.Signal();
  });
  RawPeer peer = client.InitAgainst(server_);
  ASSERT_TRUE(peer.connected());
  StdoutCapture output;
  peer.Close();
  ASSERT_TRUE(closed.WaitFor());
  EXPECT_TRUE(Eventually([&] { return !client->isok(); }));
  EXPECT_EQ(output.Text(), "Server Closed: " + std::to_string(id) + "\n");
  EXPECT_FALSE(sets);
  client->close();
  EXPECT_EQ(closed.count(), 1);
}

TEST_P(ClientReadPath, TheIdIsTheOneItsHandlersAreGiven) {
  Event closed;
  std::atomic<int> noticed{0};
  std::atomic<int> called{1};
  TestClient client;
  client.On("name", [&](int client_id, MIVOParams*, MIVOParams*) { called = client_id; });
  client.On("s_c_closed", [&](int client_id, MIVOParams*, MIVOParams*) {
    noticed = client_id;
    closed.Signal();
  });
  RawPeer peer = client.InitAgainst(server_);
  ASSERT_TRUE(peer.Exchange(Request({"name", 1})).has_value());
  peer.Close();
  ASSERT_TRUE(closed.WaitFor());
  EXPECT_EQ(noticed, called);
}

TEST_P(ClientReadPath, AResetIsAnEndLikeAnyOther) {
  Event closed;
  TestClient client;
  client.On("s_c_closed", [&](int, MIVOParams*, MIVOParams*) { closed.Signal(); });
  RawPeer peer = client.InitAgainst(server_);
  PendingCall call([&] { return client->SendMsgFast("silence", nullptr, 0, 0); });
  // Not read, so that the local transport has its reset, too.
  ASSERT_TRUE(peer.WaitReadable());
  StdoutCapture output;
  peer.Reset();
  EXPECT_EQ(TakeError(call.Wait()), -1001);
  EXPECT_EQ(closed.count(), 1);
  EXPECT_FALSE(client->isok());
  EXPECT_EQ(output.Count("Server Closed: "), 1);
  EXPECT_EQ(output.Count("\n"), 1);
}

TEST_P(ClientReadPath, APeerThatSaysNoMoreHasEndedTheConnection) {
  Event closed;
  TestClient client;
  client.On("s_c_closed", [&](int, MIVOParams*, MIVOParams*) { closed.Signal(); });
  RawPeer peer = client.InitAgainst(server_);
  peer.HalfClose();
  EXPECT_TRUE(closed.WaitFor());
  EXPECT_TRUE(peer.ReadEof());
  EXPECT_TRUE(Eventually([&] { return !client->isok(); }));
}

TEST_P(ClientReadPath, APeerMayDieInsideAFrame) {
  const std::string frame = Frame(Request({"name", 1}));
  for (const std::size_t cut : {std::size_t{1}, std::size_t{4}, frame.size() - 1}) {
    std::atomic<int> calls{0};
    TestClient client;
    client.On("name", [&](int, MIVOParams*, MIVOParams*) { ++calls; });
    RawPeer peer = client.InitAgainst(server_);
    ASSERT_TRUE(peer.SendBytes(frame.substr(0, cut)));
    ASSERT_TRUE(peer.WaitUntilTaken());
    PendingCall call([&] { return client->SendMsgFast("silence", nullptr, 0, 0); });
    ASSERT_TRUE(peer.ReadFrame().has_value());
    peer.Close();
    EXPECT_EQ(TakeError(call.Wait()), -1001);
    EXPECT_FALSE(client->isok());
    EXPECT_EQ(calls, 0);
  }
}

TEST_P(ClientReadPath, FramesThatCameBeforeTheEndAreStillHandled) {
  Event called;
  TestClient client;
  client.On("name", [&](int, MIVOParams*, MIVOParams*) { called.Signal(); });
  RawPeer peer = client.InitAgainst(server_);
  PendingCall call([&] { return client->SendMsgFast("foo", nullptr, 9, 0); });
  const std::string request = peer.ReadFrame().value_or("");
  ASSERT_TRUE(peer.SendBytes(Frame(Request({"name", 1})) +
                             Frame(ServerReply(Wire().Int(5), 9, TextOf(request, "s_c_sw_semid")))));
  peer.Close();
  EXPECT_EQ(TakeInt(call.Wait()), 5);
  EXPECT_TRUE(called.WaitFor());
}

TEST_P(ClientReadPath, APeerMayDieWhileItsHandlerRuns) {
  Event called;
  Event release;
  TestClient client;
  client.On("slow", [&](int, MIVOParams*, MIVOParams* reply) {
    called.Signal();
    release.WaitFor();
    reply->AddInt(1);
  });
  RawPeer peer = client.InitAgainst(server_);
  ASSERT_TRUE(peer.SendFrame(Request({"slow", 1})));
  ASSERT_TRUE(called.WaitFor());
  peer.Reset();
  ASSERT_TRUE(Eventually([&] { return !client->isok(); }));
  release.Signal();
  // The reply has nowhere to go; it must not reach whoever comes next.
  RawPeer next = client.InitAgainst(server_);
  ASSERT_TRUE(next.connected());
  EXPECT_TRUE(next.ExpectSilence(kMoment));
}

// --- Who waits

TEST_P(ClientReadPath, EveryCallThatWaitsReturnsWithoutAReplyAndFindsTheClientNotConnected) {
  TestClient client;
  RawPeer peer = client.InitAgainst(server_);
  ASSERT_TRUE(peer.connected());
  const auto call_then_look = [&](bool serialised) {
    MIVOParams* const set =
        serialised ? client->SendMsg("silence", nullptr, 0, 0) : client->SendMsgFast("silence", nullptr, 0, 0);
    EXPECT_FALSE(client->isok());
    return set;
  };
  PendingCall serialised([&] { return call_then_look(true); });
  PendingCall first([&] { return call_then_look(false); });
  PendingCall second([&] { return call_then_look(false); });
  for (int i = 0; i < 3; ++i)
    ASSERT_TRUE(peer.ReadFrame().has_value());
  peer.Close();
  EXPECT_EQ(TakeError(serialised.Wait()), -1001);
  EXPECT_EQ(TakeError(first.Wait()), -1001);
  EXPECT_EQ(TakeError(second.Wait()), -1001);
}

TEST_P(ClientReadPath, ALargeCallThatWaitsReturnsNotConnected) {
  TestServer server(GetParam());
  Event called;
  Event release;
  server.On("slow", [&](int, MIVOParams*, MIVOParams*) {
    called.Signal();
    release.WaitFor();
  });
  ASSERT_TRUE(server.Init());
  TestClient client;
  ASSERT_TRUE(client.Init(server.address()));
  MIVOParams params;
  params.AddInt(1);
  PendingCall call([&] { return client->SendMsgEx("slow", &params, 0, 0); });
  ASSERT_TRUE(called.WaitFor());
  std::thread destroying([&] { server.Destroy(); });
  EXPECT_EQ(TakeError(call.Wait()), -1000);
  EXPECT_FALSE(client->isok());
  release.Signal();
  destroying.join();
}

TEST_P(ClientReadPath, TheNoticeHasRunBeforeAnybodyIsWoken) {
  Event noticed;
  Event release;
  std::atomic<bool> finished{false};
  std::atomic<bool> connected_in_notice{false};
  TestClient client;
  client.On("s_c_closed", [&](int, MIVOParams*, MIVOParams*) {
    connected_in_notice = client->isok();
    noticed.Signal();
    release.WaitFor();
    finished = true;
  });
  RawPeer peer = client.InitAgainst(server_);
  PendingCall call([&] {
    MIVOParams* const set = client->SendMsgFast("silence", nullptr, 0, 0);
    EXPECT_TRUE(finished);
    return set;
  });
  // Its time runs out while the notice keeps the loop from looking.
  PendingCall bounded([&] { return client->SendMsgFast("silence", nullptr, 0, 1); });
  ASSERT_TRUE(peer.ReadFrame().has_value());
  ASSERT_TRUE(peer.ReadFrame().has_value());
  peer.Close();
  ASSERT_TRUE(noticed.WaitFor());
  EXPECT_FALSE(call.Wait(kMoment));
  release.Signal();
  EXPECT_EQ(TakeError(call.Wait()), -1001);
  EXPECT_EQ(TakeError(bounded.Wait()), -1001);
  EXPECT_TRUE(connected_in_notice);
}

TEST_P(ClientReadPath, ACallThatBeginsWhileTheConnectionEndsReturns) {
  TestClient client;
  SetLog(client.get(), "", 0);
  StdoutCapture quiet;
  for (int round = 0; round < 40; ++round) {
    RawPeer peer = client.InitAgainst(server_);
    ASSERT_TRUE(peer.connected());
    std::atomic<bool> go{false};
    std::vector<std::unique_ptr<PendingCall>> calls;
    for (int i = 0; i < 3; ++i) {
      calls.push_back(std::make_unique<PendingCall>([&] {
        while (!go)
          std::this_thread::yield();
        return client->SendMsgFast("silence", nullptr, 0, 0);
      }));
    }
    std::thread ending([&] {
      while (!go)
        std::this_thread::yield();
      peer.Close();
    });
    go = true;
    for (const auto& call : calls) {
      const int error = TakeError(call->Wait());
      EXPECT_TRUE(error == -1000 || error == -1001) << error;
    }
    ending.join();
    ASSERT_TRUE(Eventually([&] { return !client->isok(); }));
  }
}

// --- Afterwards

TEST_P(ClientReadPath, AfterTheEndCallsFindNoConnectionAndNoneIsMadeAnew) {
  TestClient client;
  RawPeer peer = client.InitAgainst(server_);
  peer.Close();
  ASSERT_TRUE(Eventually([&] { return !client->isok(); }));
  StdoutCapture output;
  EXPECT_EQ(TakeError(client->SendMsg("foo", nullptr, 0, 0)), -1000);
  EXPECT_EQ(TakeError(client->SendMsgFast("foo", nullptr, 0, 0)), -1000);
  EXPECT_EQ(client->PostMsg("foo", nullptr, 0), 0);
  EXPECT_EQ(output.Text(),
            "SendMsg end: IsOk Flase\nsend msg: disconnect... .. .\n"
            "SendMsg end: IsOk Flase\nsend msg: disconnect... .. .\n"
            "send msg: disconnect... .. .\n");
  EXPECT_FALSE(server_.Accept(kMoment).connected());
}

TEST_P(ClientReadPath, TheOwnCloseIsNotNoticed) {
  std::atomic<int> notices{0};
  LambdaMethod counting([&](int, MIVOParams*, MIVOParams*) { ++notices; });
  TestClient client;
  client->SetCustomReleaseEvent();
  client->method("s_c_closed", &counting);
  RawPeer peer = client.InitAgainst(server_);
  ASSERT_TRUE(peer.connected());
  StdoutCapture output;
  client->close();
  client.Destroy();
  EXPECT_EQ(notices, 0);
  EXPECT_FALSE(output.Contains("Server Closed"));
}

TEST_P(ClientReadPath, TheEndOfASecondConnectionIsAnEndLikeTheFirst) {
  TestClient client;
  ASSERT_TRUE(client.InitAgainst(server_).connected());
  client->close();
  Event closed;
  client.On("s_c_closed", [&](int, MIVOParams*, MIVOParams*) { closed.Signal(); });
  RawPeer peer = client.InitAgainst(server_);
  ASSERT_TRUE(peer.connected());
  StdoutCapture output;
  peer.Close();
  EXPECT_TRUE(closed.WaitFor());
  EXPECT_TRUE(Eventually([&] { return !client->isok(); }));
  EXPECT_EQ(output.Count("Server Closed: "), 1);
}

// --- Calls from the notice

TEST_P(ClientReadPath, ANoticeThatCallsItsOwnClientIsNotHeldUp) {
  Event done;
  std::atomic<int> posted{-1};
  std::atomic<int> called{0};
  std::atomic<int> called_fast{0};
  TestClient client;
  client.On("s_c_closed", [&](int, MIVOParams*, MIVOParams*) {
    StdoutCapture quiet;
    posted = client->PostMsg("foo", nullptr, 0) + client->PostMsgFast("foo", nullptr, 0);
    called = TakeError(client->SendMsg("foo", nullptr, 0, 0));
    called_fast = TakeError(client->SendMsgFast("foo", nullptr, 0, 0));
    done.Signal();
  });
  RawPeer peer = client.InitAgainst(server_);
  peer.Close();
  ASSERT_TRUE(done.WaitFor());
  EXPECT_EQ(posted, 0);
  EXPECT_EQ(called, -1001);
  EXPECT_EQ(called_fast, -1001);
}

TEST_P(ClientReadPath, ANoticeMayCallThroughAnotherClient) {
  TestServer other(GetParam());
  other.On("six", [](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(6); });
  ASSERT_TRUE(other.Init());
  TestClient second;
  ASSERT_TRUE(second.Init(other.address()));
  Event done;
  std::atomic<int> got{0};
  TestClient client;
  client.On("s_c_closed", [&](int, MIVOParams*, MIVOParams*) {
    second->PostMsg("six", nullptr, 0);
    got = TakeInt(second->SendMsg("six", nullptr, 0, 0)).value_or(-1);
    done.Signal();
  });
  RawPeer peer = client.InitAgainst(server_);
  // It holds the turn of the serialised calls while the notice runs.
  PendingCall call([&] { return client->SendMsg("silence", nullptr, 0, 0); });
  ASSERT_TRUE(peer.ReadFrame().has_value());
  peer.Close();
  ASSERT_TRUE(done.WaitFor());
  EXPECT_EQ(got, 6);
  EXPECT_EQ(TakeError(call.Wait()), -1001);
}

TEST_P(ClientReadPath, InitIsTrueInAHandlerWhileConnectedAndFalseInANotice) {
  Event done;
  std::atomic<int> in_handler{-1};
  std::atomic<int> in_notice{-1};
  TestClient client;
  client.On("init", [&](int, MIVOParams*, MIVOParams*) {
    in_handler = client.Init(server_.address()) ? 1 : 0;
    done.Signal();
  });
  client.On("s_c_closed", [&](int, MIVOParams*, MIVOParams*) {
    in_notice = client.Init(server_.address()) ? 1 : 0;
    done.Signal();
  });
  RawPeer peer = client.InitAgainst(server_);
  ASSERT_TRUE(peer.Exchange(Request({"init", 1})).has_value());
  peer.Close();
  ASSERT_TRUE(done.WaitFor(2));
  EXPECT_EQ(in_handler, 1);
  EXPECT_EQ(in_notice, 0);
  ASSERT_TRUE(Eventually([&] { return !client->isok(); }));
  EXPECT_TRUE(client.InitAgainst(server_).connected());
}

}  // namespace
