#include <mivo/mivo.h>

#include "support/background.h"
#include "support/event.h"
#include "support/raw_server.h"
#include "support/reply.h"
#include "support/stdout_capture.h"
#include "support/test_client.h"
#include "support/test_server.h"
#include "support/transport.h"
#include "support/uv_faults.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

using namespace mivo_test;

namespace {

// Time for something to go wrong that must not.
constexpr std::chrono::milliseconds kMoment{50};

class ClientRaces : public testing::TestWithParam<Transport> {};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, ClientRaces, kEveryTransport, TransportName);

// --- A close while another thread connects

TEST_P(ClientRaces, ACloseMayComeWhileTheSocketConnects) {
  TestServer server(GetParam());
  ASSERT_TRUE(server.Init());
  Deletions deletions;
  TestClient client;
  client.On("name", nullptr, &deletions);
  StdoutCapture output;
  std::thread closing;
  {
    const ScopedHook hook(Fault::kConnectCall, [&] {
      closing = std::thread([&] { client->close(); });
      EXPECT_TRUE(output.WaitFor("Client Closing waiting thread!\n"));
    });
    EXPECT_FALSE(client.Init(server.address()));
  }
  closing.join();
  EXPECT_FALSE(client->isok());
  EXPECT_EQ(deletions.count, 1) << "a close deletes the handlers however far the client had come";
  EXPECT_TRUE(client.Init(server.address())) << "usable again";
}

// --- An Init while the connection ends

TEST_P(ClientRaces, AnInitDuringTheCloseNoticeConnectsAgain) {
  RawServer server(GetParam());
  TestServer next(GetParam());
  ASSERT_TRUE(next.Init());
  Event told;
  Event leave;
  TestClient client;
  client.On("s_c_closed", [&](int, MIVOParams*, MIVOParams*) {
    told.Signal();
    leave.WaitFor();
  });
  RawPeer peer = client.InitAgainst(server);
  ASSERT_TRUE(peer.connected());
  peer.Close();
  ASSERT_TRUE(told.WaitFor());
  EXPECT_TRUE(client->isok()) << "until the notice has ended";
  Background<bool> again([&] { return client.Init(next.address()); });
  EXPECT_FALSE(again.WaitFor(kMoment)) << "taken for a connection that stands";
  leave.Signal();
  EXPECT_TRUE(again.Get());
  EXPECT_TRUE(client->isok());
  EXPECT_EQ(TextAt(client.Call("nobody").get(), 0), "no event: nobody");
}

TEST_P(ClientRaces, AnInitAfterACloseThatAHandlerHasBegunConnectsAgain) {
  RawServer server(GetParam());
  TestServer next(GetParam());
  ASSERT_TRUE(next.Init());
  Event closed;
  Event leave;
  TestClient client;
  client.On("close", [&](int, MIVOParams*, MIVOParams*) {
    client->close();
    closed.Signal();
    leave.WaitFor();
  });
  RawPeer peer = client.InitAgainst(server);
  ASSERT_TRUE(peer.SendFrame(Request({"close", 1})));
  ASSERT_TRUE(closed.WaitFor());
  Background<bool> again([&] { return client.Init(next.address()); });
  EXPECT_FALSE(again.WaitFor(kMoment)) << "the handler of the first connection still runs";
  leave.Signal();
  EXPECT_TRUE(again.Get());
  EXPECT_TRUE(client->isok());
}

// --- What is registered after a close

TEST_P(ClientRaces, AHandlerRegisteredAfterACloseFromInsideIsDeletedByTheNext) {
  RawServer server(GetParam());
  TestClient client;
  client.On("close", [&](int, MIVOParams*, MIVOParams*) { client->close(); });
  RawPeer peer = client.InitAgainst(server);
  ASSERT_TRUE(peer.SendFrame(Request({"close", 1})));
  ASSERT_TRUE(Eventually([&] { return !client->isok(); }));
  // The handler's reply may have got out, or not.
  while (peer.ReadFrame().has_value()) {
  }
  ASSERT_TRUE(peer.ReadEof(std::chrono::milliseconds(0))) << "the close is through";
  Deletions deletions;
  client.On("late", nullptr, &deletions);
  client.Destroy();
  EXPECT_EQ(deletions.count, 1);
}

TEST_P(ClientRaces, TheLibrarysOwnNamesCannotBeTakenAfterAClose) {
  TestServer server(GetParam());
  server.On("echo", [](int, MIVOParams* request, MIVOParams* reply) { reply->AddInt(*IntAt(request, 0)); });
  ASSERT_TRUE(server.Init());
  TestClient client;
  LambdaMethod taker([](int, MIVOParams*, MIVOParams*) { ADD_FAILURE() << "got a slice"; });
  ASSERT_TRUE(client.Init(server.address()));
  client->close();
  client->method("s_c_req_body", &taker);
  client->method("s_c_buildin_closed", &taker);
  ASSERT_TRUE(client.Init(server.address()));
  MIVOParams params;
  params.AddInt(7);
  EXPECT_EQ(IntAt(Reply(client->SendMsgEx("echo", &params, 9, 20000)).get(), 0), 7);
}

// --- Loop threads that use each other's objects

// Two clients lose their servers at the same moment, and the notice of each uses the other.
class NoticesOfTwoClients : public ClientRaces {
 protected:
  void Play(const std::function<void(IClient*)>& use) {
    for (int i = 0; i < 2; ++i) {
      clients_[i].On("s_c_closed", [this, use, i](int, MIVOParams*, MIVOParams*) {
        inside_.Signal();
        inside_.WaitFor(2);
        use(clients_[1 - i].get());
        done_.Signal();
      });
      peers_[i] = clients_[i].InitAgainst(servers_[i]);
      ASSERT_TRUE(peers_[i].connected());
    }
    for (RawPeer& peer : peers_)
      peer.Close();
    EXPECT_TRUE(done_.WaitFor(2)) << "each loop thread waits for the other";
  }

 private:
  Event inside_;
  Event done_;
  RawServer servers_[2] = {RawServer(GetParam()), RawServer(GetParam())};
  TestClient clients_[2];
  RawPeer peers_[2];
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, NoticesOfTwoClients, kEveryTransport, TransportName);

TEST_P(NoticesOfTwoClients, MayPostThroughEachOther) {
  Play([](IClient* other) { EXPECT_EQ(other->PostMsgFast("name", nullptr, 0), 0); });
}

TEST_P(NoticesOfTwoClients, MayCallThroughEachOtherUntilTheTimeOut) {
  Play([](IClient* other) {
    const Stopwatch watch;
    EXPECT_EQ(TakeError(other->SendMsgFast("name", nullptr, 0, 300)), -1001);
    EXPECT_GE(watch.ElapsedMs(), 300);
  });
}

// --- Arguments that are an earlier call's result

// A set of the client's is dropped when the next call under its key begins, but not before that call has read it.
class ArgumentsOfEarlierCalls : public ClientRaces {
 protected:
  void SetUp() override {
    server_.On("echo", [](int, MIVOParams* request, MIVOParams* reply) {
      reply->AddKeyValueString("text", TextUnder(request, "text").value_or("nothing").c_str());
    });
    ASSERT_TRUE(server_.Init());
    ASSERT_TRUE(client_.Init(server_.address()));
    first_.AddKeyValueString("text", std::string(1000, 'x').c_str());
  }

  TestServer server_{GetParam()};
  TestClient client_;
  MIVOParams first_;
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, ArgumentsOfEarlierCalls, kEveryTransport, TransportName);

TEST_P(ArgumentsOfEarlierCalls, AreReadBeforeTheyAreDropped) {
  MIVOParams* const result = client_->SendMsgFast("echo", &first_, 9, 0);
  EXPECT_EQ(TextUnder(client_->SendMsgFast("echo", result, 9, 0), "text"), std::string(1000, 'x'));
}

TEST_P(ArgumentsOfEarlierCalls, AreReadBeforeTheyAreDroppedByALargeCall) {
  MIVOParams* const result = client_->SendMsgEx("echo", &first_, 9, 20000);
  ASSERT_EQ(TextUnder(result, "text"), std::string(1000, 'x'));
  // The key is among what came back.
  EXPECT_EQ(TextUnder(client_->SendMsgEx("echo", result, 0, 20000), "text"), std::string(1000, 'x'));
}

TEST_P(ArgumentsOfEarlierCalls, AreReadBeforeTheSlicesOfALargeCallDropThem) {
  MIVOParams* const result = client_->SendMsgFast("echo", &first_, 9, 0);
  EXPECT_EQ(TextUnder(client_->SendMsgEx("echo", result, 9, 20000), "text"), std::string(1000, 'x'));
}

}  // namespace
