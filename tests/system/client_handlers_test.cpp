#include <mivo/mivo.h>

#include "support/background.h"
#include "support/event.h"
#include "support/journal.h"
#include "support/raw_served_client.h"
#include "support/raw_server.h"
#include "support/stdout_capture.h"
#include "support/test_client.h"
#include "support/test_server.h"
#include "support/uv_faults.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <uv.h>

#include <atomic>

using namespace mivo_test;

namespace {

// The reply that a client gives to a name it does not know; nothing else looks like it.
const std::string kUnknown = FromHex(exact::kUnknownNameClientReply);

class ClientHandlers : public testing::TestWithParam<Transport> {
 protected:
  // True when the client answers a request that is sent now, with nothing in front.
  bool AnswersNext() { return peer_.Exchange(Request({"nobody knows this", 1})) == kUnknown; }

  ClientOfRawServer pair_{GetParam()};
  TestClient& client_ = pair_.client();
  RawPeer& peer_ = pair_.peer();
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, ClientHandlers, kEveryTransport, TransportName);

TEST_P(ClientHandlers, GetTheArgumentsAndTheirReplyTravels) {
  client_.On("double", [](int, MIVOParams* request, MIVOParams* reply) {
    reply->AddInt(2 * IntAt(request, 0).value_or(0));
    reply->AddKeyValueString("with", TextUnder(request, "with").value_or("?").c_str());
  });
  ASSERT_TRUE(pair_.Connect());
  EXPECT_EQ(peer_.Exchange(Request({"double", 9, Wire().Int(21).KeyString("with", "care"), "0xab"})),
            ClientReply(Wire().Int(42).KeyString("with", "care"), 9, "0xab"));
}

TEST_P(ClientHandlers, RunOutsideTheLoopThread) {
  Event release;
  Event inside;
  client_.On("block", [&](int, MIVOParams*, MIVOParams*) {
    inside.Signal();
    release.WaitFor();
  });
  ASSERT_TRUE(pair_.Connect());
  ASSERT_TRUE(peer_.SendFrame(Request({"block", 9})));
  ASSERT_TRUE(inside.WaitFor());
  // Replies are still read and taken to their calls.
  Background<Reply> call([&] { return client_.Call("hello", nullptr, 5, 0); });
  const std::string request = peer_.ReadFrame().value_or("");
  ASSERT_TRUE(peer_.SendFrame(ServerReply(Wire().Int(1), 5, TextOf(request, "s_c_sw_semid"))));
  EXPECT_EQ(IntAt(call.Get().get(), 0), 1);
  release.Signal();
  EXPECT_EQ(peer_.ReadFrame(), ClientReply("", 9, std::nullopt));
}

TEST_P(ClientHandlers, GetOneAndTheSameIdAsTheNoticeOfTheEnd) {
  std::atomic<int> first{0};
  std::atomic<int> second{0};
  std::atomic<int> closed{0};
  Event ended;
  client_.On("first", [&](int id, MIVOParams*, MIVOParams*) { first = id; });
  client_.On("second", [&](int id, MIVOParams*, MIVOParams*) { second = id; });
  client_.On("s_c_closed", [&](int id, MIVOParams*, MIVOParams*) {
    closed = id;
    ended.Signal();
  });
  ASSERT_TRUE(pair_.Connect());
  ASSERT_TRUE(peer_.Exchange(Request({"first", 1})));
  ASSERT_TRUE(peer_.Exchange(Request({"second", 2})));
  peer_.Close();
  ASSERT_TRUE(ended.WaitFor());
  EXPECT_NE(first, 0);
  EXPECT_EQ(first, second);
  EXPECT_EQ(first, closed);
}

TEST_P(ClientHandlers, SeeNothingOfTheEnvelope) {
  client_.On("sizes", [](int, MIVOParams* request, MIVOParams* reply) {
    reply->AddInt(request->ParamsSize());
    reply->AddInt(request->MapSize());
  });
  ASSERT_TRUE(pair_.Connect());
  EXPECT_EQ(peer_.Exchange(Request({"sizes", 9, Wire().Int(1).KeyInt("a", 1).Int(2), "0xab"})),
            ClientReply(Wire().Int(2).Int(1), 9, "0xab"));
}

TEST_P(ClientHandlers, GetAnEmptySetWhereTheRequestHasNone) {
  client_.On("sizes", [](int, MIVOParams* request, MIVOParams* reply) {
    reply->AddInt(request->ParamsSize());
    reply->AddInt(request->MapSize());
  });
  ASSERT_TRUE(pair_.Connect());
  EXPECT_EQ(peer_.Exchange(Request({"sizes", 9})), ClientReply(Wire().Int(0).Int(0), 9, std::nullopt));
}

TEST_P(ClientHandlers, ReplyWithKeyWaiterAndMarkBehindTheirOwnContent) {
  client_.On("talk", [](int, MIVOParams*, MIVOParams* reply) { reply->AddString("own"); });
  ASSERT_TRUE(pair_.Connect());
  EXPECT_EQ(Describe(peer_.Exchange(Request({"talk", 9, std::nullopt, "0xab"})).value_or("")),
            (Lines{"\"own\"", "s_c_sw_threadid = 9", "s_c_sw_semid = \"0xab\"", "s_c_sw_name = \"retval\""}));
}

TEST_P(ClientHandlers, ThatWriteNothingAreAnsweredForByteForByte) {
  client_.On("silent", [](int, MIVOParams*, MIVOParams*) {});
  ASSERT_TRUE(pair_.Connect());
  EXPECT_EQ(Hex(peer_.Exchange(Request({"silent", 9, std::nullopt, "0xab"})).value_or("")),
            Hex(FromHex(exact::kEmptyClientReply)));
}

TEST_P(ClientHandlers, AnswerARequestWithoutKeyUnderZero) {
  client_.On("silent", [](int, MIVOParams*, MIVOParams*) {});
  ASSERT_TRUE(pair_.Connect());
  EXPECT_EQ(peer_.Exchange(Request({"silent", std::nullopt, std::nullopt, "0xab"})), ClientReply("", 0, "0xab"));
}

TEST_P(ClientHandlers, AnswerARequestWithoutWaiterWithoutOne) {
  client_.On("silent", [](int, MIVOParams*, MIVOParams*) {});
  ASSERT_TRUE(pair_.Connect());
  EXPECT_EQ(peer_.Exchange(Request({"silent", 9})), ClientReply("", 9, std::nullopt));
}

TEST_P(ClientHandlers, AnUnknownNameIsAnsweredWithTheMarkAlone) {
  ASSERT_TRUE(pair_.Connect());
  EXPECT_EQ(Hex(peer_.Exchange(Request({"foo", 9, Wire().Int(1).bytes(), "0xab"})).value_or("")), Hex(kUnknown));
}

TEST_P(ClientHandlers, TheFirstUnderANameStaysAndTheSecondIsLeftAlone) {
  Deletions first;
  Deletions second;
  client_.On(
      "name", [](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(1); }, &first);
  LambdaMethod refused([](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(2); }, &second);
  client_->method("name", &refused);
  ASSERT_TRUE(pair_.Connect());
  EXPECT_EQ(peer_.Exchange(Request({"name", 9})), ClientReply(Wire().Int(1), 9, std::nullopt));
  client_.Destroy();
  EXPECT_EQ(first.count, 1);
  EXPECT_EQ(second.count, 0);
}

TEST_P(ClientHandlers, CannotTakeBuiltInNames) {
  Deletions deletions;
  std::atomic<int> calls{0};
  LambdaMethod slices([&](int, MIVOParams*, MIVOParams*) { ++calls; }, &deletions);
  LambdaMethod notice([&](int, MIVOParams*, MIVOParams*) { ++calls; }, &deletions);
  client_->method("s_c_req_body", &slices);
  client_->method("s_c_buildin_closed", &notice);
  ASSERT_TRUE(pair_.Connect());
  EXPECT_EQ(peer_.Exchange(Request({"s_c_req_body", 9, FromHex(exact::kSlice)})), ClientReply("", 9, std::nullopt));
  EXPECT_EQ(peer_.Exchange(Request({"s_c_buildin_closed", 9})), ClientReply("", 9, std::nullopt));
  peer_.Close();
  ASSERT_TRUE(Eventually([&] { return !client_->isok(); }));
  client_.Destroy();
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(deletions.count, 0);
}

TEST_P(ClientHandlers, TheCatchAllIsNeverCalledAndTheFirstOneIsDeletedAtTheEnd) {
  Deletions first;
  Deletions second;
  std::atomic<int> calls{0};
  client_->methodall(new LambdaMethodAll([&](const char*, int, MIVOParams*, MIVOParams*) { ++calls; }, &first));
  LambdaMethodAll refused([&](const char*, int, MIVOParams*, MIVOParams*) { ++calls; }, &second);
  client_->methodall(&refused);
  ASSERT_TRUE(pair_.Connect());
  EXPECT_EQ(peer_.Exchange(Request({"foo", 9})), kUnknown);
  client_->close();
  EXPECT_EQ(first.count, 1);
  client_.Destroy();
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(first.count, 1);
  EXPECT_EQ(second.count, 0);
}

TEST_P(ClientHandlers, RunSeveralAtATime) {
  Event inside;
  client_.On("meet", [&](int, MIVOParams*, MIVOParams* reply) {
    inside.Signal();
    reply->AddBool(inside.WaitFor(3));
  });
  ASSERT_TRUE(pair_.Connect());
  for (int i = 0; i < 3; ++i)
    ASSERT_TRUE(peer_.SendFrame(Request({"meet", 9})));
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(peer_.ReadFrame(), ClientReply(Wire().Bool(true), 9, std::nullopt));
}

TEST_P(ClientHandlers, AFrameWithoutNameIsReportedAndNotAnswered) {
  ASSERT_TRUE(pair_.Connect());
  const StdoutCapture out;
  ASSERT_TRUE(peer_.SendFrame(Wire().KeyInt("s_c_sw_threadid", 9)));
  EXPECT_TRUE(out.WaitFor("event empty!\n"));
  EXPECT_TRUE(AnswersNext());
}

TEST_P(ClientHandlers, ANameOfAnotherTypeCountsAsNone) {
  ASSERT_TRUE(pair_.Connect());
  const StdoutCapture out;
  ASSERT_TRUE(peer_.SendFrame(Wire().KeyInt("s_c_sw_name", 5).KeyInt("s_c_sw_threadid", 9)));
  EXPECT_TRUE(out.WaitFor("event empty!\n"));
  EXPECT_TRUE(AnswersNext());
}

TEST_P(ClientHandlers, AnUndecodablePayloadIsDroppedWithoutAWord) {
  ASSERT_TRUE(pair_.Connect());
  const StdoutCapture out;
  ASSERT_TRUE(peer_.SendFrame(std::string("\3\377\377\377\177", 5)));
  EXPECT_TRUE(AnswersNext());
  EXPECT_EQ(out.Text(), "");
}

TEST_P(ClientHandlers, ARepliesNameReachesNoHandler) {
  std::atomic<int> calls{0};
  client_.On("retval", [&](int, MIVOParams*, MIVOParams*) { ++calls; });
  ASSERT_TRUE(pair_.Connect());
  ASSERT_TRUE(peer_.SendFrame(Request({"retval", 9, Wire().Int(1).bytes()})));
  EXPECT_TRUE(AnswersNext());
  client_.Destroy();
  EXPECT_EQ(calls, 0);
}

TEST_P(ClientHandlers, MayCallAndPostThroughTheirClient) {
  client_.On("relay", [&](int, MIVOParams* request, MIVOParams* reply) {
    client_->PostMsg("posted", nullptr, 7);
    const Reply inner(client_->SendMsgFast("called", request, 8, 0));
    reply->AddInt(IntAt(inner.get(), 0).value_or(-1));
  });
  ASSERT_TRUE(pair_.Connect());
  ASSERT_TRUE(peer_.SendFrame(Request({"relay", 9, Wire().Int(4).bytes(), "0xab"})));
  EXPECT_EQ(peer_.ReadFrame(), Request({"posted", 7}));
  const std::string called = peer_.ReadFrame().value_or("");
  EXPECT_EQ(TextOf(called, "s_c_sw_name"), "called");
  ASSERT_TRUE(peer_.SendFrame(ServerReply(Wire().Int(5), 8, TextOf(called, "s_c_sw_semid"))));
  EXPECT_EQ(peer_.ReadFrame(), ClientReply(Wire().Int(5), 9, "0xab"));
}

TEST_P(ClientHandlers, OutliveTheClientWhereTheApplicationKeepsThem) {
  Deletions deletions;
  LambdaMethod one([](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(1); }, &deletions);
  LambdaMethod two([](int, MIVOParams*, MIVOParams*) {}, &deletions);
  LambdaMethodAll rest([](const char*, int, MIVOParams*, MIVOParams*) {}, &deletions);
  client_->SetCustomReleaseEvent();
  client_->method("one", &one);
  client_->method("two", &two);
  client_->methodall(&rest);
  ASSERT_TRUE(pair_.Connect());
  EXPECT_EQ(peer_.Exchange(Request({"one", 9})), ClientReply(Wire().Int(1), 9, std::nullopt));
  client_->close();
  client_.Destroy();
  EXPECT_EQ(deletions.count, 0);
}

TEST_P(ClientHandlers, AReplyThatCannotBeWrittenIsReported) {
  Event release;
  Event inside;
  client_.On("late", [&](int, MIVOParams*, MIVOParams*) {
    inside.Signal();
    release.WaitFor();
  });
  ASSERT_TRUE(pair_.Connect());
  ASSERT_TRUE(peer_.SendFrame(Request({"late", 9})));
  ASSERT_TRUE(inside.WaitFor());
  const StdoutCapture out;
  {
    const ScopedFault fault(Fault::kSendCall, 1, 1000, UV_EIO);
    release.Signal();
    EXPECT_TRUE(out.WaitFor("write data error\n"));
  }
  EXPECT_TRUE(out.Contains("write error\n"));
  // The reply is lost, the connection is not.
  EXPECT_TRUE(AnswersNext());
}

TEST_P(ClientHandlers, ANullOneCountsAsUnknown) {
  client_->method("null", nullptr);
  ASSERT_TRUE(pair_.Connect());
  EXPECT_EQ(peer_.Exchange(Request({"null", 9, std::nullopt, "0xab"})), kUnknown);
}

TEST_P(ClientHandlers, HaveNamesThatDifferByASingleByte) {
  client_.On("a", [](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(1); });
  client_.On("a ", [](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(2); });
  client_.On("A", [](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(3); });
  ASSERT_TRUE(pair_.Connect());
  EXPECT_EQ(peer_.Exchange(Request({"a", 9})), ClientReply(Wire().Int(1), 9, std::nullopt));
  EXPECT_EQ(peer_.Exchange(Request({"a ", 9})), ClientReply(Wire().Int(2), 9, std::nullopt));
  EXPECT_EQ(peer_.Exchange(Request({"A", 9})), ClientReply(Wire().Int(3), 9, std::nullopt));
  EXPECT_EQ(peer_.Exchange(Request({"a  ", 9})), kUnknown);
}

class HandlersAcross : public testing::TestWithParam<Transport> {};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, HandlersAcross, kEveryTransport, TransportName);

TEST_P(HandlersAcross, CallsFromAClientsHandlerReachTheServer) {
  std::atomic<int> client_id{0};
  TestServer server(GetParam());
  server.On("hello", [&](int id, MIVOParams*, MIVOParams*) { client_id = id; });
  server.On("add one",
            [](int, MIVOParams* request, MIVOParams* reply) { reply->AddInt(IntAt(request, 0).value_or(-100) + 1); });
  ASSERT_TRUE(server.Init());
  TestClient client;
  client.On("add two", [&](int, MIVOParams* request, MIVOParams* reply) {
    MIVOParams number;
    number.AddInt(IntAt(request, 0).value_or(-100) + 1);
    const Reply added = client.Call("add one", &number);
    reply->AddInt(IntAt(added.get(), 0).value_or(-100));
  });
  ASSERT_TRUE(client.Init(server.address()));
  ASSERT_FALSE(client.Call("hello").error());
  MIVOParams number;
  number.AddInt(40);
  EXPECT_EQ(IntAt(server->SendMsg(client_id, "add two", &number, 0, 30000), 0), 42);
}

}  // namespace
