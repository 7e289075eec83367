#include "largedata/recv_large_data_server.h"

#include <gtest/gtest.h>
#include <mivo/params.h>
#include <signal.h>

#include <climits>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "largedata/slice.h"
#include "support/golden.h"
#include "support/stdout_capture.h"
#include "transport/envelope.h"
#include "unit/large_memory.h"
#include "unit/payload.h"

namespace mivo {
namespace {

using mivo_test::Golden;
using mivo_test::Payload;
using mivo_test::ToHex;
using Strings = std::vector<std::string>;

constexpr int kClient = 42;

class Server {
 public:
  using Method = std::function<void(MIVOParams* request, MIVOParams* result)>;

  explicit Server(Method method = nullptr) : method_(std::move(method)) {}
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // The reply's encoding, without the envelope that is added to it. What is to be sent back goes to `results`.
  std::string Receive(const std::string& slice, int client_id = kClient) {
    client_ = client_id;
    std::optional<RecvLargeDataServer::Whole> whole = receiver.Take(client_id, slice);
    if (!whole) return AnswerToSlice();
    keys.push_back(whole->key);
    RecvLargeDataServer::Served served = receiver.Serve(client_id, std::move(*whole));
    results.insert(results.end(), served.results.begin(), served.results.end());
    return served.reply;
  }

  std::string Receive(const Slice& slice, int client_id = kClient) {
    MIVOParams params;
    WriteSlice(slice, &params);
    return Receive(*params.GetParamas(), client_id);
  }

  Strings names;
  std::vector<int> keys;
  Strings results;
  RecvLargeDataServer receiver{[this](const std::string& name, int client_id, MIVOParams* request, MIVOParams* result) {
    EXPECT_EQ(client_id, client_);
    names.push_back(name);
    if (method_) method_(request, result);
  }};

 private:
  const Method method_;
  int client_ = 0;
};

std::string Whole(const char* name, const std::string& arguments) {
  MIVOParams params;
  *params.GetParamas() = arguments;
  params.AddKeyValueString("s_c_sw_name", name);
  params.AddKeyValueInt("s_c_sw_threadid", 9);
  return *params.GetParamas();
}

std::string WithTail(std::string reply) {
  Envelope request;
  request.thread_id = 9;
  AppendServerReplyTail(reply, request);
  return reply;
}

Slice Only(const std::string& whole) {
  return {9, static_cast<int>(whole.size()), whole};
}

TEST(RecvLargeDataServer, AnswersASliceThatCompletesNothing) {
  Server server;
  EXPECT_EQ(ToHex(WithTail(server.Receive(Golden("slice")))), ToHex(Golden("slice_taken_reply")));
  EXPECT_TRUE(server.names.empty());
  EXPECT_TRUE(server.results.empty());
}

TEST(RecvLargeDataServer, AnswersTheSliceThatCompletesAMessage) {
  Server server;
  EXPECT_EQ(ToHex(WithTail(server.Receive(Only(Whole("foo", ""))))), ToHex(Golden("slice_completed_reply")));
  EXPECT_EQ(server.names, Strings{"foo"});
}

TEST(RecvLargeDataServer, AnswersTheSliceThatCompletesBytesThatAreNoEncoding) {
  Server server;
  EXPECT_EQ(ToHex(WithTail(server.Receive(Slice{9, 3, "\x7F\x7F\x7F"}))), ToHex(Golden("slice_undecodable_reply")));
  EXPECT_TRUE(server.names.empty());
  EXPECT_TRUE(server.results.empty());
}

TEST(RecvLargeDataServer, GivesTheMethodTheWholeRequest) {
  Server server([](MIVOParams* request, MIVOParams*) {
    ASSERT_EQ(request->ParamsSize(), 2);
    EXPECT_EQ(request->GetValue(0)->GetInt(), 5);
    EXPECT_STREQ(request->GetValue(1)->GetString(), "text");
    EXPECT_STREQ(request->GetMap("s_c_sw_name")->GetString(), "foo");
    EXPECT_EQ(request->GetMap("s_c_sw_threadid")->GetInt(), 9);
  });
  const std::string whole = Whole("foo", Payload().Int(5).String("text"));
  for (std::size_t i = 0; i < whole.size(); ++i) {
    EXPECT_EQ(server.names.size(), 0U);
    server.Receive(Slice{9, static_cast<int>(whole.size()), std::string_view(whole).substr(i, 1)});
  }
  EXPECT_EQ(server.names, Strings{"foo"});
}

TEST(RecvLargeDataServer, GivesTheResultToBeSentBackUnderItsName) {
  Server server([](MIVOParams*, MIVOParams* result) { result->AddString("the result"); });
  server.Receive(Only(Whole("foo", "")));
  const std::string expected =
      Payload().String("the result").KeyString("s_c_sw_name", "s_c_largedata").KeyInt("s_c_sw_threadid", 9);
  ASSERT_EQ(server.results.size(), 1U);
  EXPECT_EQ(ToHex(server.results.front()), ToHex(expected));
  EXPECT_EQ(server.keys, std::vector<int>{9});
}

TEST(RecvLargeDataServer, GivesAResultOfItsTailAloneForAMethodThatAddsNothing) {
  Server server;
  server.Receive(Only(Whole("foo", "")));
  const std::string expected = Payload().KeyString("s_c_sw_name", "s_c_largedata").KeyInt("s_c_sw_threadid", 9);
  EXPECT_EQ(server.results, Strings{expected});
}

TEST(RecvLargeDataServer, ServesAMessageUnderTheKeyOfItsSlices) {
  Server server;
  const std::string whole = Whole("foo", "");
  server.Receive(Slice{-5, static_cast<int>(whole.size()), whole});
  const std::string expected = Payload().KeyString("s_c_sw_name", "s_c_largedata").KeyInt("s_c_sw_threadid", -5);
  EXPECT_EQ(server.keys, std::vector<int>{-5});
  EXPECT_EQ(server.results, Strings{expected});
}

TEST(RecvLargeDataServer, KeepsWhatTwoClientsSendUnderOneKeyApart) {
  Server server([](MIVOParams* request, MIVOParams* result) { result->AddInt(request->GetValue(0)->GetInt()); });
  const std::string whole = Whole("foo", Payload().Int(5));
  const int total = static_cast<int>(whole.size());
  const auto part = [&](std::size_t begin, std::size_t size) {
    return Slice{9, total, std::string_view(whole).substr(begin, size)};
  };
  for (const int client : {kClient, kClient + 16})
    server.Receive(part(0, 20), client);
  for (const int client : {kClient, kClient + 16})
    EXPECT_EQ(ToHex(WithTail(server.Receive(part(20, whole.size()), client))), ToHex(Golden("slice_completed_reply")));
  EXPECT_EQ(server.names, (Strings{"foo", "foo"}));
}

TEST(RecvLargeDataServer, ForgetsWhatAClientThatHasGoneLeft) {
  Server server;
  server.Receive(Slice{9, 100, "0123456789"});
  server.Receive(Slice{9, 100, "0123456789"}, kClient + 16);
  server.receiver.Forget(kClient);
  EXPECT_EQ(ToHex(WithTail(server.Receive(Only(Whole("foo", ""))))), ToHex(Golden("slice_completed_reply")));
  EXPECT_EQ(ToHex(WithTail(server.Receive(Only(Whole("foo", "")), kClient + 16))),
            ToHex(Golden("slice_undecodable_reply")));
}

TEST(RecvLargeDataServer, AnswersACallOfItsMethodLikeASliceThatWasRead) {
  Server server;
  const auto call = [&](const Slice& slice) {
    MIVOParams request;
    WriteSlice(slice, &request);
    MIVOParams reply;
    server.receiver.OnCall(kClient, &request, &reply);
    return WithTail(*reply.GetParamas());
  };
  EXPECT_EQ(ToHex(call(Slice{9, 100, "\x7F\x7F\x7F"})), ToHex(Golden("slice_taken_reply")));
  EXPECT_EQ(ToHex(call(Slice{9, 3, ""})), ToHex(Golden("slice_undecodable_reply")));
  EXPECT_TRUE(server.names.empty());
}

TEST(RecvLargeDataServer, CallsTheMethodWithoutANameForAMessageWithoutOne) {
  Server server;
  server.Receive(Only(Payload().Int(5)));
  server.Receive(Only(Payload().KeyInt("s_c_sw_name", 5)));
  EXPECT_EQ(server.names, (Strings{"", ""}));
}

TEST(RecvLargeDataServer, TakesASliceWithoutTotalOrBytesForAnEmptyMessage) {
  Server server;
  const std::string reply = server.Receive(std::string());
  const std::string expected =
      Payload().KeyString("s_c_sw_name", "retval").Int(1).KeyString("s_c_sw_name", "retval").Int(0);
  EXPECT_EQ(ToHex(reply), ToHex(expected));
  EXPECT_EQ(server.names, Strings{""});
}

TEST(RecvLargeDataServer, AppendsToWhatABrokenTransferHasLeft) {
  Server server;
  server.Receive(Slice{9, 100, "0123456789"});
  EXPECT_EQ(ToHex(WithTail(server.Receive(Only(Whole("foo", ""))))), ToHex(Golden("slice_undecodable_reply")));
  // And the one after that is whole again.
  EXPECT_EQ(ToHex(WithTail(server.Receive(Only(Whole("foo", ""))))), ToHex(Golden("slice_completed_reply")));
}

// A message that names the receiver itself as its method, `levels` deep, around one that names "innermost".
std::string Nested(int levels) {
  std::string message = Whole("innermost", "");
  for (int level = 0; level < levels; ++level) {
    MIVOParams params;
    WriteSlice(Only(message), &params);
    params.AddKeyValueString("s_c_sw_name", "s_c_req_body");
    message = *params.GetParamas();
  }
  return message;
}

struct NestingServer {
  int depth = 0;
  int deepest = 0;
  int innermost = 0;
  Strings results;
  RecvLargeDataServer receiver{[this](const std::string& name, int client_id, MIVOParams* request, MIVOParams* result) {
    if (name != "s_c_req_body") {
      ++innermost;
      result->AddString(name.c_str());
      return;
    }
    ++depth;
    deepest = depth > deepest ? depth : deepest;
    receiver.OnCall(client_id, request, result);
    --depth;
  }};

  // The results of this message.
  Strings Receive(const std::string& whole) {
    RecvLargeDataServer::Served served = receiver.Serve(kClient, {9, whole});
    results = std::move(served.results);
    return results;
  }
};

TEST(RecvLargeDataServer, ServesMessagesInsideMessages) {
  for (const int levels : {1, 2, 10, 31}) {
    NestingServer server;
    server.Receive(Nested(levels));
    EXPECT_EQ(server.innermost, 1) << levels;
    EXPECT_EQ(server.deepest, levels);
  }
}

TEST(RecvLargeDataServer, GivesTheResultsOfMessagesInsideFirst) {
  NestingServer server;
  const auto with_tail = [](Payload result) {
    return result.KeyString("s_c_sw_name", "s_c_largedata").KeyInt("s_c_sw_threadid", 9).bytes();
  };
  // What the receiver answers to a slice that completes a message is the result of the message that held it.
  const Payload answer = Payload().KeyString("s_c_sw_name", "retval").Int(1).KeyString("s_c_sw_name", "retval").Int(0);
  EXPECT_EQ(server.Receive(Nested(2)),
            (Strings{with_tail(Payload().String("innermost")), with_tail(answer), with_tail(answer)}));
  EXPECT_EQ(server.Receive(Nested(0)), Strings{with_tail(Payload().String("innermost"))})
      << "and none of an earlier message";
}

TEST(RecvLargeDataServer, GivesTheResultsInsideOneOfItsNamesToTheMessageUnderTheOther) {
  // A server has two receivers, and a message for one may hold a message for the other.
  Strings names;
  RecvLargeDataServer inner([&](const std::string& name, int, MIVOParams*, MIVOParams* result) {
    names.push_back(name);
    result->AddInt(1);
  });
  RecvLargeDataServer outer([&](const std::string& name, int client_id, MIVOParams* request, MIVOParams* result) {
    names.push_back(name);
    inner.OnCall(client_id, request, result);
  });
  const RecvLargeDataServer::Served served = outer.Serve(kClient, {9, Nested(1)});
  EXPECT_EQ(names, (Strings{"s_c_req_body", "innermost"}));
  ASSERT_EQ(served.results.size(), 2U);
  EXPECT_EQ(ToHex(served.results.front()),
            ToHex(Payload().Int(1).KeyString("s_c_sw_name", "s_c_largedata").KeyInt("s_c_sw_threadid", 9).bytes()));
}

TEST(RecvLargeDataServer, KeepsMessagesOfSeveralThreadsApart) {
  RecvLargeDataServer receiver([&](const std::string& name, int client_id, MIVOParams* request, MIVOParams* result) {
    if (name == "s_c_req_body") {
      receiver.OnCall(client_id, request, result);
    } else {
      result->AddInt(client_id);
    }
  });
  std::vector<std::thread> threads;
  for (int client = 1; client <= 4; ++client) {
    threads.emplace_back([&receiver, client] {
      const std::string expected =
          Payload().Int(client).KeyString("s_c_sw_name", "s_c_largedata").KeyInt("s_c_sw_threadid", 9);
      for (int round = 0; round < 100; ++round) {
        const RecvLargeDataServer::Served served = receiver.Serve(client, {9, Nested(3)});
        ASSERT_EQ(served.results.size(), 4U);
        EXPECT_EQ(served.results.front(), expected);
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
}

TEST(RecvLargeDataServer, TakesTheMethodOfAMessageTooDeepInsideForUnknown) {
  NestingServer server;
  server.Receive(Nested(2000));
  EXPECT_EQ(server.innermost, 0);
  EXPECT_LE(server.deepest, 32);
  ASSERT_FALSE(server.results.empty());
  // The innermost result comes first.
  const std::string expected =
      Payload().String("no event: s_c_req_body").KeyString("s_c_sw_name", "s_c_largedata").KeyInt("s_c_sw_threadid", 9);
  EXPECT_EQ(ToHex(server.results.front()), ToHex(expected));
}

TEST(RecvLargeDataServer, ForgetsTheDepthOfAMessageThatIsDone) {
  NestingServer server;
  server.Receive(Nested(100));
  EXPECT_EQ(server.innermost, 0);
  server.Receive(Nested(31));
  EXPECT_EQ(server.innermost, 1);
}

// A receiver whose method `name` has a result of `size` bytes.
std::string ReceiveWithResultOf(std::size_t size, const std::string& name) {
  Server server([size](MIVOParams*, MIVOParams* result) {
    result->GetParamas()->reserve(size + 200);
    result->GetParamas()->resize(size);
  });
  const std::string reply = server.Receive(Only(Whole(name.c_str(), "")));
  EXPECT_TRUE(server.results.empty());
  return WithTail(reply);
}

TEST(RecvLargeDataServerDeathTest, EndsTheProgramForAResultThatIsTooLong) {
  MIVO_SKIP_WITHOUT_LARGE_MEMORY(5);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(ReceiveWithResultOf(INT_MAX, "foo"), testing::KilledBySignal(SIGABRT), "");
}

TEST(RecvLargeDataServerDeathTest, DropsAResultThatOnlyTheNameThatWasSentMakesTooLong) {
  MIVO_SKIP_WITHOUT_LARGE_MEMORY(5);
  const mivo_test::StdoutCapture out;
  EXPECT_EQ(ToHex(ReceiveWithResultOf(INT_MAX, std::string(1000, 'x'))), ToHex(Golden("slice_completed_reply")));
  EXPECT_EQ(out.Text(), "write error\n");
}

}  // namespace
}  // namespace mivo
