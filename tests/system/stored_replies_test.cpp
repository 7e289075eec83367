// What a server stores for a later call on a key belongs to the client that sent it, and goes with that client.
#include <mivo/mivo.h>

#include "support/asked_peer.h"
#include "support/reply.h"
#include "support/test_client.h"
#include "support/test_server.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <string>

using namespace mivo_test;

namespace {

constexpr int kKey = 5;

class StoredReplies : public testing::TestWithParam<Transport> {
 protected:
  void SetUp() override {
    SetLog(server_.get(), "", 0);
    ASSERT_TRUE(server_.Init());
    one_ = ids_.Connect();
    two_ = ids_.Connect();
    ASSERT_TRUE(one_.id != 0 && two_.id != 0);
  }

  // A call that gets no reply of its own.
  MIVOParams* CallUnanswered(const AskedPeer& asked) {
    return server_->SendMsg(asked.id, "question", nullptr, kKey, 1);
  }

  // Calls `asked`, which answers when the call has ended.
  void AnswerLate(AskedPeer* asked, int number) {
    ASSERT_EQ(CallUnanswered(*asked), nullptr);
    const std::string question = asked->peer.ReadFrame().value_or("");
    ASSERT_TRUE(asked->peer.SendFrame(ClientReply(Wire().Int(number), kKey, TextOf(question, "s_c_sw_semid"))));
    ASSERT_TRUE(asked->peer.AnswersInOrder());
  }

  TestServer server_{GetParam()};
  PeerIds ids_{&server_};
  AskedPeer one_;
  AskedPeer two_;
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, StoredReplies, kEveryTransport, TransportName);

TEST_P(StoredReplies, ALateOneIsNotReturnedByACallToAnotherClient) {
  AnswerLate(&one_, 11);
  EXPECT_EQ(CallUnanswered(two_), nullptr);
  EXPECT_EQ(IntAt(CallUnanswered(one_), 0), 11) << "it is still there for calls to the client that sent it";
}

TEST_P(StoredReplies, ALateOneIsNotReturnedByACallToAnotherClientAfterItsOwnHasGone) {
  AnswerLate(&one_, 11);
  one_.peer.Close();
  ASSERT_TRUE(ids_.WaitForCloses(1));
  EXPECT_EQ(CallUnanswered(two_), nullptr);
  EXPECT_EQ(CallUnanswered(one_), nullptr);
}

TEST_P(StoredReplies, OneThatNobodyAskedForIsNotReturnedByACallToAnotherClient) {
  ASSERT_TRUE(one_.peer.SendFrame(ClientReply(Wire().Int(12), kKey, std::nullopt)));
  ASSERT_TRUE(one_.peer.AnswersInOrder());
  EXPECT_EQ(CallUnanswered(two_), nullptr);
}

TEST_P(StoredReplies, OneThatACallHasReturnedIsNotReturnedByACallToAnotherClient) {
  AnswerLate(&one_, 11);
  ASSERT_EQ(IntAt(CallUnanswered(one_), 0), 11);
  EXPECT_EQ(CallUnanswered(two_), nullptr);
}

TEST_P(StoredReplies, ThoseOfSeveralClientsStandSideBySide) {
  AnswerLate(&one_, 11);
  ASSERT_NO_FATAL_FAILURE(AnswerLate(&two_, 22));
  EXPECT_EQ(IntAt(CallUnanswered(one_), 0), 11);
  EXPECT_EQ(IntAt(CallUnanswered(two_), 0), 22);
}

}  // namespace
