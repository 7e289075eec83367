#include <mivo/mivo.h>

#include "support/event.h"
#include "support/golden.h"
#include "support/raw_server.h"
#include "support/stdout_capture.h"
#include "support/test_client.h"
#include "support/test_server.h"
#include "support/transport.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstring>
#include <locale>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

using namespace mivo_test;

namespace {

// Time for the client to do what it must not do.
constexpr std::chrono::milliseconds kMoment{50};

// A request as the server's side sees it.
struct Asked {
  std::string payload;

  int key() const { return IntOf(payload, "s_c_sw_threadid").value_or(0); }
  std::string semid() const { return TextOf(payload, "s_c_sw_semid").value_or(""); }
  std::string Reply(int value) const { return ServerReply(Wire().Int(value), key(), semid()); }
};

// Against a server driven by hand.
class ClientCalls : public testing::TestWithParam<Transport> {
 protected:
  void SetUp() override {
    client_.On("mark", [](int, MIVOParams*, MIVOParams*) {});
    peer_ = client_.InitAgainst(server_);
    ASSERT_TRUE(peer_.connected());
  }

  Asked Next() { return {peer_.ReadFrame().value_or("")}; }

  // Sends, and returns when the client has taken it: it answers what comes behind.
  bool SendAndWait(const std::string& payload) {
    return peer_.SendFrame(payload) && peer_.Exchange(Request({"mark", 4711})) == ClientReply("", 4711, std::nullopt);
  }

  std::unique_ptr<PendingCall> Start(const char* name, int key, int timeout) {
    return std::make_unique<PendingCall>(
        [this, name, key, timeout] { return client_->SendMsgFast(name, nullptr, key, timeout); });
  }

  // A call on the key that nobody answers in time.
  Asked TimeOut(int key) {
    EXPECT_EQ(TakeError(client_->SendMsgFast("late", nullptr, key, 1)), -1001);
    return Next();
  }

  RawServer server_{GetParam()};
  TestClient client_;
  RawPeer peer_;
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, ClientCalls, kEveryTransport, TransportName);

// Against a real server.
class ClientRoundTrips : public testing::TestWithParam<Transport> {
 protected:
  void SetUp() override {
    server_.On("echo", [](int, MIVOParams* request, MIVOParams* reply) {
      const MIVOValue* const value = request->GetValue(0);
      reply->AddInt(value != nullptr && value->IsInt() ? value->GetInt() : -1);
    });
    server_.On("rich", [](int, MIVOParams*, MIVOParams* reply) {
      reply->AddInt(-5);
      reply->AddBool(true);
      reply->AddDouble(0.5);
      reply->AddString("text");
      reply->AddStream("a\0b", 3);
      ListParams* const list = reply->CreateListParams();
      list->AddInt(1);
      list->AddString("x", 1);
      reply->AddList(list);
      reply->AddKeyValueString("key", "value");
    });
    ASSERT_TRUE(server_.Init());
    ASSERT_TRUE(client_.Init(server_.address()));
  }

  TestServer server_{GetParam()};
  TestClient client_;
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, ClientRoundTrips, kEveryTransport, TransportName);

int Echo(IClient* client, int value, int key, int timeout = 0) {
  MIVOParams params;
  params.AddInt(value);
  return TakeInt(client->SendMsgFast("echo", &params, key, timeout)).value_or(-1);
}

// --- What a call returns

TEST_P(ClientRoundTrips, AReplyHoldsWhatTheHandlerWroteAndItsEnvelope) {
  for (const bool serialised : {true, false}) {
    MIVOParams* const reply =
        serialised ? client_->SendMsg("rich", nullptr, 77, 0) : client_->SendMsgFast("rich", nullptr, 77, 0);
    ASSERT_EQ(reply->ParamsSize(), 6);
    EXPECT_EQ(reply->GetValue(0)->GetInt(), -5);
    EXPECT_TRUE(reply->GetValue(1)->GetBool());
    EXPECT_EQ(reply->GetValue(2)->GetDouble(), 0.5);
    EXPECT_STREQ(reply->GetValue(3)->GetString(), "text");
    long length = 0;
    const char* const bytes = reply->GetValue(4)->GetStream(length);
    EXPECT_EQ(std::string(bytes, static_cast<std::size_t>(length)), std::string("a\0b", 3));
    ASSERT_EQ(reply->GetValue(5)->GetList()->size(), 2u);
    EXPECT_STREQ((*reply->GetValue(5)->GetList())[1]->GetString(), "x");
    ASSERT_NE(reply->GetMap("key"), nullptr);
    EXPECT_STREQ(reply->GetMap("key")->GetString(), "value");
    ASSERT_NE(reply->GetMap("s_c_sw_name"), nullptr);
    EXPECT_STREQ(reply->GetMap("s_c_sw_name")->GetString(), "retval");
    ASSERT_NE(reply->GetMap("s_c_sw_threadid"), nullptr);
    EXPECT_EQ(reply->GetMap("s_c_sw_threadid")->GetInt(), 77);
    ASSERT_NE(reply->GetMap("s_c_sw_semid"), nullptr);
    EXPECT_TRUE(reply->GetMap("s_c_sw_semid")->IsString());
    EXPECT_EQ(reply->MapSize(), 4);
    EXPECT_EQ(reply->GetMap("errorCode"), nullptr);
  }
}

TEST_P(ClientRoundTrips, AnUnknownMethodIsAnsweredAtOnceWithItsName) {
  const Stopwatch watch;
  MIVOParams* const reply = client_->SendMsg("foo", nullptr, 0, 20000);
  ASSERT_EQ(reply->ParamsSize(), 1);
  EXPECT_STREQ(reply->GetValue(0)->GetString(), "no event: foo");
  EXPECT_LT(watch.ElapsedMs(), 15000);
}

TEST_P(ClientRoundTrips, ArgumentsAreLeftAsTheyWere) {
  MIVOParams params;
  params.AddInt(3);
  params.AddKeyValueString("k", "v");
  const std::string encoded = *params.GetParamas();
  EXPECT_EQ(TakeInt(client_->SendMsg("echo", &params, 0, 0)), 3);
  EXPECT_EQ(TakeInt(client_->SendMsgFast("echo", &params, 0, 0)), 3);
  EXPECT_EQ(*params.GetParamas(), encoded);
}

TEST_P(ClientRoundTrips, AReplyOutlivesCallsOnOtherKeysAndPostsOnItsOwn) {
  MIVOParams* const reply = client_->SendMsg("rich", nullptr, 1, 0);
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(client_->PostMsg("rich", nullptr, 1), 0);
    EXPECT_EQ(Echo(client_.get(), i, 2 + i), i);
  }
  // Time for the last answers to the posts: they do no harm whether they come or not.
  std::this_thread::sleep_for(kMoment);
  ASSERT_EQ(reply->ParamsSize(), 6);
  EXPECT_STREQ(reply->GetValue(3)->GetString(), "text");
  EXPECT_STREQ(reply->GetMap("key")->GetString(), "value");
}

TEST_P(ClientRoundTrips, AReplyOutlivesItsConnection) {
  MIVOParams* const reply = client_->SendMsg("rich", nullptr, 1, 0);
  server_.Destroy();
  ASSERT_TRUE(Eventually([&] { return !client_->isok(); }));
  EXPECT_STREQ(reply->GetValue(3)->GetString(), "text");
}

TEST_P(ClientRoundTrips, ClearingTheRepliesFreesThemAndHurtsNoCall) {
  for (int key = 1; key <= 10; ++key)
    EXPECT_EQ(Echo(client_.get(), key, key), key);
  client_->ClearRetvalMem();
  client_->ClearRetvalMem();
  for (int key = 1; key <= 10; ++key)
    EXPECT_EQ(Echo(client_.get(), key, key), key);
}

TEST_P(ClientCalls, AReplyWithAnErrorCodeOfThePeersIsAReply) {
  const auto call = Start("foo", 9, 0);
  const Asked asked = Next();
  ASSERT_TRUE(peer_.SendFrame(ServerReply(Wire().KeyInt("errorCode", -1001), 9, asked.semid())));
  MIVOParams* const reply = call->Wait();
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->GetMap("errorCode")->GetInt(), -1001);
  EXPECT_NE(reply->GetMap("s_c_sw_semid"), nullptr);
}

// --- No connection

TEST(UnconnectedClient, CallsReturnAnErrorSetOfTheCallers) {
  TestClient client;
  MIVOParams params;
  params.AddInt(1);
  for (const int key : {0, 7}) {
    for (const bool serialised : {true, false}) {
      StdoutCapture output;
      MIVOParams* const set =
          serialised ? client->SendMsg("foo", &params, key, 0) : client->SendMsgFast("foo", nullptr, key, 100);
      ASSERT_NE(set, nullptr);
      EXPECT_EQ(Hex(*set->GetParamas()), Hex(FromHex(exact::kNotConnected)));
      EXPECT_EQ(set->ParamsSize(), 0);
      EXPECT_EQ(set->MapSize(), 1);
      ASSERT_NE(set->GetMap("errorCode"), nullptr);
      EXPECT_TRUE(set->GetMap("errorCode")->IsInt());
      EXPECT_EQ(set->GetMap("errorCode")->GetInt(), -1000);
      EXPECT_EQ(output.Text(), "SendMsg end: IsOk Flase\nsend msg: disconnect... .. .\n");
      client->ClearRetvalMem();
      EXPECT_EQ(set->MapSize(), 1) << "not the library's to free";
      delete set;
    }
  }
}

TEST(UnconnectedClient, APostReturnsZeroAndSaysOneLine) {
  TestClient client;
  StdoutCapture output;
  EXPECT_EQ(client->PostMsg("foo", nullptr, 0), 0);
  EXPECT_EQ(output.Text(), "send msg: disconnect... .. .\n");
}

// --- The key

TEST_P(ClientCalls, TheKeyIsTheCallersThreadUnlessItIsGiven) {
  for (const int key : {0, 77, -5, INT_MAX, INT_MIN}) {
    std::atomic<int> thread{0};
    PendingCall call([&] {
      thread = ThreadId();
      return client_->SendMsg("foo", nullptr, key, 0);
    });
    const Asked asked = Next();
    EXPECT_EQ(asked.key(), key == 0 ? thread.load() : key);
    ASSERT_TRUE(peer_.SendFrame(asked.Reply(1)));
    EXPECT_EQ(TakeInt(call.Wait()), 1);
  }
  client_->PostMsg("foo", nullptr, 0);
  EXPECT_EQ(Next().key(), ThreadId());
}

TEST_P(ClientRoundTrips, ThreadsWithoutAKeyGetTheirOwnReplies) {
  constexpr int kThreads = 16;
  const int calls = kSanitized ? 20 : 100;
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; i < calls; ++i) {
        const int value = thread * 10000 + i;
        wrong += Echo(client_.get(), value, 0) == value ? 0 : 1;
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(wrong, 0);
}

TEST_P(ClientCalls, TwoCallsOnOneKeyGetTheirOwnReplies) {
  const auto first = Start("first", 9, 0);
  const Asked asked_first = Next();
  const auto second = Start("second", 9, 0);
  const Asked asked_second = Next();
  ASSERT_TRUE(peer_.SendBytes(Frame(asked_second.Reply(2)) + Frame(asked_first.Reply(1))));
  EXPECT_EQ(TakeInt(first->Wait()), 1);
  EXPECT_EQ(TakeInt(second->Wait()), 2);
}

TEST_P(ClientCalls, NoNameIsTheEmptyName) {
  client_->PostMsgFast(nullptr, nullptr, 9);
  EXPECT_EQ(Hex(Next().payload), Hex(Request({"", 9})));
  PendingCall call([&] { return client_->SendMsg(nullptr, nullptr, 9, 0); });
  const Asked asked = Next();
  EXPECT_EQ(TextOf(asked.payload, "s_c_sw_name"), "");
  ASSERT_TRUE(peer_.SendFrame(asked.Reply(1)));
  EXPECT_EQ(TakeInt(call.Wait()), 1);
}

// --- Time-outs

TEST_P(ClientCalls, AnUnansweredCallReturnsNoReplyAfterItsTime) {
  const Stopwatch watch;
  MIVOParams* const set = client_->SendMsg("silence", nullptr, 9, 1000);
  const long long elapsed = watch.ElapsedMs();
  EXPECT_GE(elapsed, 1000);
  EXPECT_LT(elapsed, 10000);
  EXPECT_EQ(Hex(*set->GetParamas()), Hex(Golden("error_no_reply")));
  EXPECT_EQ(set->ParamsSize(), 0);
  EXPECT_EQ(set->MapSize(), 1);
  EXPECT_EQ(TakeError(set), -1001);
}

TEST_P(ClientCalls, EachCallHasATimeOutOfItsOwn) {
  const auto endless = Start("silence", 1, 0);
  const Asked asked = Next();
  const auto longer = Start("silence", 2, 900);
  const auto shorter = Start("silence", 3, 100);
  EXPECT_EQ(TakeError(shorter->Wait()), -1001);
  EXPECT_EQ(TakeError(longer->Wait()), -1001);
  EXPECT_GE(shorter->elapsed_ms(), 100);
  EXPECT_GE(longer->elapsed_ms(), 900);
  EXPECT_FALSE(endless->IsDone());
  ASSERT_TRUE(peer_.SendFrame(asked.Reply(1)));
  EXPECT_EQ(TakeInt(endless->Wait()), 1);
}

TEST_P(ClientCalls, TimeOutsOfZeroAndBelowHaveNoEndToSpeakOf) {
  std::vector<std::unique_ptr<PendingCall>> calls;
  std::string replies;
  int key = 0;
  for (const int timeout : {0, -1, INT_MIN, INT_MAX}) {
    calls.push_back(Start("silence", ++key, timeout));
    replies += Frame(Next().Reply(key));
  }
  // A call with a time-out of its own shows that the sweep has looked at all of them.
  EXPECT_EQ(TakeError(client_->SendMsgFast("silence", nullptr, 99, 900)), -1001);
  for (const auto& call : calls)
    EXPECT_FALSE(call->IsDone());
  ASSERT_TRUE(peer_.SendBytes(replies));
  for (int i = 1; i <= key; ++i)
    EXPECT_EQ(TakeInt(calls[static_cast<std::size_t>(i - 1)]->Wait()), i);
}

// --- Late replies

TEST_P(ClientCalls, ALateReplyIsNotReturnedByTheNextCall) {
  const Asked late = TimeOut(9);
  ASSERT_TRUE(SendAndWait(late.Reply(1)));
  EXPECT_EQ(TakeError(client_->SendMsgFast("silence", nullptr, 9, 1)), -1001);
}

TEST_P(ClientCalls, ALateReplyNeitherWakesNorAnswersACallInFlight) {
  const Asked late = TimeOut(9);
  const auto answered = Start("foo", 9, 0);
  const Asked asked = Next();
  ASSERT_TRUE(SendAndWait(late.Reply(1)));
  EXPECT_FALSE(answered->IsDone());
  ASSERT_TRUE(peer_.SendFrame(asked.Reply(2)));
  EXPECT_EQ(TakeInt(answered->Wait()), 2);

  const auto unanswered = Start("foo", 9, 300);
  Next();
  ASSERT_TRUE(SendAndWait(late.Reply(3)));
  EXPECT_EQ(TakeError(unanswered->Wait()), -1001);
}

TEST_P(ClientCalls, ALateReplyLeavesAReplyAlreadyReturnedAlone) {
  const Asked late = TimeOut(9);
  const auto call = Start("foo", 9, 0);
  ASSERT_TRUE(peer_.SendFrame(Next().Reply(2)));
  MIVOParams* const reply = call->Wait();
  ASSERT_NE(reply, nullptr);
  ASSERT_TRUE(SendAndWait(late.Reply(1)));
  EXPECT_EQ(reply->GetValue(0)->GetInt(), 2);
}

TEST_P(ClientCalls, ADuplicateOfAReplyIsOfNoEffect) {
  const auto call = Start("foo", 9, 0);
  const Asked asked = Next();
  ASSERT_TRUE(peer_.SendFrame(asked.Reply(1)));
  MIVOParams* const reply = call->Wait();
  ASSERT_NE(reply, nullptr);
  ASSERT_TRUE(SendAndWait(asked.Reply(2)));
  EXPECT_EQ(reply->GetValue(0)->GetInt(), 1);
  EXPECT_EQ(TakeError(client_->SendMsgFast("silence", nullptr, 9, 1)), -1001);
}

TEST_P(ClientCalls, NoSemaphoreComesTwice) {
  std::set<std::string> seen;
  std::thread answering([&] {
    for (int i = 0; i < 1000; ++i) {
      const Asked asked = Next();
      seen.insert(asked.semid());
      peer_.SendFrame(asked.Reply(i));
    }
  });
  int wrong = 0;
  for (int i = 0; i < 1000; ++i)
    wrong += TakeInt(client_->SendMsgFast("foo", nullptr, 9, 0)) == i ? 0 : 1;
  answering.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(seen.size(), 1000u);
}

// --- Replies that do not say whose they are

TEST_P(ClientCalls, AReplyWithoutAThreadIdIsDropped) {
  const auto call = Start("foo", 9, 300);
  const Asked asked = Next();
  ASSERT_TRUE(SendAndWait(ServerReply(Wire().Int(1), std::nullopt, asked.semid())));
  ASSERT_TRUE(SendAndWait(Wire()
                              .Int(1)
                              .KeyString("s_c_sw_name", "retval")
                              .KeyString("s_c_sw_threadid", "9")
                              .KeyString("s_c_sw_semid", asked.semid())));
  EXPECT_EQ(TakeError(call->Wait()), -1001);
  EXPECT_GE(call->elapsed_ms(), 300);
}

// These calls last as long as their time-out, so that it is short; and the reply has to be there before it is over. On
// a busy machine it may come later: then once more.
TEST_P(ClientCalls, AReplyWithoutASemaphoreIsReturnedWhenTheTimeIsOver) {
  bool in_time = false;
  for (int attempt = 0; attempt < 10 && !in_time; ++attempt) {
    const Stopwatch watch;
    const auto call = Start("foo", 9, 1000);
    Next();
    ASSERT_TRUE(SendAndWait(ServerReply(Wire().Int(1), 9, std::nullopt)));
    in_time = watch.ElapsedMs() < 950;
    const std::optional<int> reply = TakeInt(call->Wait());
    EXPECT_GE(call->elapsed_ms(), 1000);
    if (in_time) {
      EXPECT_EQ(reply, 1);
    }
  }
  EXPECT_TRUE(in_time);
}

TEST_P(ClientCalls, AReplyWithAForeignSemaphoreIsReturnedWhenTheTimeIsOver) {
  const std::string foreign[] = {
      ServerReply(Wire().Int(1), 1, "0xdead"),
      ServerReply(Wire().Int(2), 2, "abc"),
      ServerReply(Wire().Int(3), 3, ""),
      ServerReply(Wire().Int(4), 4, "0"),
      ServerReply(Wire().Int(5), 5, "0xffffffffffffffffffff"),
      ServerReply(Wire().Int(6), 6, std::string(5000, '7')),
      Wire().Int(7).KeyString("s_c_sw_name", "retval").KeyInt("s_c_sw_threadid", 7).KeyInt("s_c_sw_semid", 7),
  };
  bool in_time = false;
  for (int attempt = 0; attempt < 10 && !in_time; ++attempt) {
    const Stopwatch watch;
    std::vector<std::unique_ptr<PendingCall>> calls;
    int key = 0;
    for (const std::string& reply : foreign) {
      calls.push_back(Start("foo", ++key, 1000));
      Next();
      ASSERT_TRUE(SendAndWait(reply));
    }
    in_time = watch.ElapsedMs() < 950;
    for (int i = 1; i <= key; ++i) {
      PendingCall& call = *calls[static_cast<std::size_t>(i - 1)];
      const std::optional<int> reply = TakeInt(call.Wait());
      EXPECT_GE(call.elapsed_ms(), 1000);
      if (in_time) {
        EXPECT_EQ(reply, i);
      }
    }
  }
  EXPECT_TRUE(in_time);
}

TEST_P(ClientCalls, AReplyWithTheSemaphoreAndAnotherThreadIdWakesItsCallWithNothing) {
  const auto call = Start("foo", 9, 0);
  const Asked asked = Next();
  ASSERT_TRUE(peer_.SendFrame(ServerReply(Wire().Int(1), 10, asked.semid())));
  EXPECT_EQ(TakeError(call->Wait()), -1001);
}

TEST_P(ClientCalls, AReplyThatCameBeforeItsCallIsNotReturned) {
  ASSERT_TRUE(SendAndWait(ServerReply(Wire().Int(1), 9, std::nullopt)));
  EXPECT_EQ(TakeError(client_->SendMsgFast("silence", nullptr, 9, 1)), -1001);
}

TEST_P(ClientCalls, TheAnswerOfAPostIsNotThatOfACallOnItsKey) {
  for (const bool after_the_call : {false, true}) {
    EXPECT_EQ(client_->PostMsgFast("post", nullptr, 9), 0);
    Next();
    const std::string answer = ServerReply(Wire().Int(1), 9, std::nullopt);
    ASSERT_TRUE(after_the_call || SendAndWait(answer));
    const auto call = Start("silence", 9, 200);
    Next();
    ASSERT_TRUE(!after_the_call || SendAndWait(answer));
    EXPECT_EQ(TakeError(call->Wait()), -1001);
  }
}

TEST_P(ClientCalls, TheAnswerOfAPostLeavesAReplyAlreadyReturnedAlone) {
  const auto call = Start("foo", 9, 0);
  ASSERT_TRUE(peer_.SendFrame(Next().Reply(1)));
  MIVOParams* const reply = call->Wait();
  ASSERT_NE(reply, nullptr);
  client_->PostMsgFast("post", nullptr, 9);
  Next();
  ASSERT_TRUE(SendAndWait(ServerReply(Wire().Int(2), 9, std::nullopt)));
  ASSERT_TRUE(SendAndWait(ServerReply(Wire().Int(3), 9, std::nullopt)));
  EXPECT_EQ(reply->GetValue(0)->GetInt(), 1);
}

TEST_P(ClientCalls, TheAnswersOfAPostAndOfACallInOneChunkAreNotMixed) {
  client_->PostMsgFast("post", nullptr, 9);
  Next();
  const auto call = Start("foo", 9, 0);
  const Asked asked = Next();
  ASSERT_TRUE(peer_.SendBytes(Frame(asked.Reply(1)) + Frame(ServerReply(Wire().Int(2), 9, std::nullopt))));
  EXPECT_EQ(TakeInt(call->Wait()), 1);
}

TEST_P(ClientRoundTrips, TheReplyOfAServerThatCloseServerAsksForIsReturnedWhenTheTimeIsOver) {
  bool in_time = false;
  for (int attempt = 0; attempt < 5 && !in_time; ++attempt) {
    const Stopwatch watch;
    MIVOParams* const reply = client_->SendMsg("s_c_close_server", nullptr, 0, 1000);
    EXPECT_GE(watch.ElapsedMs(), 1000);
    if (TakeError(reply) == -1001) continue;
    in_time = true;
    ASSERT_EQ(reply->ParamsSize(), 1);
    EXPECT_TRUE(reply->GetValue(0)->IsBool());
    EXPECT_TRUE(reply->GetValue(0)->GetBool());
  }
  EXPECT_TRUE(in_time);
  EXPECT_EQ(Echo(client_.get(), 5, 0), 5) << "the server serves on";
}

// --- One at a time, or not

TEST_P(ClientCalls, SerialisedCallsAndPostsWaitForEachOtherInTheWholeProcess) {
  RawServer other_server(GetParam());
  TestClient other;
  RawPeer other_peer = other.InitAgainst(other_server);
  ASSERT_TRUE(other_peer.connected());
  PendingCall first([&] { return client_->SendMsg("first", nullptr, 1, 0); });
  const Asked asked = Next();
  PendingCall second([&] { return client_->SendMsg("second", nullptr, 2, 0); });
  PendingCall elsewhere([&] { return other->SendMsg("elsewhere", nullptr, 3, 0); });
  std::thread posting([&] { client_->PostMsg("post", nullptr, 4); });
  EXPECT_TRUE(peer_.ExpectSilence(kMoment));
  EXPECT_TRUE(other_peer.ExpectSilence(kMoment));
  std::thread answering_elsewhere([&] {
    const Asked asked_elsewhere{other_peer.ReadFrame().value_or("")};
    other_peer.SendFrame(asked_elsewhere.Reply(3));
  });
  ASSERT_TRUE(peer_.SendFrame(asked.Reply(1)));
  for (int i = 0; i < 2; ++i) {
    const Asked next = Next();
    if (!next.semid().empty()) peer_.SendFrame(next.Reply(next.key()));
  }
  EXPECT_EQ(TakeInt(first.Wait()), 1);
  EXPECT_EQ(TakeInt(second.Wait()), 2);
  EXPECT_EQ(TakeInt(elsewhere.Wait()), 3);
  posting.join();
  answering_elsewhere.join();
}

TEST_P(ClientCalls, FastCallsAndPostsWaitForNobody) {
  PendingCall serialised([&] { return client_->SendMsg("serialised", nullptr, 1, 0); });
  std::vector<Asked> asked{Next()};
  const auto first = Start("first", 2, 0);
  asked.push_back(Next());
  const auto second = Start("second", 3, 0);
  asked.push_back(Next());
  EXPECT_EQ(client_->PostMsgFast("post", nullptr, 4), 0);
  EXPECT_EQ(Next().key(), 4);
  for (const Asked& one : asked)
    ASSERT_TRUE(peer_.SendFrame(one.Reply(one.key())));
  EXPECT_EQ(TakeInt(serialised.Wait()), 1);
  EXPECT_EQ(TakeInt(first->Wait()), 2);
  EXPECT_EQ(TakeInt(second->Wait()), 3);
}

TEST_P(ClientCalls, ACallThatRunsIntoItsTimeOutGivesItsTurnAway) {
  PendingCall first([&] { return client_->SendMsg("silence", nullptr, 1, 100); });
  Next();
  PendingCall second([&] { return client_->SendMsg("foo", nullptr, 2, 0); });
  ASSERT_TRUE(peer_.SendFrame(Next().Reply(2)));
  EXPECT_EQ(TakeError(first.Wait()), -1001);
  EXPECT_EQ(TakeInt(second.Wait()), 2);
}

// --- Both ways

TEST_P(ClientRoundTrips, CallsBothWaysOverOneConnectionDoNotMix) {
  TestServer server(GetParam());
  std::atomic<int> wrong{0};
  std::atomic<int> connection{0};
  server.On("twice", [&](int id, MIVOParams* request, MIVOParams* reply) {
    connection = id;
    reply->AddInt(2 * request->GetValue(0)->GetInt());
  });
  ASSERT_TRUE(server.Init());
  TestClient client;
  client.On("thrice",
            [](int, MIVOParams* request, MIVOParams* reply) { reply->AddInt(3 * request->GetValue(0)->GetInt()); });
  ASSERT_TRUE(client.Init(server.address()));
  const auto call_client = [&](int value) {
    MIVOParams params;
    params.AddInt(value);
    return TakeInt(client->SendMsgFast("twice", &params, 0, 0));
  };
  ASSERT_EQ(call_client(1), 2);
  const int calls = kSanitized ? 50 : 200;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 3; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; i < calls; ++i)
        wrong += call_client(thread * 1000 + i) == 2 * (thread * 1000 + i) ? 0 : 1;
    });
    threads.emplace_back([&, thread] {
      for (int i = 0; i < calls; ++i) {
        MIVOParams params;
        params.AddInt(thread * 1000 + i);
        MIVOParams* const reply = server->SendMsg(connection, "thrice", &params, 0, 60000);
        const bool right = reply != nullptr && reply->GetValue(0) != nullptr &&
                           reply->GetValue(0)->GetInt() == 3 * (thread * 1000 + i);
        wrong += right ? 0 : 1;
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(wrong, 0);
}

TEST_P(ClientRoundTrips, AHandlerOfTheClientMayCallTheServer) {
  TestServer server(GetParam());
  server.On("six", [](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(6); });
  server.On("ask", [&](int id, MIVOParams*, MIVOParams* reply) {
    MIVOParams* const answer = server->SendMsg(id, "relay", nullptr, 0, 60000);
    reply->AddInt(answer != nullptr && answer->GetValue(0) != nullptr ? answer->GetValue(0)->GetInt() : -1);
  });
  ASSERT_TRUE(server.Init());
  TestClient client;
  client.On("relay", [&](int, MIVOParams*, MIVOParams* reply) {
    reply->AddInt(TakeInt(client->SendMsgFast("six", nullptr, 0, 60000)).value_or(-1));
  });
  ASSERT_TRUE(client.Init(server.address()));
  EXPECT_EQ(TakeInt(client->SendMsg("ask", nullptr, 0, 60000)), 6);
}

// --- Surroundings

TEST_P(ClientCalls, AGlobalLocaleDoesNotReachTheWire) {
  struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\1"; }
  };
  const std::locale before = std::locale::global(std::locale(std::locale::classic(), new Grouping));
  const auto call = Start("foo", 1234567, 0);
  const Asked asked = Next();
  EXPECT_EQ(asked.semid().find_first_not_of("0123456789abcdefx"), std::string::npos) << asked.semid();
  EXPECT_TRUE(peer_.SendFrame(asked.Reply(1234567)));
  EXPECT_EQ(TakeInt(call->Wait()), 1234567);
  std::locale::global(before);
}

// Pointers to virtual members hold the place of the function in the virtual table.
template <typename Member>
std::size_t SlotOf(Member member) {
  std::uintptr_t place = 0;
  std::memcpy(&place, &member, sizeof place);
  return (place - 1) / sizeof(void*);
}

TEST(ClientInterface, OperationsHaveTheirPlacesBehindTheDestructors) {
  std::size_t slot = 2;
  EXPECT_EQ(SlotOf(&IClient::InitMIVOClient), slot++);
  EXPECT_EQ(SlotOf(&IClient::InitMIVOClientTcp4), slot++);
  EXPECT_EQ(SlotOf(&IClient::InitMIVOClientTcp6), slot++);
  EXPECT_EQ(SlotOf(&IClient::isok), slot++);
  EXPECT_EQ(SlotOf(&IClient::SetTimeoutStep), slot++);
  EXPECT_EQ(SlotOf(&IClient::close), slot++);
  EXPECT_EQ(SlotOf(&IClient::SendMsg), slot++);
  EXPECT_EQ(SlotOf(&IClient::SendMsgFast), slot++);
  EXPECT_EQ(SlotOf(&IClient::SendMsgEx), slot++);
  EXPECT_EQ(SlotOf(&IClient::PostMsg), slot++);
  EXPECT_EQ(SlotOf(&IClient::PostMsgFast), slot++);
  EXPECT_EQ(SlotOf(&IClient::method), slot++);
  EXPECT_EQ(SlotOf(&IClient::methodall), slot++);
  EXPECT_EQ(SlotOf(&IClient::log), slot++);
  EXPECT_EQ(SlotOf(&IClient::SetCustomReleaseEvent), slot++);
  EXPECT_EQ(SlotOf(&IClient::SetBigfileBufferSize), slot++);
  EXPECT_EQ(SlotOf(&IClient::GetBigfileBufferSize), slot++);
  EXPECT_EQ(SlotOf(&IClient::ClearRetvalMem), slot++);
}

}  // namespace
