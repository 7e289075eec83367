#include <mivo/mivo.h>

#include "support/background.h"
#include "support/event.h"
#include "support/raw_served_client.h"
#include "support/slices.h"
#include "support/stdout_capture.h"
#include "support/test_client.h"
#include "support/test_server.h"
#include "support/wire.h"

#include <gtest/gtest.h>

using namespace mivo_test;

namespace {

constexpr int kLongTimeout = 120000;
constexpr int kFarBelow = 30000;

TEST(SendMsgExWithoutConnection, SaysSoAndLeavesTheArguments) {
  TestClient client;
  MIVOParams params;
  params.AddInt(1);
  const int size = params.Size();
  const StdoutCapture out;
  const Reply reply(client->SendMsgEx("f", &params, 9, 0));
  EXPECT_EQ(reply.error(), kNotConnected);
  EXPECT_EQ(out.Text(), "sendmsgex: disconnect... .. .\n");
  EXPECT_EQ(params.Size(), size);
}

TEST(SendMsgExWithoutConnection, ReturnsASetWithNothingButTheErrorCode) {
  TestClient client;
  const Reply reply(client->SendMsgEx("f", nullptr, 9, 0));
  ASSERT_NE(reply.get(), nullptr);
  EXPECT_EQ(reply->ParamsSize(), 0);
  EXPECT_EQ(reply->MapSize(), 1);
  EXPECT_EQ(IntUnder(reply.get(), "errorCode"), kNotConnected);
  EXPECT_EQ(Hex(*reply->GetParamas()), Hex(FromHex(exact::kNotConnected)));
}

class SendMsgEx : public testing::TestWithParam<Transport> {
 protected:
  void SetUp() override { ASSERT_TRUE(pair_.Connect()); }

  // Plays the server of one large call whose result is one slice.
  void Serve(RawPeer* peer, const std::string& content) {
    const TakenTransfer transfer = TakeTransfer(peer, AsServer);
    ASSERT_TRUE(transfer.complete);
    Deliver(peer, transfer.slices[0].key, content);
  }
  static void Deliver(RawPeer* peer, int key, const std::string& content) {
    const std::string result = Whole(content, "s_c_largedata", key);
    ASSERT_TRUE(peer->Exchange(Request({"s_c_req_body", key, SliceSet(key, static_cast<int>(result.size()), result)})));
  }

  ClientOfRawServer pair_{GetParam()};
  TestClient& client_ = pair_.client();
  RawPeer& peer_ = pair_.peer();
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, SendMsgEx, kEveryTransport, TransportName);

TEST_P(SendMsgEx, EmptiesTheArguments) {
  MIVOParams params;
  params.AddString("text");
  Background<Reply> call([&] { return Reply(client_->SendMsgEx("f", &params, 9, kLongTimeout)); });
  Serve(&peer_, Wire().Int(1));
  EXPECT_EQ(IntAt(call.Get().get(), 0), 1);
  EXPECT_EQ(params.Size(), 0);
}

TEST_P(SendMsgEx, EmptiesTheArgumentsAlsoWhenNoResultComes) {
  MIVOParams params;
  params.AddString("text");
  Background<Reply> call([&] { return Reply(client_->SendMsgEx("f", &params, 9, 1)); });
  ASSERT_TRUE(TakeTransfer(&peer_, AsServer).complete);
  EXPECT_EQ(call.Get().error(), kNoReply);
  EXPECT_EQ(params.Size(), 0);
}

TEST_P(SendMsgEx, WithKeyZeroGoesUnderTheThreadsId) {
  Background<Reply> call([&] { return Reply(client_->SendMsgEx("f", nullptr, 0, 1)); });
  const TakenTransfer transfer = TakeTransfer(&peer_, AsServer);
  ASSERT_EQ(transfer.slices.size(), 1u);
  EXPECT_EQ(transfer.slices[0].key, call.thread_id());
  EXPECT_EQ(transfer.slices[0].envelope_key, call.thread_id());
}

TEST_P(SendMsgEx, WithKeyZeroGoesUnderTheKeyAmongItsArguments) {
  Background<Reply> call([&] {
    MIVOParams params;
    params.AddKeyValueInt("s_c_sw_threadid", 4242);
    params.ToParams();
    return Reply(client_->SendMsgEx("f", &params, 0, kLongTimeout));
  });
  const TakenTransfer transfer = TakeTransfer(&peer_, AsServer);
  ASSERT_EQ(transfer.slices.size(), 1u);
  EXPECT_EQ(transfer.slices[0].key, 4242);
  EXPECT_EQ(transfer.slices[0].envelope_key, 4242);
  Deliver(&peer_, 4242, Wire().Int(1));
  EXPECT_EQ(IntAt(call.Get().get(), 0), 1);
}

TEST_P(SendMsgEx, AKeyThatIsGivenWins) {
  Background<Reply> call([&] {
    MIVOParams params;
    params.AddKeyValueInt("s_c_sw_threadid", 4242);
    params.ToParams();
    return Reply(client_->SendMsgEx("f", &params, 9, 1));
  });
  const TakenTransfer transfer = TakeTransfer(&peer_, AsServer);
  ASSERT_EQ(transfer.slices.size(), 1u);
  EXPECT_EQ(transfer.slices[0].key, 9);
  EXPECT_EQ(transfer.slices[0].envelope_key, 9);
}

TEST_P(SendMsgEx, TakesNullForAnEmptySet) {
  Background<Reply> call([&] { return Reply(client_->SendMsgEx("f", nullptr, 9, kLongTimeout)); });
  const TakenTransfer transfer = TakeTransfer(&peer_, AsServer);
  EXPECT_EQ(transfer.whole, Whole("", "f", 9));
  Deliver(&peer_, 9, Wire().Int(1));
  EXPECT_EQ(IntAt(call.Get().get(), 0), 1);
}

TEST_P(SendMsgEx, RunsOneAtATimeInTheProcess) {
  ClientOfRawServer other(GetParam());
  ASSERT_TRUE(other.Connect());
  Background<Reply> first([&] { return Reply(client_->SendMsgEx("f", nullptr, 9, kLongTimeout)); });
  ASSERT_TRUE(TakeTransfer(&peer_, AsServer).complete);
  // The first one now waits for its result only.
  Background<Reply> second([&] { return Reply(other.client()->SendMsgEx("g", nullptr, 9, kLongTimeout)); });
  EXPECT_TRUE(other.peer().ExpectSilence(std::chrono::milliseconds(200)));
  Deliver(&peer_, 9, Wire().Int(1));
  EXPECT_EQ(IntAt(first.Get().get(), 0), 1);
  Serve(&other.peer(), Wire().Int(2));
  EXPECT_EQ(IntAt(second.Get().get(), 0), 2);
}

TEST_P(SendMsgEx, DoesNotHoldUpOrdinaryCallsWhileItWaitsForTheResult) {
  Background<Reply> large([&] { return Reply(client_->SendMsgEx("f", nullptr, 9, kLongTimeout)); });
  ASSERT_TRUE(TakeTransfer(&peer_, AsServer).complete);
  Background<Reply> ordinary([&] { return Reply(client_->SendMsg("g", nullptr, 8, 0)); });
  const std::string request = peer_.ReadFrame().value_or("");
  ASSERT_TRUE(peer_.SendFrame(ServerReply(Wire().Int(3), 8, TextOf(request, "s_c_sw_semid"))));
  EXPECT_EQ(IntAt(ordinary.Get().get(), 0), 3);
  EXPECT_FALSE(large.IsDone());
  Deliver(&peer_, 9, Wire().Int(1));
  EXPECT_EQ(IntAt(large.Get().get(), 0), 1);
}

TEST_P(SendMsgEx, ATimeOutDoesNotReturnTheResultBeforeIt) {
  for (const int key : {0, 9}) {
    Event delivered;
    Background<bool> calls([&] {
      // The second call frees what the first returned. It waits, so that its request does not overtake the answer to
      // the first one's result.
      const auto first = IntAt(client_->SendMsgEx("f", nullptr, key, kLongTimeout), 0);
      delivered.WaitFor();
      const Reply second(client_->SendMsgEx("f", nullptr, key, 600));
      return first == 1 && second.error() == kNoReply;
    });
    Serve(&peer_, Wire().Int(1));
    delivered.Signal();
    ASSERT_TRUE(TakeTransfer(&peer_, AsServer).complete);
    EXPECT_TRUE(calls.Get()) << "key " << key;
  }
}

TEST_P(SendMsgEx, ItsResultStaysAsItIsThroughOtherCallsAndLateResults) {
  Background<Reply> call([&] { return Reply(client_->SendMsgEx("f", nullptr, 9, kLongTimeout)); });
  Serve(&peer_, Wire().String(std::string(1000, 'x')));
  const MIVOParams* const set = call.Get().get();
  ASSERT_EQ(TextAt(set, 0), std::string(1000, 'x'));
  // Another result for the key that nobody waits for, an ordinary call on it, a large call on another.
  Deliver(&peer_, 9, Wire().Int(2));
  Background<Reply> ordinary([&] { return Reply(client_->SendMsg("g", nullptr, 9, kLongTimeout)); });
  const std::string request = peer_.ReadFrame().value_or("");
  ASSERT_TRUE(peer_.SendFrame(ServerReply("", 9, TextOf(request, "s_c_sw_semid"))));
  EXPECT_FALSE(ordinary.Get().error());
  Background<Reply> other([&] { return Reply(client_->SendMsgEx("f", nullptr, 8, kLongTimeout)); });
  Serve(&peer_, Wire().Int(3));
  EXPECT_EQ(IntAt(other.Get().get(), 0), 3);
  EXPECT_EQ(TextAt(set, 0), std::string(1000, 'x'));
  client_->ClearRetvalMem();
}

TEST_P(SendMsgEx, ReturnsWhenTheConnectionEnds) {
  const StdoutCapture out;
  Background<Reply> call([&] { return Reply(client_->SendMsgEx("f", nullptr, 9, 0)); });
  ASSERT_TRUE(TakeTransfer(&peer_, AsServer).complete);
  peer_.Close();
  EXPECT_EQ(call.Get().error(), kNotConnected);
  EXPECT_LT(call.ElapsedMs(), kFarBelow);
  EXPECT_TRUE(out.Contains("sendmsgex: disconnect... .. .\n"));
}

TEST_P(SendMsgEx, ReturnsWhenTheClientIsClosed) {
  Background<Reply> call([&] { return Reply(client_->SendMsgEx("f", nullptr, 9, 0)); });
  ASSERT_TRUE(TakeTransfer(&peer_, AsServer).complete);
  client_->close();
  EXPECT_EQ(call.Get().error(), kNotConnected);
  EXPECT_LT(call.ElapsedMs(), kFarBelow);
}

class SendMsgExToAServer : public testing::TestWithParam<Transport> {
 protected:
  TestServer server_{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, SendMsgExToAServer, kEveryTransport, TransportName);

TEST_P(SendMsgExToAServer, ReturnsWhatTheHandlerWroteWithMarkAndKey) {
  server_.On("square", [](int, MIVOParams* request, MIVOParams* reply) {
    const int number = IntAt(request, 0).value_or(0);
    reply->AddInt(number * number);
    reply->AddKeyValueString("named", "value");
  });
  ASSERT_TRUE(server_.Init());
  TestClient client;
  ASSERT_TRUE(client.Init(server_.address()));
  MIVOParams params;
  params.AddInt(12);
  const Reply reply(client->SendMsgEx("square", &params, 77, kLongTimeout));
  EXPECT_EQ(IntAt(reply.get(), 0), 144);
  EXPECT_EQ(TextUnder(reply.get(), "named"), "value");
  EXPECT_EQ(TextUnder(reply.get(), "s_c_sw_name"), "s_c_largedata");
  EXPECT_EQ(IntUnder(reply.get(), "s_c_sw_threadid"), 77);
}

TEST_P(SendMsgExToAServer, OfAnUnknownMethodReturnsThatThereIsNone) {
  ASSERT_TRUE(server_.Init());
  TestClient client;
  ASSERT_TRUE(client.Init(server_.address()));
  const Reply reply(client->SendMsgEx("none", nullptr, 0, kLongTimeout));
  EXPECT_EQ(TextAt(reply.get(), 0), "no event: none");
}

TEST_P(SendMsgExToAServer, EndsWithItsTimeOutWhileTheMethodRuns) {
  Event release;
  server_.On("slow", [&](int, MIVOParams*, MIVOParams*) { release.WaitFor(); });
  ASSERT_TRUE(server_.Init());
  TestClient client;
  ASSERT_TRUE(client.Init(server_.address()));
  Background<Reply> call([&] { return Reply(client->SendMsgEx("slow", nullptr, 0, 900)); });
  EXPECT_EQ(call.Get().error(), kNoReply);
  EXPECT_GE(call.ElapsedMs(), 900);
  EXPECT_LT(call.ElapsedMs(), kFarBelow);
  release.Signal();
  server_.Destroy();
}

}  // namespace
