// Large messages of several connections under one key: each belongs to its connection and goes with it.
#include <mivo/mivo.h>

#include "support/asked_peer.h"
#include "support/background.h"
#include "support/large_peer.h"
#include "support/raw_served_client.h"
#include "support/reply.h"
#include "support/slices.h"
#include "support/test_client.h"
#include "support/test_server.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace mivo_test;

namespace {

constexpr int kKey = 1;  // the thread id of every first process in a container
constexpr std::size_t kSliceBytes = 40;
constexpr int kLongTimeout = 120000;

class LargeTransfersApart : public testing::TestWithParam<Transport> {
 protected:
  void SetUp() override {
    SetLog(server_.get(), "", 0);
    server_.On("echo", [](int, MIVOParams* request, MIVOParams* reply) {
      reply->AddString(TextAt(request, 0).value_or("nothing").c_str());
    });
    ASSERT_TRUE(server_.Init());
    one_ = ids_.Connect();
    two_ = ids_.Connect();
    ASSERT_TRUE(one_.id != 0 && two_.id != 0);
  }

  static std::string Call(const std::string& text) { return Whole(Wire().String(text), "echo", kKey); }
  static std::string Result(const std::string& text) { return Whole(Wire().String(text), "s_c_largedata", kKey); }
  static std::vector<std::string> Requests(const std::string& text) {
    return SliceRequests(kKey, Call(text), kSliceBytes);
  }
  // All slices but the last, one after the other.
  static bool SendFirst(RawPeer* peer, const std::vector<std::string>& requests) {
    for (std::size_t i = 0; i + 1 < requests.size(); ++i) {
      if (!peer->Exchange(requests[i])) return false;
    }
    return true;
  }

  TestServer server_{GetParam()};
  PeerIds ids_{&server_};
  AskedPeer one_;
  AskedPeer two_;
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, LargeTransfersApart, kEveryTransport, TransportName);

TEST_P(LargeTransfersApart, OneThatBrokeOffWithItsConnectionDoesNotSpoilTheKey) {
  ASSERT_TRUE(SendFirst(&one_.peer, Requests("one")));
  one_.peer.Close();
  ASSERT_TRUE(ids_.WaitForCloses(1));
  EXPECT_EQ(LargeCall(&two_.peer, kKey, Call("two"), kSliceBytes), Result("two"));
  EXPECT_EQ(LargeCall(&two_.peer, kKey, Call("two again"), kSliceBytes), Result("two again"));
}

TEST_P(LargeTransfersApart, OneThatBrokeOffWithItsConnectionIsNotContinuedByTheNext) {
  const std::vector<std::string> requests = Requests("one");
  ASSERT_TRUE(SendFirst(&one_.peer, requests));
  one_.peer.Close();
  ASSERT_TRUE(ids_.WaitForCloses(1));
  // A slice that completes nothing here: it is only taken.
  EXPECT_EQ(two_.peer.Exchange(requests.back()),
            ServerReply(Wire().KeyString("s_c_sw_name", "retval").Int(0), kKey, std::nullopt));
}

TEST_P(LargeTransfersApart, TwoAtOnceBothSucceedWithTheirOwnResults) {
  const std::vector<std::string> first = Requests(std::string(200, '1'));
  const std::vector<std::string> second = Requests(std::string(200, '2'));
  ASSERT_EQ(first.size(), second.size());
  for (std::size_t i = 0; i + 1 < first.size(); ++i) {
    ASSERT_TRUE(one_.peer.Exchange(first[i]));
    ASSERT_TRUE(two_.peer.Exchange(second[i]));
  }
  ASSERT_TRUE(one_.peer.SendFrame(first.back()));
  ASSERT_TRUE(two_.peer.SendFrame(second.back()));
  Background<std::string> result_of_one([&] { return TakeResult(&one_.peer); });
  EXPECT_EQ(TakeResult(&two_.peer), Result(std::string(200, '2')));
  EXPECT_EQ(result_of_one.Get(), Result(std::string(200, '1')));
}

TEST_P(LargeTransfersApart, AStrangersSlicesNeitherJoinNorEndAnother) {
  const std::vector<std::string> requests = Requests(std::string(100, '1'));
  ASSERT_TRUE(SendFirst(&one_.peer, requests));
  // Bytes in the middle, and a last slice.
  ASSERT_TRUE(two_.peer.Exchange(Request({"s_c_req_body", kKey, SliceSet(kKey, 100000, "poison")})));
  ASSERT_TRUE(two_.peer.SendFrame(Request({"s_c_req_body", kKey, SliceSet(kKey, -1, "end")})));
  TakeResult(&two_.peer);
  ASSERT_TRUE(one_.peer.SendFrame(requests.back()));
  EXPECT_EQ(TakeResult(&one_.peer), Result(std::string(100, '1')));
}

TEST_P(LargeTransfersApart, AResultGoesToTheConnectionThatAskedAndToNoOther) {
  const std::vector<std::string> requests = Requests("secret");
  ASSERT_TRUE(SendFirst(&one_.peer, requests));
  // The stranger tries to complete it.
  ASSERT_TRUE(two_.peer.SendFrame(requests.back()));
  EXPECT_EQ(two_.peer.ReadFrame(), ServerReply(Wire().KeyString("s_c_sw_name", "retval").Int(0), kKey, std::nullopt));
  ASSERT_TRUE(one_.peer.SendFrame(requests.back()));
  EXPECT_EQ(TakeResult(&one_.peer), Result("secret"));
  EXPECT_TRUE(two_.peer.AnswersInOrder()) << "nothing else has come here";
}

class LargeResultsApart : public testing::TestWithParam<Transport> {
 protected:
  // The result in two halves; the second may be left out.
  void Deliver(RawPeer* peer, const std::string& content, bool whole) {
    const std::string result = Whole(content, "s_c_largedata", kKey);
    const std::vector<std::string> requests = SliceRequests(kKey, result, result.size() / 2 + 1);
    ASSERT_EQ(requests.size(), 2u);
    ASSERT_TRUE(peer->Exchange(requests[0]));
    if (whole) {
      ASSERT_TRUE(peer->Exchange(requests[1]));
    }
  }
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, LargeResultsApart, kEveryTransport, TransportName);

TEST_P(LargeResultsApart, OneThatBrokeOffIsNotInFrontOfTheNextConnections) {
  RawServer server(GetParam());
  TestClient client;
  SetLog(client.get(), "", 0);
  for (int connection = 0; connection < 2; ++connection) {
    RawPeer peer = client.InitAgainst(server);
    ASSERT_TRUE(peer.connected());
    const bool whole = connection == 1;
    Background<Reply> call([&] { return Reply(client->SendMsgEx("f", nullptr, kKey, kLongTimeout)); });
    ASSERT_TRUE(TakeTransfer(&peer, AsServer).complete);
    Deliver(&peer, Wire().Int(connection), whole);
    if (whole) {
      EXPECT_EQ(IntAt(call.Get().get(), 0), 1);
      EXPECT_FALSE(call.Get().error());
    } else {
      peer.Close();
      EXPECT_EQ(call.Get().error(), kNotConnected);
    }
  }
}

}  // namespace
