#include "largedata/recv_large_data_server.h"

#include <gtest/gtest.h>
#include <mivo/params.h>
#include <signal.h>

#include <climits>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "largedata/slice.h"
#include "support/golden.h"
#include "support/stdout_capture.h"
#include "transport/envelope.h"
#include "unit/large_memory.h"
#include "unit/payload.h"
#include "unit/slice_size_scope.h"

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

  // The reply's encoding, without the envelope that its dispatcher adds.
  std::string Receive(const std::string& slice) {
    MIVOParams request;
    request.Parser(slice.data(), static_cast<int>(slice.size()));
    MIVOParams reply;
    receiver.OnCall(kClient, &request, &reply);
    return *reply.GetParamas();
  }

  std::string Receive(const Slice& slice) {
    MIVOParams params;
    WriteSlice(slice, &params);
    return Receive(*params.GetParamas());
  }

  Strings names;
  std::string sent_back;
  int slices_sent = 0;
  bool answers = true;
  RecvLargeDataServer receiver{[this](const std::string& name, int client_id, MIVOParams* request, MIVOParams* result) {
                                 EXPECT_EQ(client_id, kClient);
                                 names.push_back(name);
                                 if (method_) method_(request, result);
                               },
                               [this](int client_id, int key, MIVOParams* params) {
                                 EXPECT_EQ(client_id, kClient);
                                 params->ToParams();
                                 const Slice slice = ReadSlice(*params->GetParamas());
                                 EXPECT_EQ(slice.key, key);
                                 ++slices_sent;
                                 sent_back.append(slice.bytes);
                                 return answers;
                               }};

 private:
  const Method method_;
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
  EXPECT_EQ(server.slices_sent, 0);
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
  EXPECT_EQ(server.slices_sent, 0);
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

TEST(RecvLargeDataServer, PutsSlicesTogetherInTheOrderOfTheirArrivalAndAnswersEachOne) {
  Server server([](MIVOParams* request, MIVOParams*) { EXPECT_EQ(request->GetValue(0)->GetInt(), 5); });
  const std::string whole = Whole("foo", Payload().Int(5));
  const int total = static_cast<int>(whole.size());
  MIVOParams slices[2];
  WriteSlice({9, total, std::string_view(whole).substr(0, 20)}, &slices[0]);
  WriteSlice({9, total, std::string_view(whole).substr(20)}, &slices[1]);
  const std::unique_ptr<IServerMethod> first = server.receiver.Arrive(*slices[0].GetParamas());
  const std::unique_ptr<IServerMethod> last = server.receiver.Arrive(*slices[1].GetParamas());
  const auto reply_of = [](IServerMethod& turn) {
    MIVOParams arguments;
    MIVOParams reply;
    turn.OnCall(kClient, &arguments, &reply);
    return WithTail(*reply.GetParamas());
  };
  EXPECT_EQ(ToHex(reply_of(*last)), ToHex(Golden("slice_completed_reply")));
  EXPECT_EQ(server.names, Strings{"foo"});
  EXPECT_EQ(ToHex(reply_of(*first)), ToHex(Golden("slice_taken_reply")));
  EXPECT_EQ(server.names, Strings{"foo"});
}

TEST(RecvLargeDataServer, SendsTheResultBackUnderItsName) {
  const SliceSizeScope size(20);
  Server server([](MIVOParams*, MIVOParams* result) { result->AddString("the result"); });
  server.Receive(Only(Whole("foo", "")));
  const std::string expected =
      Payload().String("the result").KeyString("s_c_sw_name", "s_c_largedata").KeyInt("s_c_sw_threadid", 9);
  EXPECT_EQ(ToHex(server.sent_back), ToHex(expected));
  EXPECT_EQ(server.slices_sent, static_cast<int>((expected.size() + 19) / 20));
}

TEST(RecvLargeDataServer, StopsSendingBackWhereASliceIsNotAnswered) {
  const SliceSizeScope size(10);
  Server server;
  server.answers = false;
  // The request's last slice is answered as ever.
  EXPECT_EQ(ToHex(WithTail(server.Receive(Only(Whole("foo", ""))))), ToHex(Golden("slice_completed_reply")));
  EXPECT_EQ(server.slices_sent, 1);
}

TEST(RecvLargeDataServer, HasSentTheResultBackBeforeItAnswersTheLastSlice) {
  std::vector<std::string> journal;
  RecvLargeDataServer receiver(
      [&](const std::string&, int, MIVOParams*, MIVOParams*) { journal.emplace_back("method"); },
      [&](int, int, MIVOParams*) {
        journal.emplace_back("result");
        return true;
      });
  const std::string whole = Whole("foo", "");
  MIVOParams request;
  WriteSlice(Only(whole), &request);
  request.ToParams();
  MIVOParams reply;
  receiver.OnCall(kClient, &request, &reply);
  journal.emplace_back("answered");
  EXPECT_EQ(journal, (Strings{"method", "result", "answered"}));
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
                                   return;
                                 }
                                 ++depth;
                                 deepest = depth > deepest ? depth : deepest;
                                 receiver.OnCall(client_id, request, result);
                                 --depth;
                               },
                               [this](int, int, MIVOParams* params) {
                                 params->ToParams();
                                 results.emplace_back(ReadSlice(*params->GetParamas()).bytes);
                                 return true;
                               }};

  void Receive(const std::string& whole) {
    MIVOParams request;
    WriteSlice(Only(whole), &request);
    request.ToParams();
    MIVOParams reply;
    receiver.OnCall(kClient, &request, &reply);
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
  EXPECT_EQ(server.slices_sent, 0);
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
