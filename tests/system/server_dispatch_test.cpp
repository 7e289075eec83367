#include <mivo/mivo.h>

#include "support/event.h"
#include "support/journal.h"
#include "support/raw_client.h"
#include "support/stdout_capture.h"
#include "support/test_server.h"
#include "support/transport.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

using namespace mivo_test;

namespace {

// How many handlers can run at a time when nothing says otherwise.
constexpr int kPoolThreads = 4;

class ServerDispatch : public testing::TestWithParam<Transport> {
 protected:
  // Starts the server with the handlers registered so far and connects.
  void Serve() {
    ASSERT_TRUE(server_.Init());
    peer_ = server_.Connect();
    ASSERT_TRUE(peer_.connected());
  }

  // The description of the reply to a request.
  Lines ReplyTo(const std::string& request) {
    const auto reply = peer_.Exchange(request);
    return reply ? Describe(*reply) : Lines{"no reply"};
  }

  TestServer server_{GetParam()};
  RawPeer peer_;
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, ServerDispatch, kEveryTransport, TransportName);

// --- What a handler sees

TEST_P(ServerDispatch, AHandlerGetsTheIdTheDecodedArgumentsAndAnEmptyReplyOnAPoolThread) {
  std::atomic<int> connected_id{0};
  std::thread::id loop_thread;
  std::thread::id handler_thread;
  server_.On("s_c_connect", [&](int id, MIVOParams*, MIVOParams*) {
    connected_id = id;
    loop_thread = std::this_thread::get_id();
  });
  server_.On("all types", [&](int id, MIVOParams* request, MIVOParams* reply) {
    handler_thread = std::this_thread::get_id();
    EXPECT_EQ(id, connected_id);
    EXPECT_EQ(reply->ParamsSize() + reply->MapSize() + reply->Size(), 0);
    ASSERT_EQ(request->ParamsSize(), 6);
    EXPECT_EQ(request->GetValue(0)->GetInt(), INT_MIN);
    EXPECT_TRUE(request->GetValue(1)->GetBool());
    EXPECT_EQ(request->GetValue(2)->GetDouble(), 0.25);
    EXPECT_STREQ(request->GetValue(3)->GetString(), "text");
    long length = 0;
    const char* const bytes = request->GetValue(4)->GetStream(length);
    EXPECT_EQ(std::string(bytes, static_cast<std::size_t>(length)), std::string("a\0b", 3));
    ASSERT_TRUE(request->GetValue(5)->IsList());
    EXPECT_EQ(request->GetValue(5)->GetList()->size(), 2u);
    ASSERT_EQ(request->MapSize(), 1);
    EXPECT_EQ(request->GetMap("key")->GetInt(), 5);
    // The envelope is not the handler's.
    EXPECT_EQ(request->GetMap("s_c_sw_name"), nullptr);
    EXPECT_EQ(request->GetMap("s_c_sw_threadid"), nullptr);
    reply->AddBool(true);
  });
  Serve();
  const std::string data = Wire()
                               .Int(INT_MIN)
                               .Bool(true)
                               .Double(0.25)
                               .String("text")
                               .Stream(std::string("a\0b", 3))
                               .List(2)
                               .Int(1)
                               .Bool(false)
                               .KeyInt("key", 5);
  EXPECT_EQ(peer_.Exchange(Request({"all types", 1, data, "0x1"})), ServerReply(Wire().Bool(true), 1, "0x1"));
  EXPECT_NE(handler_thread, loop_thread);
  EXPECT_NE(handler_thread, std::this_thread::get_id());
}

TEST_P(ServerDispatch, ARequestWithoutDataGivesAnEmptySet) {
  Journal journal;
  server_.On("count", [&](int, MIVOParams* request, MIVOParams*) {
    journal.Add(std::to_string(request->ParamsSize() + request->MapSize() + request->Size()));
  });
  Serve();
  EXPECT_TRUE(peer_.Exchange(Request({"count", 1})).has_value());
  EXPECT_TRUE(peer_.Exchange(Request({"count", 1, ""})).has_value());
  EXPECT_EQ(journal.lines(), (Lines{"0", "0"}));
}

TEST_P(ServerDispatch, UndecodableDataGivesWhatComesBeforeTheFault) {
  Journal journal;
  server_.On("count", [&](int, MIVOParams* request, MIVOParams*) {
    journal.Add(std::to_string(request->ParamsSize()) + " " + std::to_string(request->MapSize()));
  });
  Serve();
  EXPECT_TRUE(
      peer_.Exchange(Request({"count", 1, Wire().Int(1).KeyInt("k", 2).Raw("\x0A").Int(3).bytes()})).has_value());
  EXPECT_TRUE(peer_.Exchange(Request({"count", 1, Wire().Int(1).bytes().substr(1)})).has_value());
  EXPECT_EQ(journal.lines().front(), "1 1");
  EXPECT_EQ(journal.lines().size(), 2u);
}

TEST_P(ServerDispatch, DataThatIsAStringIsDecodedAndDataOfAnotherTypeIsNone) {
  Journal journal;
  server_.On("count", [&](int, MIVOParams* request, MIVOParams*) {
    journal.Add(std::to_string(request->ParamsSize() + request->MapSize()));
  });
  Serve();
  for (const Wire& wire : {Wire().KeyString("s_c_sw_name", "count").KeyInt("s_c_sw_data", 5),
                           Wire().KeyString("s_c_sw_name", "count").KeyBool("s_c_sw_data", true),
                           Wire().KeyString("s_c_sw_name", "count").KeyDouble("s_c_sw_data", 1.5),
                           Wire().KeyString("s_c_sw_name", "count").Key("s_c_sw_data").List(1).Int(1),
                           Wire().KeyString("s_c_sw_name", "count").KeyString("s_c_sw_data", Wire().Int(1).bytes())}) {
    EXPECT_EQ(peer_.Exchange(wire), ServerReply("", std::nullopt, std::nullopt));
  }
  EXPECT_EQ(journal.lines(), (Lines{"0", "0", "0", "0", "1"}));
}

// --- The reply

TEST_P(ServerDispatch, AHandlersContentComesFirstThenNameThreadIdAndSemaphore) {
  server_.On("fill", [](int, MIVOParams*, MIVOParams* reply) {
    reply->AddInt(1);
    reply->AddKeyValueString("key", "value");
    reply->AddString("last");
  });
  Serve();
  EXPECT_EQ(ReplyTo(Request({"fill", 77, std::nullopt, "0x1f"})),
            (Lines{"1", "key = \"value\"", "\"last\"", "s_c_sw_name = \"retval\"", "s_c_sw_threadid = 77",
                   "s_c_sw_semid = \"0x1f\""}));
}

TEST_P(ServerDispatch, AnEmptyReplyIsItsTailByteForByte) {
  server_.On("silent", [](int, MIVOParams*, MIVOParams*) {});
  Serve();
  EXPECT_EQ(Hex(peer_.Exchange(Request({"silent", 9, std::nullopt, "0xab"})).value_or("")),
            Hex(FromHex(exact::kEmptyServerReply)));
}

TEST_P(ServerDispatch, TheTailEchoesWhatTheRequestHad) {
  server_.On("silent", [](int, MIVOParams*, MIVOParams*) {});
  Serve();
  for (const int threadid : {0, 1, -1, INT_MAX, INT_MIN}) {
    EXPECT_EQ(peer_.Exchange(Request({"silent", threadid, std::nullopt, "hello"})), ServerReply("", threadid, "hello"));
    EXPECT_EQ(peer_.Exchange(Request({"silent", threadid})), ServerReply("", threadid, std::nullopt));
  }
  for (const std::string& semid : std::vector<std::string>{"", "0x", "no pointer at all", std::string(3000, 's')}) {
    EXPECT_EQ(peer_.Exchange(Request({"silent", 1, std::nullopt, semid})), ServerReply("", 1, semid));
    EXPECT_EQ(peer_.Exchange(Request({"silent", std::nullopt, std::nullopt, semid})),
              ServerReply("", std::nullopt, semid));
  }
  EXPECT_EQ(peer_.Exchange(Request({"silent"})), ServerReply("", std::nullopt, std::nullopt));
}

TEST_P(ServerDispatch, AnEnvelopeValueOfTheWrongTypeCountsAsAbsent) {
  server_.On("silent", [](int, MIVOParams*, MIVOParams*) {});
  Serve();
  EXPECT_EQ(peer_.Exchange(
                Wire().KeyString("s_c_sw_name", "silent").KeyString("s_c_sw_threadid", "9").KeyInt("s_c_sw_semid", 9)),
            ServerReply("", std::nullopt, std::nullopt));
  EXPECT_EQ(
      peer_.Exchange(
          Wire().KeyString("s_c_sw_name", "silent").KeyBool("s_c_sw_threadid", true).KeyStream("s_c_sw_semid", "0x1")),
      ServerReply("", std::nullopt, std::nullopt));
  EXPECT_EQ(peer_.Exchange(Wire().KeyString("s_c_sw_name", "s_c_close_server").KeyDouble("s_c_sw_threadid", 2.0)),
            ServerReply(Wire().Bool(true), 0, std::nullopt));
}

TEST_P(ServerDispatch, ANameThatIsNoStringIsNoName) {
  server_.On("5", [](int, MIVOParams*, MIVOParams*) { FAIL() << "called"; });
  Serve();
  StdoutCapture output;
  const std::vector<std::string> requests{Wire().KeyInt("s_c_sw_name", 5), Wire().KeyBool("s_c_sw_name", true),
                                          Wire().KeyDouble("s_c_sw_name", 5.0),
                                          Wire().Key("s_c_sw_name").List(1).String("5"),
                                          // The entry stays, but holds nothing: its second value is a list.
                                          Wire().KeyString("s_c_sw_name", "5").Key("s_c_sw_name").List(1).String("5")};
  for (const std::string& request : requests)
    ASSERT_TRUE(peer_.SendFrame(request));
  EXPECT_TRUE(peer_.AnswersInOrder());
  EXPECT_EQ(output.Count("event empty!\n"), static_cast<int>(requests.size()));
}

TEST_P(ServerDispatch, OfARepeatedEnvelopeKeyTheLastCounts) {
  server_.On("second", [](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(2); });
  Serve();
  EXPECT_EQ(peer_.Exchange(Wire()
                               .KeyString("s_c_sw_name", "first")
                               .KeyInt("s_c_sw_threadid", 1)
                               .KeyString("s_c_sw_name", "second")
                               .KeyInt("s_c_sw_threadid", 2)),
            ServerReply(Wire().Int(2), 2, std::nullopt));
}

TEST_P(ServerDispatch, AHandlerMayRewriteItsReply) {
  server_.On("decode", [](int, MIVOParams*, MIVOParams* reply) {
    reply->AddInt(1);
    EXPECT_TRUE(reply->ToParams());
    reply->AddInt(2);
  });
  server_.On("clear", [](int, MIVOParams*, MIVOParams* reply) {
    reply->AddInt(1);
    reply->Clear();
    reply->AddInt(2);
  });
  server_.On("parse", [](int, MIVOParams*, MIVOParams* reply) {
    const std::string bytes = Wire().Int(7).KeyInt("k", 8);
    reply->AddInt(1);
    EXPECT_TRUE(reply->Parser(bytes.data(), static_cast<int>(bytes.size())));
  });
  Serve();
  EXPECT_EQ(peer_.Exchange(Request({"decode", 1})), ServerReply(Wire().Int(1).Int(2), 1, std::nullopt));
  EXPECT_EQ(peer_.Exchange(Request({"clear", 2})), ServerReply(Wire().Int(2), 2, std::nullopt));
  EXPECT_EQ(peer_.Exchange(Request({"parse", 3})), ServerReply(Wire().Int(7).KeyInt("k", 8), 3, std::nullopt));
}

TEST_P(ServerDispatch, AReplyOfFiveMegabytesIsOneFrame) {
  const std::string bytes(5 * 1024 * 1024, 'r');
  server_.On("much", [&](int, MIVOParams*, MIVOParams* reply) {
    reply->AddStream(bytes.data(), static_cast<long>(bytes.size()));
  });
  Serve();
  const auto reply = peer_.Exchange(Request({"much", 1}));
  ASSERT_TRUE(reply.has_value());
  EXPECT_TRUE(*reply == ServerReply(Wire().Stream(bytes), 1, std::nullopt));
  EXPECT_TRUE(peer_.AnswersInOrder());
}

// --- Names

TEST_P(ServerDispatch, AnUnknownNameIsAnsweredByteForByte) {
  Serve();
  EXPECT_EQ(Hex(peer_.Exchange(FromHex(exact::kPost)).value_or("")), Hex(FromHex(exact::kUnknownNameReply)));
  EXPECT_EQ(ReplyTo(FromHex(exact::kCall)),
            (Lines{"\"no event: foo\"", "s_c_sw_name = \"retval\"", "s_c_sw_threadid = 9", "s_c_sw_semid = \"0xab\""}));
}

TEST_P(ServerDispatch, NamesAreComparedByteByByte) {
  for (const char* name : {"Name", "name", "nam", "", "n\xC3\xA4me"}) {
    server_.On(name, [name](int, MIVOParams*, MIVOParams* reply) { reply->AddString(name); });
  }
  Serve();
  for (const std::string name : {"Name", "name", "nam", "", "n\xC3\xA4me"}) {
    EXPECT_EQ(peer_.Exchange(Request({name, 1})), ServerReply(Wire().String(name), 1, std::nullopt));
  }
  for (const std::string name : {"NAME", "names", "na", "name ", "n\xC3\xA5me"}) {
    EXPECT_EQ(peer_.Exchange(Request({name, 1})), ServerReply(Wire().String("no event: " + name), 1, std::nullopt));
  }
}

TEST_P(ServerDispatch, TheEmptyNameIsANameLikeAnyOther) {
  Serve();
  EXPECT_EQ(peer_.Exchange(Request({"", 1})), ServerReply(Wire().String("no event: "), 1, std::nullopt));
}

TEST_P(ServerDispatch, ANameWithANulInsideIsAnswered) {
  server_.On("name", [](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(1); });
  Serve();
  const auto reply = peer_.Exchange(Request({std::string("name\0more", 9), 4}));
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(IntOf(*reply, "s_c_sw_threadid"), 4);
  EXPECT_TRUE(peer_.AnswersInOrder());
}

TEST_P(ServerDispatch, OfTwoRegistrationsTheSecondIsCalled) {
  LambdaMethod first([](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(1); });
  server_->method("name", &first);
  server_.On("name", [](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(2); });
  Serve();
  EXPECT_EQ(peer_.Exchange(Request({"name", 1})), ServerReply(Wire().Int(2), 1, std::nullopt));
}

TEST_P(ServerDispatch, ANullHandlerIsNoHandler) {
  LambdaMethod withdrawn([](int, MIVOParams*, MIVOParams*) { FAIL() << "called"; });
  server_->method("nobody", nullptr);
  server_->method("withdrawn", &withdrawn);
  server_->method("withdrawn", nullptr);
  server_->method("s_c_connect", nullptr);
  server_->method("s_c_closed", nullptr);
  server_->method("s_c_createport", nullptr);
  server_->methodall(nullptr);
  Serve();
  EXPECT_EQ(peer_.Exchange(Request({"nobody", 1})), ServerReply(Wire().String("no event: nobody"), 1, std::nullopt));
  EXPECT_EQ(peer_.Exchange(Request({"withdrawn", 1})),
            ServerReply(Wire().String("no event: withdrawn"), 1, std::nullopt));
  peer_.Close();
  peer_ = server_.Connect();
  EXPECT_TRUE(peer_.AnswersInOrder());
}

TEST_P(ServerDispatch, AHandlerMayBeRegisteredWhileServing) {
  Serve();
  std::atomic<bool> stop{false};
  LambdaMethod handler([](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(1); });
  server_->SetCustomReleaseEvent();
  std::thread registering([&] {
    // Every name at least once, also when this thread first runs after all requests.
    for (int i = 0; i < 50 || !stop; ++i)
      server_->method(std::to_string(i % 50).c_str(), &handler);
  });
  for (int i = 0; i < 200; ++i)
    EXPECT_TRUE(peer_.Exchange(Request({std::to_string(i % 50), i})).has_value());
  stop = true;
  registering.join();
  EXPECT_EQ(peer_.Exchange(Request({"0", 1})), ServerReply(Wire().Int(1), 1, std::nullopt));
  server_.Destroy();
}

// --- The catch-all

TEST_P(ServerDispatch, TheCatchAllIsCalledForAnUnknownNameAndItsContentComesFirst) {
  std::atomic<int> connected_id{0};
  server_.On("s_c_connect", [&](int id, MIVOParams*, MIVOParams*) { connected_id = id; });
  server_.OnEveryOther([&](const char* name, int id, MIVOParams* request, MIVOParams* reply) {
    EXPECT_STREQ(name, "foo");
    EXPECT_EQ(id, connected_id);
    EXPECT_EQ(request->GetValue(0)->GetInt(), 3);
    EXPECT_EQ(reply->Size(), 0);
    reply->AddInt(4);
    reply->AddKeyValueInt("key", 5);
  });
  Serve();
  EXPECT_EQ(ReplyTo(Request({"foo", 9, Wire().Int(3).bytes()})),
            (Lines{"4", "key = 5", "\"no event: foo\"", "s_c_sw_name = \"retval\"", "s_c_sw_threadid = 9"}));
}

TEST_P(ServerDispatch, TheCatchAllIsNotCalledForNamesThatOthersServe) {
  Journal journal;
  server_.On("known", [](int, MIVOParams*, MIVOParams*) {});
  server_.OnEveryOther([&](const char* name, int, MIVOParams*, MIVOParams*) { journal.Add(name); });
  Serve();
  for (const char* name :
       {"known", "s_c_version", "s_c_closed", "s_c_connect", "s_c_close_server", "s_c_req_body", "s_c_req_header"}) {
    EXPECT_TRUE(peer_.Exchange(Request({name, 1})).has_value()) << name;
  }
  ASSERT_TRUE(peer_.SendFrame(Request({"retval", 1})));
  EXPECT_TRUE(peer_.AnswersInOrder());
  EXPECT_EQ(journal.lines(), Lines{});
  for (const char* name : {"unknown", "s_c_log", "s_c_createport", "s_c_buildin_closed", "s_c_largedata", ""}) {
    EXPECT_EQ(peer_.Exchange(Request({name, 1})),
              ServerReply(Wire().String(std::string("no event: ") + name), 1, std::nullopt));
  }
  EXPECT_EQ(journal.lines(),
            (Lines{"unknown", "s_c_log", "s_c_createport", "s_c_buildin_closed", "s_c_largedata", ""}));
}

TEST_P(ServerDispatch, NoticeNamesAskedForByAClientAreUnknownNames) {
  server_.OnEveryOther([](const char*, int, MIVOParams*, MIVOParams*) { FAIL() << "called"; });
  Serve();
  for (const std::string name : {"s_c_connect", "s_c_closed"}) {
    EXPECT_EQ(peer_.Exchange(Request({name, 1})), ServerReply(Wire().String("no event: " + name), 1, std::nullopt));
  }
}

TEST_P(ServerDispatch, NoticeNamesAskedForByAClientReachTheirHandlers) {
  for (const char* name : {"s_c_connect", "s_c_closed"}) {
    server_.On(name, [name](int, MIVOParams*, MIVOParams* reply) { reply->AddString(name); });
  }
  Serve();
  for (const std::string name : {"s_c_connect", "s_c_closed"}) {
    EXPECT_EQ(peer_.Exchange(Request({name, 1})), ServerReply(Wire().String(name), 1, std::nullopt));
  }
}

TEST_P(ServerDispatch, OfTwoCatchAllsTheSecondIsCalled) {
  LambdaMethodAll first([](const char*, int, MIVOParams*, MIVOParams* reply) { reply->AddInt(1); });
  server_->methodall(&first);
  server_.OnEveryOther([](const char*, int, MIVOParams*, MIVOParams* reply) { reply->AddInt(2); });
  Serve();
  EXPECT_EQ(peer_.Exchange(Request({"foo", 1})), ServerReply(Wire().Int(2).String("no event: foo"), 1, std::nullopt));
}

// --- Names the server answers itself

TEST_P(ServerDispatch, AcceptsItsOwnVersion) {
  Serve();
  EXPECT_EQ(Hex(peer_.Exchange(HandshakeRequest(1234, "0x5a10")).value_or("")), Hex(FromHex(exact::kHandshakeReply)));
}

TEST_P(ServerDispatch, RefusesEveryOtherVersion) {
  Serve();
  const std::string refused = ServerReply(Wire().Bool(false).KeyString("VERSION", kBanner), 1, "0x1");
  const std::vector<std::string> data{HandshakeData("MIVO Version: 1.1.0.13"),
                                      HandshakeData("MIVO Version: 1.1.0.12 "),
                                      HandshakeData("MIVO Version: 1.1.0.1"),
                                      HandshakeData(std::string(kBanner) + std::string("\0", 1)),
                                      HandshakeData(""),
                                      Wire().KeyInt("VERSION", 5),
                                      Wire().KeyStream("VERSION", kBanner),
                                      Wire().String(kBanner),
                                      Wire().KeyString("version", kBanner),
                                      "",
                                      "no encoding"};
  for (const std::string& bytes : data) {
    EXPECT_EQ(peer_.Exchange(Request({"s_c_version", 1, bytes, "0x1"})), refused) << Hex(bytes);
  }
  EXPECT_EQ(peer_.Exchange(Request({"s_c_version", 1, std::nullopt, "0x1"})), refused);
}

TEST_P(ServerDispatch, AnswersTheVersionItselfWhoeverElseIsRegistered) {
  server_.On("s_c_version", [](int, MIVOParams*, MIVOParams*) { FAIL() << "called"; });
  server_.OnEveryOther([](const char*, int, MIVOParams*, MIVOParams*) { FAIL() << "called"; });
  Serve();
  EXPECT_EQ(peer_.Exchange(HandshakeRequest(7, "0x7")),
            ServerReply(Wire().Bool(true).KeyString("VERSION", kBanner), 7, "0x7"));
}

TEST_P(ServerDispatch, TheCloseServerRequestIsAnsweredAndClosesNothing) {
  server_.On("s_c_close_server", [](int, MIVOParams*, MIVOParams*) { FAIL() << "called"; });
  Serve();
  EXPECT_EQ(Hex(peer_.Exchange(Request({"s_c_close_server", 5, std::nullopt, "0x1"})).value_or("")),
            Hex(FromHex(exact::kCloseServerReply)));
  EXPECT_EQ(peer_.Exchange(Request({"s_c_close_server"})), ServerReply(Wire().Bool(true), 0, std::nullopt));
  EXPECT_TRUE(server_->isok());
  EXPECT_TRUE(peer_.AnswersInOrder());
  EXPECT_TRUE(server_.Connect().AnswersInOrder());
}

TEST_P(ServerDispatch, TheCloseServerRequestDoesNotWaitForThePool) {
  Event entered;
  Event leave;
  server_.On("slow", [&](int, MIVOParams*, MIVOParams*) {
    entered.Signal();
    leave.WaitFor();
  });
  Serve();
  for (int i = 0; i < 2 * kPoolThreads; ++i)
    ASSERT_TRUE(peer_.SendFrame(Request({"slow", i})));
  ASSERT_TRUE(entered.WaitFor(kPoolThreads));
  EXPECT_TRUE(peer_.AnswersInOrder());
  leave.Signal();
  for (int i = 0; i < 2 * kPoolThreads; ++i)
    EXPECT_TRUE(peer_.ReadFrame().has_value());
}

TEST_P(ServerDispatch, AReplyIsNotAnswered) {
  server_.On("retval", [](int, MIVOParams*, MIVOParams*) { FAIL() << "called"; });
  server_.OnEveryOther([](const char*, int, MIVOParams*, MIVOParams*) { FAIL() << "called"; });
  Serve();
  ASSERT_TRUE(peer_.AnswersInOrder());
  StdoutCapture output;
  const std::vector<std::string> replies{
      ClientReply("", 1, "0x1"),
      ClientReply("", 1, "no pointer"),
      ClientReply(Wire().Int(1), 0, std::nullopt),
      Wire().KeyString("s_c_sw_name", "retval"),
      Wire().KeyString("s_c_sw_name", "retval").KeyString("s_c_sw_threadid", "1").KeyInt("s_c_sw_semid", 1),
      Wire().KeyString("s_c_sw_name", "retval").KeyInt("s_c_sw_threadid", 1).Raw("\x0B garbage")};
  for (const std::string& reply : replies)
    ASSERT_TRUE(peer_.SendFrame(reply));
  EXPECT_TRUE(peer_.AnswersInOrder());
  EXPECT_EQ(output.Text(), "");
}

TEST_P(ServerDispatch, TheSinksNameIsNoMethod) {
  Journal journal;
  LambdaMethod sink([&](int, MIVOParams* request, MIVOParams*) { journal.Add(request->GetValue(0)->GetString()); });
  server_->method("s_c_log", &sink);
  Serve();
  EXPECT_EQ(peer_.Exchange(Request({"s_c_log", 1, Wire().String("forged\n").bytes()})),
            ServerReply(Wire().String("no event: s_c_log"), 1, std::nullopt));
  EXPECT_FALSE(journal.Contains("forged\n"));
  EXPECT_EQ(journal.CountOf("Accept success: "), 1);
  server_.Destroy();
}

// --- The built-in receivers, as far as a plain request reaches them

TEST_P(ServerDispatch, ASliceThatCompletesNothingIsAcknowledged) {
  Serve();
  EXPECT_EQ(Hex(peer_.Exchange(Request({"s_c_req_body", 9, FromHex(exact::kSlice)})).value_or("")),
            Hex(FromHex(exact::kSliceTakenReply)));
}

TEST_P(ServerDispatch, ASliceThatCompletesGarbageIsRefused) {
  Serve();
  for (const char* receiver : {"s_c_req_body", "s_c_req_header"}) {
    const std::string slice =
        Wire().KeyBool("s_c_largedata", true).KeyInt("s_c_sw_threadid", 9).Int(3).Stream("\x0C\x0C\x0C");
    EXPECT_EQ(Hex(peer_.Exchange(Request({receiver, 9, slice})).value_or("")),
              Hex(FromHex(exact::kSliceUndecodableReply)));
  }
}

TEST_P(ServerDispatch, AReceiverTakesASetThatIsNoSlice) {
  Serve();
  const std::vector<std::string> sets{Wire().Int(5), Wire().String("text"),
                                      Wire().KeyString("s_c_sw_threadid", "9").Bool(true).Int(7),
                                      Wire().KeyInt("s_c_sw_threadid", 8).Int(-1).Stream("")};
  for (const std::string& set : sets) {
    RawPeer peer = server_.Connect();
    const auto reply = peer.Exchange(Request({"s_c_req_body", 9, set}));
    // Where a whole was completed by nothing, its empty result may be sent back in a slice first.
    ASSERT_TRUE(reply.has_value());
    const std::string name = TextOf(*reply, "s_c_sw_name").value_or("none");
    EXPECT_TRUE(name == "retval" || name == "s_c_req_body") << name;
  }
  EXPECT_TRUE(server_.Connect().AnswersInOrder());
}

// --- Several at a time

TEST_P(ServerDispatch, RequestsOfOneConnectionRunAtTheSameTime) {
  Event together;
  server_.On("meet", [&](int, MIVOParams* request, MIVOParams* reply) {
    together.Signal();
    reply->AddBool(together.WaitFor(kPoolThreads));
    reply->AddInt(request->GetValue(0)->GetInt());
  });
  Serve();
  std::map<std::string, std::string> expected;
  for (int i = 0; i < kPoolThreads; ++i) {
    const std::string semid = "0x" + std::to_string(i);
    ASSERT_TRUE(peer_.SendFrame(Request({"meet", 1, Wire().Int(i).bytes(), semid})));
    expected[semid] = ServerReply(Wire().Bool(true).Int(i), 1, semid);
  }
  std::map<std::string, std::string> replies;
  for (int i = 0; i < kPoolThreads; ++i) {
    const std::string reply = peer_.ReadFrame().value_or("");
    replies[TextOf(reply, "s_c_sw_semid").value_or("none")] = reply;
  }
  EXPECT_EQ(replies, expected);
}

TEST_P(ServerDispatch, AQuickReplyOvertakesASlowOne) {
  Event leave;
  server_.On("slow", [&](int, MIVOParams*, MIVOParams*) { leave.WaitFor(); });
  server_.On("quick", [](int, MIVOParams*, MIVOParams*) {});
  Serve();
  ASSERT_TRUE(peer_.SendBytes(Frame(Request({"slow", 1})) + Frame(Request({"quick", 2}))));
  EXPECT_EQ(peer_.ReadFrame(), ServerReply("", 2, std::nullopt));
  leave.Signal();
  EXPECT_EQ(peer_.ReadFrame(), ServerReply("", 1, std::nullopt));
}

TEST_P(ServerDispatch, AHandlerMayCallItsCaller) {
  server_.On("ask back", [this](int id, MIVOParams*, MIVOParams* reply) {
    MIVOParams question;
    question.AddString("how are you?");
    MIVOParams* const answer = server_->SendMsg(id, "question", &question, 42, INT_MAX);
    if (answer != nullptr) reply->AddString(answer->GetValue(0)->GetString());
  });
  Serve();
  ASSERT_TRUE(peer_.SendFrame(Request({"ask back", 1})));
  const auto question = peer_.ReadFrame();
  ASSERT_TRUE(question.has_value());
  const auto semid = TextOf(*question, "s_c_sw_semid");
  ASSERT_TRUE(semid.has_value());
  EXPECT_EQ(*question, Request({"question", 42, Wire().String("how are you?").bytes(), semid}));
  ASSERT_TRUE(peer_.SendFrame(ClientReply(Wire().String("well"), 42, semid)));
  EXPECT_EQ(peer_.ReadFrame(), ServerReply(Wire().String("well"), 1, std::nullopt));
}

TEST_P(ServerDispatch, ThousandsOfRequestsOfSeveralConnectionsAreEachAnsweredOnceAndRight) {
  constexpr int kConnections = 4;
  constexpr int kRequests = 1000;
  server_.On("square", [](int, MIVOParams* request, MIVOParams* reply) {
    const int number = request->GetValue(0)->GetInt();
    reply->AddInt(number * number);
  });
  ASSERT_TRUE(server_.Init());
  std::vector<std::thread> threads;
  for (int connection = 0; connection < kConnections; ++connection) {
    threads.emplace_back([this, connection] {
      RawPeer peer = server_.Connect();
      std::string requests;
      for (int i = 0; i < kRequests; ++i) {
        requests += Frame(Request({"square", connection, Wire().Int(i).bytes(), std::to_string(i)}));
      }
      ASSERT_TRUE(peer.SendBytes(requests));
      std::set<int> answered;
      for (int i = 0; i < kRequests; ++i) {
        const auto reply = peer.ReadFrame();
        ASSERT_TRUE(reply.has_value());
        const int number = std::stoi(TextOf(*reply, "s_c_sw_semid").value_or("-1"));
        ASSERT_EQ(*reply, ServerReply(Wire().Int(number * number), connection, std::to_string(number)));
        answered.insert(number);
      }
      EXPECT_EQ(answered.size(), static_cast<std::size_t>(kRequests));
    });
  }
  for (std::thread& thread : threads)
    thread.join();
}

}  // namespace
