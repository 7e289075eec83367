// What a server's calls have given to the application, and what is stored for its later calls, is not touched by the
// calls that the library makes itself: the slices of large results, which go under a key that a peer has chosen.
#include <mivo/mivo.h>

#include "support/asked_peer.h"
#include "support/background.h"
#include "support/large_peer.h"
#include "support/reply.h"
#include "support/slices.h"
#include "support/test_client.h"
#include "support/test_server.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <string>

using namespace mivo_test;

namespace {

constexpr int kKey = 77;
constexpr int kSliceBytes = 30;

class HandedOutReplies : public testing::TestWithParam<Transport> {
 protected:
  void SetUp() override {
    SetLog(server_.get(), "", 0);
    server_.On("large", [](int, MIVOParams*, MIVOParams* reply) { reply->AddString(std::string(400, 'r').c_str()); });
    ASSERT_TRUE(server_.Init());
    asked_ = ids_.Connect();
    other_ = ids_.Connect();
    ASSERT_TRUE(asked_.id != 0 && other_.id != 0);
  }

  // A call of the application that `asked_` answers with this text.
  MIVOParams* CallAnswered(const std::string& text) {
    Background<MIVOParams*> call([&] { return server_->SendMsg(asked_.id, "question", nullptr, kKey, -1); });
    const std::string question = asked_.peer.ReadFrame().value_or("");
    asked_.peer.SendFrame(ClientReply(Wire().String(text), kKey, TextOf(question, "s_c_sw_semid")));
    return call.Get();
  }

  // One that is not answered; its question stays unread.
  MIVOParams* CallUnanswered() { return server_->SendMsg(asked_.id, "question", nullptr, kKey, 1); }

  void ReceiveALargeResult(RawPeer* peer) {
    const std::string result = LargeCall(peer, kKey, Whole("", "large", kKey));
    ASSERT_EQ(result, Whole(Wire().String(std::string(400, 'r')), "s_c_largedata", kKey));
  }

  const ScopedSliceSize size_{kSliceBytes};
  TestServer server_{GetParam()};
  PeerIds ids_{&server_};
  AskedPeer asked_;
  AskedPeer other_;
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, HandedOutReplies, kEveryTransport, TransportName);

TEST_P(HandedOutReplies, OutliveTheLargeResultOfAStrangerUnderTheirKey) {
  const std::string text(1000, 'x');
  MIVOParams* const reply = CallAnswered(text);
  ASSERT_EQ(TextAt(reply, 0), text);
  ReceiveALargeResult(&other_.peer);
  EXPECT_EQ(TextAt(reply, 0), text);
}

TEST_P(HandedOutReplies, OutliveTheLargeResultOfTheirOwnPeerUnderTheirKey) {
  const std::string text(1000, 'x');
  MIVOParams* const reply = CallAnswered(text);
  ASSERT_EQ(TextAt(reply, 0), text);
  ReceiveALargeResult(&asked_.peer);
  EXPECT_EQ(TextAt(reply, 0), text);
}

TEST_P(HandedOutReplies, AReplyStoredForALaterCallIsNotLostToALargeResult) {
  ASSERT_EQ(CallUnanswered(), nullptr);
  const std::string question = asked_.peer.ReadFrame().value_or("");
  ASSERT_TRUE(asked_.peer.SendFrame(ClientReply(Wire().Int(41), kKey, TextOf(question, "s_c_sw_semid"))));
  ASSERT_TRUE(asked_.peer.AnswersInOrder());
  ReceiveALargeResult(&asked_.peer);
  EXPECT_EQ(IntAt(CallUnanswered(), 0), 41);
}

TEST_P(HandedOutReplies, ALateAnswerToASliceIsNoReplyToACall) {
  ScopedSliceSize::Set(32768);  // a result of one slice
  RawPeer& peer = asked_.peer;
  ASSERT_TRUE(peer.SendFrame(SliceRequests(kKey, Whole("", "large", kKey), 32768).front()));
  const std::string slice = peer.ReadFrame().value_or("");
  ASSERT_TRUE(ReadSliceRequest(slice).valid);
  // Half a second later the server has given up and says so.
  ASSERT_EQ(TextOf(peer.ReadFrame().value_or(""), "s_c_sw_name"), "retval");
  ASSERT_TRUE(peer.SendFrame(AsClient(slice)));
  ASSERT_TRUE(peer.AnswersInOrder());
  EXPECT_EQ(CallUnanswered(), nullptr);
}

}  // namespace
