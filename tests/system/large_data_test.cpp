#include <mivo/mivo.h>

#include "support/background.h"
#include "support/event.h"
#include "support/raw_served_client.h"
#include "support/raw_server.h"
#include "support/slices.h"
#include "support/test_client.h"
#include "support/test_server.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

using namespace mivo_test;

namespace {

constexpr int kLongTimeout = 120000;

// Keeps every thread of the pool busy, in handlers, until it is released: what comes meanwhile piles up.
class PoolHold {
 public:
  static int PoolThreads() {
    const char* const size = std::getenv("UV_THREADPOOL_SIZE");
    return size == nullptr ? 4 : std::max(1, std::atoi(size));
  }

  // The handler. Outlives its calls.
  LambdaMethod::Function Handler() {
    return [this](int, MIVOParams*, MIVOParams*) {
      held_.Signal();
      released_.WaitFor();
    };
  }

  // Calls the handler, which `peer` knows as "hold", until no thread is left.
  bool HoldAll(RawPeer* peer) {
    for (int i = 0; i < PoolThreads(); ++i) {
      if (!peer->SendFrame(Request({"hold", 1000 + i}))) return false;
    }
    return held_.WaitFor(PoolThreads());
  }

  void Release() { released_.Signal(); }

 private:
  Event held_;
  Event released_;
};

// Sends a whole message in slices, waiting for no answer.
bool SendInSlicesAtOnce(RawPeer* peer, int key, const std::string& whole, std::size_t slice_size) {
  for (std::size_t at = 0; at < whole.size(); at += slice_size) {
    const auto bytes = std::string_view(whole).substr(at, slice_size);
    if (!peer->SendFrame(Request({"s_c_req_body", key, SliceSet(key, static_cast<int>(whole.size()), bytes)}))) {
      return false;
    }
  }
  return true;
}

// ---- The slice size
// ---------------------------------------------------------------------------------------------------

TEST(SliceSize, Is32768UntilItIsSet) {
  TestClient client;
  EXPECT_EQ(client->GetBigfileBufferSize(), 32768);
}

TEST(SliceSize, IsSharedByAllClientsAndServersOfTheProcess) {
  const ScopedSliceSize put_back(32768);
  TestServer server(Transport::Local);
  TestClient one;
  TestClient two;
  server->SetBigfileBufferSize(4711);
  EXPECT_EQ(one->GetBigfileBufferSize(), 4711);
  one->SetBigfileBufferSize(42);
  EXPECT_EQ(two->GetBigfileBufferSize(), 42);
}

TEST(SliceSize, IsStoredWithoutACheck) {
  const ScopedSliceSize put_back(32768);
  TestClient client;
  for (const int size : {-5, 0, 1, 0x7fffffff}) {
    client->SetBigfileBufferSize(size);
    EXPECT_EQ(client->GetBigfileBufferSize(), size);
  }
}

// ---- From a client to a server driven by hand
// -------------------------------------------------------------------------

class ClientSlices : public testing::TestWithParam<Transport> {
 protected:
  void SetUp() override { ASSERT_TRUE(pair_.Connect()); }

  // Sends the set in the background; the result stays unanswered.
  std::unique_ptr<Background<int>> Send(const char* name, const std::string& text, int key, int timeout = 1) {
    return std::make_unique<Background<int>>([=] {
      MIVOParams params;
      if (!text.empty()) params.AddString(text.c_str());
      return Reply(client_->SendMsgEx(name, &params, key, timeout)).error().value_or(0);
    });
  }

  ClientOfRawServer pair_{GetParam()};
  TestClient& client_ = pair_.client();
  RawPeer& peer_ = pair_.peer();
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, ClientSlices, kEveryTransport, TransportName);

TEST_P(ClientSlices, CarryMarkKeyTotalAndBytes) {
  const ScopedSliceSize size(10);
  const auto call = Send("f", std::string(26, 'x'), 9);
  const std::string request = peer_.ReadFrame().value_or("");
  const std::string whole = Whole(Wire().String(std::string(26, 'x')), "f", 9);
  ASSERT_EQ(whole.size(), 100u);
  const std::string data = TextOf(request, "s_c_sw_data").value_or("");
  EXPECT_EQ(Describe(data), Describe(SliceSet(9, 100, whole.substr(0, 10))));
  EXPECT_EQ(data.size(), 91u);
  EXPECT_EQ(request, Request({"s_c_req_body", 9, data, TextOf(request, "s_c_sw_semid").value_or("")}));
  peer_.Close();
}

TEST_P(ClientSlices, TogetherAreTheSetWithNameAndKeyAtItsEnd) {
  const ScopedSliceSize size(10);
  const auto call = Send("method", "content", 9);
  const TakenTransfer transfer = TakeTransfer(&peer_, AsServer);
  EXPECT_EQ(transfer.whole, Whole(Wire().String("content"), "method", 9));
  for (const TakenSlice& slice : transfer.slices) {
    EXPECT_EQ(slice.total, static_cast<int>(transfer.whole.size()));
    EXPECT_EQ(slice.key, 9);
    EXPECT_EQ(slice.envelope_key, 9);
  }
}

TEST_P(ClientSlices, AreAsManyAsTheSizeAsksFor) {
  // The whole is of 100 bytes.
  struct Case {
    int size;
    std::vector<std::size_t> lengths;
  };
  for (const Case& expected : {Case{101, {100}}, Case{100, {100}}, Case{99, {99, 1}}, Case{50, {50, 50}},
                               Case{25, {25, 25, 25, 25}}, Case{33, {33, 33, 33, 1}}}) {
    const ScopedSliceSize size(expected.size);
    const auto call = Send("f", std::string(26, 'x'), 9);
    const TakenTransfer transfer = TakeTransfer(&peer_, AsServer);
    std::vector<std::size_t> lengths;
    for (const TakenSlice& slice : transfer.slices)
      lengths.push_back(slice.bytes.size());
    EXPECT_EQ(lengths, expected.lengths) << "slice size " << expected.size;
    EXPECT_TRUE(transfer.complete);
  }
}

TEST_P(ClientSlices, OfAnEmptySetIsOne) {
  const auto call = Send("f", "", 9);
  const TakenTransfer transfer = TakeTransfer(&peer_, AsServer);
  ASSERT_EQ(transfer.slices.size(), 1u);
  EXPECT_EQ(transfer.slices[0].total, 65);
  EXPECT_EQ(transfer.whole, Whole("", "f", 9));
}

TEST_P(ClientSlices, WaitForTheAnswerToTheOneBefore) {
  const ScopedSliceSize size(50);
  const Stopwatch watch;
  const auto call = Send("f", std::string(26, 'x'), 9);
  const std::string first = peer_.ReadFrame().value_or("");
  EXPECT_TRUE(ReadSliceRequest(first).valid);
  // Half of what it waits without an answer. Where this thread is late, that may be over too.
  EXPECT_TRUE(peer_.ExpectSilence(std::chrono::milliseconds(250)) || watch.ElapsedMs() >= 500);
  ASSERT_TRUE(peer_.SendFrame(AsServer(first)));
  EXPECT_TRUE(ReadSliceRequest(peer_.ReadFrame().value_or("")).valid);
}

TEST_P(ClientSlices, ThatAreNotAnsweredFollowEachOtherAfterTheirTimeOut) {
  const ScopedSliceSize size(34);
  const Stopwatch watch;
  const auto call = Send("f", std::string(26, 'x'), 9);
  std::string whole;
  long long last_ms = 0;
  long long shortest_gap_ms = std::numeric_limits<long long>::max();
  for (int i = 0; i < 3; ++i) {
    const TakenSlice slice = ReadSliceRequest(peer_.ReadFrame().value_or(""));
    const long long now_ms = watch.ElapsedMs();
    EXPECT_TRUE(slice.valid);
    EXPECT_GE(now_ms, 500 * i);
    if (i > 0) shortest_gap_ms = std::min(shortest_gap_ms, now_ms - last_ms);
    last_ms = now_ms;
    whole += slice.bytes;
  }
  // On a busy machine one may be late.
  EXPECT_LT(shortest_gap_ms, 1500 * kSlowdown);
  EXPECT_EQ(whole, Whole(Wire().String(std::string(26, 'x')), "f", 9));
  EXPECT_EQ(call->Get(), kNoReply);
  EXPECT_GE(watch.ElapsedMs(), 1500);
}

TEST_P(ClientSlices, AreOfTheDefaultSizeWhereTheSizeIsNoSize) {
  for (const int none : {0, -1, -2147483647}) {
    const ScopedSliceSize size(none);
    const auto call = Send("f", std::string(40000, 'x'), 9);
    const TakenTransfer transfer = TakeTransfer(&peer_, AsServer);
    EXPECT_TRUE(transfer.complete);
    ASSERT_EQ(transfer.slices.size(), 2u);
    EXPECT_EQ(transfer.slices[0].bytes.size(), 32768u);
  }
}

// ---- From a server driven by hand to a client
// -------------------------------------------------------------------------

class ClientReceiver : public testing::TestWithParam<Transport> {
 protected:
  void SetUp() override { ASSERT_TRUE(pair_.Connect()); }

  // Sends one slice and returns the client's answer.
  std::string SendSlice(int key, int total, std::string_view bytes) {
    return peer_.Exchange(Request({"s_c_req_body", key, SliceSet(key, total, bytes), "0xab"})).value_or("");
  }

  // Starts a large call, whose request is taken.
  void StartCall(int key) {
    call_ = std::make_unique<Background<Reply>>(
        [this, key] { return Reply(client_->SendMsgEx("f", nullptr, key, kLongTimeout)); });
    ASSERT_TRUE(TakeTransfer(&peer_, AsServer).complete);
  }

  PoolHold hold_;
  ClientOfRawServer pair_{GetParam()};
  TestClient& client_ = pair_.client();
  RawPeer& peer_ = pair_.peer();
  std::unique_ptr<Background<Reply>> call_;
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, ClientReceiver, kEveryTransport, TransportName);

TEST_P(ClientReceiver, AddsNothingToTheAnswers) {
  EXPECT_EQ(Hex(SendSlice(9, 100, "ABCDEFGHIJ")), Hex(FromHex(exact::kEmptyClientReply)));
  EXPECT_EQ(SendSlice(9, 20, "ABCDEFGHIJ"), ClientReply("", 9, "0xab"));
}

TEST_P(ClientReceiver, PutsTheResultTogetherAndWakesTheCall) {
  StartCall(9);
  const std::string result = Whole(Wire().String("result"), "s_c_largedata", 9);
  SendSlice(9, static_cast<int>(result.size()), result.substr(0, 20));
  EXPECT_FALSE(call_->IsDone());
  SendSlice(9, static_cast<int>(result.size()), result.substr(20));
  EXPECT_EQ(TextAt(call_->Get().get(), 0), "result");
  EXPECT_EQ(TextUnder(call_->Get().get(), "s_c_sw_name"), "s_c_largedata");
  EXPECT_EQ(IntUnder(call_->Get().get(), "s_c_sw_threadid"), 9);
}

TEST_P(ClientReceiver, GoesByTheKeyInsideTheSlice) {
  StartCall(50);
  const std::string result = Whole(Wire().Int(1), "s_c_largedata", 50);
  ASSERT_EQ(
      peer_.Exchange(Request({"s_c_req_body", 999, SliceSet(50, static_cast<int>(result.size()), result), "0xab"})),
      ClientReply("", 999, "0xab"));
  EXPECT_EQ(IntAt(call_->Get().get(), 0), 1);
}

TEST_P(ClientReceiver, WakesTheCallAlsoWithAResultThatCannotBeDecoded) {
  StartCall(9);
  // One good record, then the half of another.
  const std::string broken = Wire().Int(7).bytes() + std::string("\3\40\0\0\0ab", 7);
  SendSlice(9, static_cast<int>(broken.size()), broken);
  EXPECT_EQ(IntAt(call_->Get().get(), 0), 7);
  EXPECT_FALSE(call_->Get().error());
}

TEST_P(ClientReceiver, TakesASliceWithoutTotalAsTheLast) {
  StartCall(9);
  const std::string result = Wire().Int(7);
  ASSERT_TRUE(peer_.Exchange(Request({"s_c_req_body", 9, Wire().KeyInt("s_c_sw_threadid", 9).bytes()})));
  EXPECT_FALSE(call_->Get().error());
  EXPECT_EQ(call_->Get()->ParamsSize(), 0);
  StartCall(9);
  ASSERT_TRUE(peer_.Exchange(
      Request({"s_c_req_body", 9, Wire().KeyInt("s_c_sw_threadid", 9).String("no total").Stream(result).bytes()})));
  EXPECT_EQ(IntAt(call_->Get().get(), 0), 7);
}

TEST_P(ClientReceiver, TakesASliceWithANegativeTotalAsTheLast) {
  StartCall(9);
  SendSlice(9, -1, Wire().Int(7).bytes());
  EXPECT_EQ(IntAt(call_->Get().get(), 0), 7);
}

TEST_P(ClientReceiver, SurvivesASliceWithoutAnything) {
  EXPECT_EQ(peer_.Exchange(Request({"s_c_req_body", 9})), ClientReply("", 9, std::nullopt));
  EXPECT_EQ(peer_.Exchange(Request({"s_c_req_body", 9, Wire().KeyString("s_c_sw_threadid", "x").bytes()})),
            ClientReply("", 9, std::nullopt));
}

TEST_P(ClientReceiver, SlicesForSeveralKeysDoNotMix) {
  const std::string one = Whole(Wire().String("one"), "s_c_largedata", 1);
  const std::string two = Whole(Wire().String("two"), "s_c_largedata", 2);
  StartCall(2);
  SendSlice(1, static_cast<int>(one.size()), one.substr(0, 30));
  SendSlice(2, static_cast<int>(two.size()), two.substr(0, 30));
  SendSlice(1, static_cast<int>(one.size()), one.substr(30));
  EXPECT_FALSE(call_->IsDone());
  SendSlice(2, static_cast<int>(two.size()), two.substr(30));
  EXPECT_EQ(TextAt(call_->Get().get(), 0), "two");
}

TEST_P(ClientReceiver, TakesSlicesInTheOrderInWhichTheyCameHoweverLateThePoolGetsToThem) {
  client_.On("hold", hold_.Handler());
  StartCall(9);
  ASSERT_TRUE(hold_.HoldAll(&peer_));
  const std::string bytes = Pattern(20000);
  const std::string result = Whole(Wire().Stream(bytes), "s_c_largedata", 9);
  const bool is_sent = SendInSlicesAtOnce(&peer_, 9, result, 10);
  hold_.Release();
  ASSERT_TRUE(is_sent);
  EXPECT_TRUE(StreamAt(call_->Get().get(), 0) == bytes);
}

// ---- From a client driven by hand to a server
// -------------------------------------------------------------------------

class ServerReceiver : public testing::TestWithParam<Transport> {
 protected:
  void SetUp() override {
    server_.On("echo", [this](int, MIVOParams* request, MIVOParams* reply) {
      ++echoes_;
      reply->AddString(TextAt(request, 0).value_or("?").c_str());
      reply->AddString(TextUnder(request, "s_c_sw_name").value_or("?").c_str());
      reply->AddInt(IntUnder(request, "s_c_sw_threadid").value_or(-1));
    });
    server_.OnEveryOther([this](const char*, int, MIVOParams*, MIVOParams*) { ++catch_alls_; });
    ASSERT_TRUE(server_.Init());
    peer_ = server_.Connect();
    ASSERT_TRUE(peer_.connected());
  }

  static std::string Slice(int key, int total, std::string_view bytes, const char* receiver = "s_c_req_body") {
    return Request({receiver, key, SliceSet(key, total, bytes)});
  }
  static std::string Slice(int key, const std::string& whole, const char* receiver = "s_c_req_body") {
    return Slice(key, static_cast<int>(whole.size()), whole, receiver);
  }

  // Takes results until the answer to the completing slice comes; returns that.
  std::string TakeResults(std::vector<TakenSlice>* slices) {
    while (const auto frame = peer_.ReadFrame()) {
      if (TextOf(*frame, "s_c_sw_name") == "retval") return *frame;
      slices->push_back(ReadSliceRequest(*frame));
      if (!peer_.SendFrame(AsClient(*frame))) break;
    }
    return "";
  }

  // Sends a whole message in one slice; returns the result that comes back in one.
  std::string ResultOf(int key, const std::string& whole) {
    EXPECT_TRUE(peer_.SendFrame(Slice(key, whole)));
    std::vector<TakenSlice> results;
    EXPECT_EQ(TakeResults(&results), CompletedReply(key));
    EXPECT_EQ(results.size(), 1u);
    return results.empty() ? "" : results[0].bytes;
  }

  static std::string CompletedReply(int key) {
    return ServerReply(Wire().KeyString("s_c_sw_name", "retval").Int(1).KeyString("s_c_sw_name", "retval").Int(0), key,
                       std::nullopt);
  }

  std::atomic<int> echoes_{0};
  std::atomic<int> catch_alls_{0};
  std::atomic<bool> same_{false};
  PoolHold hold_;
  TestServer server_{GetParam()};
  RawPeer peer_;
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, ServerReceiver, kEveryTransport, TransportName);

TEST_P(ServerReceiver, AnswersSlicesByteForByte) {
  const std::string whole = Whole(Wire().String("x"), "echo", 9);
  const int total = static_cast<int>(whole.size());
  EXPECT_EQ(Hex(peer_.Exchange(Slice(9, total, whole.substr(0, 10))).value_or("")),
            Hex(FromHex(exact::kSliceTakenReply)));
  ASSERT_TRUE(peer_.SendFrame(Slice(9, total, whole.substr(10))));
  std::vector<TakenSlice> results;
  EXPECT_EQ(Hex(TakeResults(&results)), Hex(FromHex(exact::kSliceCompletedReply)));
}

TEST_P(ServerReceiver, CopiesTheWaiterIntoItsAnswers) {
  EXPECT_EQ(Describe(peer_.Exchange(Request({"s_c_req_body", 9, SliceSet(9, 100, "x"), "0xab"})).value_or("")),
            (Lines{"s_c_sw_name = \"retval\"", "0", "s_c_sw_name = \"retval\"", "s_c_sw_threadid = 9",
                   "s_c_sw_semid = \"0xab\""}));
}

TEST_P(ServerReceiver, AnswersTheLastSliceOnlyAfterTheResultWasTaken) {
  // A server that has waited for half a second answers all the same: where this thread is that late, once more.
  for (int attempt = 0; attempt < 10; ++attempt) {
    const Stopwatch watch;
    ASSERT_TRUE(peer_.SendFrame(Slice(9, Whole("", "echo", 9))));
    const std::string result = peer_.ReadFrame().value_or("");
    EXPECT_TRUE(ReadSliceRequest(result).valid);
    if (!peer_.AnswersInOrder()) {
      ASSERT_GE(watch.ElapsedMs(), 500);
      peer_ = server_.Connect();
      continue;
    }
    ASSERT_TRUE(peer_.SendFrame(AsClient(result)));
    EXPECT_EQ(peer_.ReadFrame(), CompletedReply(9));
    return;
  }
  FAIL() << "never asked within half a second";
}

TEST_P(ServerReceiver, AnswersBytesThatCannotBeDecodedAndRunsNothing) {
  EXPECT_EQ(Hex(peer_.Exchange(Slice(9, 10, "no message")).value_or("")), Hex(FromHex(exact::kSliceUndecodableReply)));
  EXPECT_EQ(echoes_, 0);
}

TEST_P(ServerReceiver, GivesTheMethodTheWholeSetNameIncluded) {
  const std::string result = ResultOf(9, Whole(Wire().String("text"), "echo", 9));
  EXPECT_EQ(result, Whole(Wire().String("text").String("echo").Int(9), "s_c_largedata", 9));
}

TEST_P(ServerReceiver, SendsTheResultInCallsUnderTheSameKey) {
  const ScopedSliceSize size(30);
  ASSERT_TRUE(peer_.SendFrame(Slice(9, Whole(Wire().String("text"), "echo", 9))));
  std::vector<TakenSlice> results;
  EXPECT_EQ(TakeResults(&results), CompletedReply(9));
  const std::string expected = Whole(Wire().String("text").String("echo").Int(9), "s_c_largedata", 9);
  EXPECT_EQ(results.size(), (expected.size() + 29) / 30);
  std::string whole;
  for (const TakenSlice& slice : results) {
    EXPECT_TRUE(slice.valid);
    EXPECT_EQ(slice.key, 9);
    EXPECT_EQ(slice.envelope_key, 9);
    EXPECT_EQ(slice.total, static_cast<int>(expected.size()));
    EXPECT_TRUE(TextOf(slice.request, "s_c_sw_semid"));
    whole += slice.bytes;
  }
  EXPECT_EQ(whole, expected);
}

TEST_P(ServerReceiver, StopsSendingAtTheFirstSliceThatIsNotAnswered) {
  const ScopedSliceSize size(30);
  const Stopwatch watch;
  ASSERT_TRUE(peer_.SendFrame(Slice(9, Whole("", "echo", 9))));
  EXPECT_TRUE(ReadSliceRequest(peer_.ReadFrame().value_or("")).valid);
  EXPECT_EQ(peer_.ReadFrame(), CompletedReply(9));
  EXPECT_GE(watch.ElapsedMs(), 450);
}

TEST_P(ServerReceiver, GoesOnSendingWhereAnOlderAnswerIsStoredUnderTheKey) {
  const ScopedSliceSize size(40);
  ASSERT_TRUE(peer_.SendFrame(Slice(9, Whole("", "echo", 9))));
  const std::string first = peer_.ReadFrame().value_or("");
  const int total = ReadSliceRequest(first).total;
  const Stopwatch watch;
  ASSERT_TRUE(peer_.SendFrame(AsClient(first)));
  const int rest = (total + 39) / 40 - 1;
  long long last_ms = 0;
  long long shortest_gap_ms = std::numeric_limits<long long>::max();
  for (int i = 0; i <= rest; ++i) {
    const std::string frame = peer_.ReadFrame().value_or("");
    const long long now_ms = watch.ElapsedMs();
    if (i < rest) {
      EXPECT_TRUE(ReadSliceRequest(frame).valid);
    } else {
      EXPECT_EQ(frame, CompletedReply(9));
    }
    // The first of them comes after a slice that was answered.
    if (i > 0) shortest_gap_ms = std::min(shortest_gap_ms, now_ms - last_ms);
    last_ms = now_ms;
  }
  EXPECT_GE(last_ms, 500 * rest - 50);
  EXPECT_LT(shortest_gap_ms, 1500 * kSlowdown);
}

TEST_P(ServerReceiver, AnUnknownMethodIsAResultAndTheCatchAllIsNotAsked) {
  EXPECT_EQ(ResultOf(9, Whole("", "foo", 9)), Whole(Wire().String("no event: foo"), "s_c_largedata", 9));
  EXPECT_EQ(catch_alls_, 0);
}

TEST_P(ServerReceiver, AMessageWithoutNameHasTheEmptyOne) {
  EXPECT_EQ(ResultOf(9, Wire().Int(1)), Whole(Wire().String("no event: "), "s_c_largedata", 9));
  EXPECT_EQ(ResultOf(9, Wire().KeyInt("s_c_sw_name", 1)), Whole(Wire().String("no event: "), "s_c_largedata", 9));
}

TEST_P(ServerReceiver, ABrokenOffTransferStaysInFrontOfTheNextOnTheKey) {
  EXPECT_EQ(Hex(peer_.Exchange(Slice(9, 100, "0123456789")).value_or("")), Hex(FromHex(exact::kSliceTakenReply)));
  // 30 bytes now, which is more than 20.
  EXPECT_EQ(Hex(peer_.Exchange(Slice(9, std::string(20, 'x'))).value_or("")),
            Hex(FromHex(exact::kSliceUndecodableReply)));
  // After that the key is free again.
  EXPECT_EQ(ResultOf(9, Whole(Wire().String("a"), "echo", 9)),
            Whole(Wire().String("a").String("echo").Int(9), "s_c_largedata", 9));
}

TEST_P(ServerReceiver, ATransferEndsWithItsConnection) {
  const std::string whole = Whole(Wire().String("text"), "echo", 9);
  const int total = static_cast<int>(whole.size());
  ASSERT_TRUE(peer_.Exchange(Slice(9, total, whole.substr(0, 10))));
  peer_ = server_.Connect();
  ASSERT_TRUE(peer_.SendFrame(Slice(9, total, whole)));
  std::vector<TakenSlice> results;
  EXPECT_EQ(TakeResults(&results), CompletedReply(9));
  ASSERT_EQ(results.size(), 1u);
  EXPECT_EQ(results[0].bytes, Whole(Wire().String("text").String("echo").Int(9), "s_c_largedata", 9));
}

TEST_P(ServerReceiver, TheHeaderReceiverTakesSlicesAlikeButHasItsOwnTable) {
  const std::string whole = Whole(Wire().String("text"), "echo", 9);
  const int total = static_cast<int>(whole.size());
  EXPECT_EQ(Hex(peer_.Exchange(Slice(9, total, whole.substr(0, 10), "s_c_req_header")).value_or("")),
            Hex(FromHex(exact::kSliceTakenReply)));
  // Nothing of it is known to the other receiver.
  EXPECT_EQ(ResultOf(9, whole), Whole(Wire().String("text").String("echo").Int(9), "s_c_largedata", 9));
  ASSERT_TRUE(peer_.SendFrame(Slice(9, total, whole.substr(10), "s_c_req_header")));
  std::vector<TakenSlice> results;
  EXPECT_EQ(TakeResults(&results), CompletedReply(9));
}

TEST_P(ServerReceiver, TransfersOfSeveralClientsOnTheirOwnKeysDoNotMix) {
  RawPeer other = server_.Connect();
  const std::string one = Whole(Wire().String(std::string(3000, '1')), "echo", 1);
  const std::string two = Whole(Wire().String(std::string(3000, '2')), "echo", 2);
  // Cut finely and sent without waiting, so that slices are taken in by several workers at once.
  const auto transfer = [](RawPeer* peer, int key, const std::string& whole) {
    for (std::size_t at = 0; at < whole.size(); at += 100) {
      const auto part = std::string_view(whole).substr(at, 100);
      if (!peer->SendFrame(Slice(key, static_cast<int>(whole.size()), part))) return std::string();
      if (at + 100 >= whole.size()) break;
      if (!peer->ReadFrame()) return std::string();
    }
    const TakenTransfer result = TakeTransfer(peer, AsClient);
    peer->ReadFrame();
    return result.whole;
  };
  Background<std::string> first([&] { return transfer(&peer_, 1, one); });
  Background<std::string> second([&] { return transfer(&other, 2, two); });
  EXPECT_EQ(first.Get(), Whole(Wire().String(std::string(3000, '1')).String("echo").Int(1), "s_c_largedata", 1));
  EXPECT_EQ(second.Get(), Whole(Wire().String(std::string(3000, '2')).String("echo").Int(2), "s_c_largedata", 2));
}

TEST_P(ServerReceiver, TakesSlicesInTheOrderInWhichTheyCameHoweverLateThePoolGetsToThem) {
  const std::string bytes = Pattern(20000);
  server_.On("hold", hold_.Handler());
  server_.On("compare", [this, bytes](int, MIVOParams* request, MIVOParams*) {
    same_ = StreamAt(request, 0) == bytes;
    ++echoes_;
  });
  ASSERT_TRUE(hold_.HoldAll(&peer_));
  const std::string whole = Whole(Wire().Stream(bytes), "compare", 9);
  const bool is_sent = SendInSlicesAtOnce(&peer_, 9, whole, 10);
  hold_.Release();
  ASSERT_TRUE(is_sent);
  // Every slice is answered, whoever has put it in its place.
  const int requests = static_cast<int>((whole.size() + 9) / 10) + PoolHold::PoolThreads();
  for (int answers = 0; answers < requests;) {
    const std::optional<std::string> frame = peer_.ReadFrame();
    ASSERT_TRUE(frame);
    if (TextOf(*frame, "s_c_sw_name") == "retval") {
      ++answers;
    } else {
      ASSERT_TRUE(peer_.SendFrame(AsClient(*frame)));
    }
  }
  EXPECT_EQ(echoes_, 1);
  EXPECT_TRUE(same_);
}

TEST_P(ServerReceiver, TakesASliceWithoutTotalAsTheLast) {
  const std::string whole = Whole(Wire().String("a"), "echo", 9);
  ASSERT_TRUE(peer_.SendFrame(
      Request({"s_c_req_body", 9, Wire().KeyInt("s_c_sw_threadid", 9).String("no total").Stream(whole).bytes()})));
  std::vector<TakenSlice> results;
  EXPECT_EQ(TakeResults(&results), CompletedReply(9));
  EXPECT_EQ(echoes_, 1);
}

TEST_P(ServerReceiver, TakesASliceWithANegativeTotalAsTheLast) {
  ASSERT_TRUE(peer_.SendFrame(Slice(9, -100, Whole(Wire().String("a"), "echo", 9))));
  std::vector<TakenSlice> results;
  EXPECT_EQ(TakeResults(&results), CompletedReply(9));
  EXPECT_EQ(echoes_, 1);
}

TEST_P(ServerReceiver, ASliceWithoutAnythingIsAnEmptyMessage) {
  for (const std::string& data : {std::string(), Wire().KeyString("s_c_sw_threadid", "x").Int(0).Int(5).bytes()}) {
    ASSERT_TRUE(peer_.SendFrame(Request({"s_c_req_body", 9, data})));
    std::vector<TakenSlice> results;
    EXPECT_EQ(TakeResults(&results), CompletedReply(9));
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].key, 0);
    EXPECT_EQ(results[0].bytes, Whole(Wire().String("no event: "), "s_c_largedata", 0));
  }
}

TEST_P(ServerReceiver, AnnouncedSizesCostNothing) {
  for (int key = 1; key <= 200; ++key)
    ASSERT_TRUE(peer_.Exchange(Slice(key, 0x7fffffff, "x")));
  EXPECT_TRUE(peer_.AnswersInOrder());
}

TEST_P(ServerReceiver, AClientThatGoesAwayInsideATransferLeavesTheServerAlive) {
  const ScopedSliceSize size(30);
  // Inside the request, and inside the result.
  ASSERT_TRUE(peer_.Exchange(Slice(9, 100, "0123456789")));
  peer_.Close();
  peer_ = server_.Connect();
  ASSERT_TRUE(peer_.SendFrame(Slice(10, Whole(Wire().String("a"), "echo", 10))));
  ASSERT_TRUE(ReadSliceRequest(peer_.ReadFrame().value_or("")).valid);
  peer_.Close();
  peer_ = server_.Connect();
  ASSERT_TRUE(peer_.SendFrame(Slice(11, Whole(Wire().String("b"), "echo", 11))));
  std::vector<TakenSlice> results;
  EXPECT_EQ(TakeResults(&results), CompletedReply(11));
}

TEST_P(ServerReceiver, DeeplyNestedMessagesEndSoon) {
  // Each level is a message for the receiver, inside a slice.
  constexpr int kLevels = 300;
  std::string whole = Whole(Wire().String("core"), "echo", 9);
  for (int level = 0; level < kLevels; ++level)
    whole = Wire()
                .KeyBool("s_c_largedata", true)
                .KeyInt("s_c_sw_threadid", 9)
                .Int(static_cast<int>(whole.size()))
                .Stream(whole)
                .KeyString("s_c_sw_name", "s_c_req_body")
                .bytes();
  ASSERT_TRUE(peer_.SendFrame(Slice(9, whole)));
  std::vector<TakenSlice> results;
  EXPECT_EQ(TakeResults(&results), CompletedReply(9));
  // Every level that was entered has sent a result.
  EXPECT_GE(results.size(), 2u);
  EXPECT_LE(results.size(), 100u);
  EXPECT_EQ(echoes_, 0);
  EXPECT_TRUE(peer_.AnswersInOrder());
}

// ---- Both ways
// --------------------------------------------------------------------------------------------------------

class LargeRoundTrips : public testing::TestWithParam<Transport> {
 protected:
  void SetUp() override {
    server_.On("echo", [](int, MIVOParams* request, MIVOParams* reply) {
      const std::string bytes = StreamAt(request, 0).value_or("");
      reply->AddStream(bytes.data(), static_cast<long>(bytes.size()));
      reply->AddInt(static_cast<int>(bytes.size()));
    });
    ASSERT_TRUE(server_.Init());
    ASSERT_TRUE(client_.Init(server_.address()));
  }

  void Expect(std::size_t size) {
    const std::string bytes = Pattern(size);
    MIVOParams params;
    params.AddStream(bytes.data(), static_cast<long>(bytes.size()));
    const Reply reply(client_->SendMsgEx("echo", &params, 0, kLongTimeout));
    EXPECT_TRUE(StreamAt(reply.get(), 0) == bytes) << size << " bytes";
    EXPECT_EQ(IntAt(reply.get(), 1), static_cast<int>(size));
  }

  TestServer server_{GetParam()};
  TestClient client_;
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, LargeRoundTrips, kEveryTransport, TransportName);

TEST_P(LargeRoundTrips, BringBackWhatWasSent) {
  for (const std::size_t size : {0u, 1u, 32767u, 32768u, 32769u, 65536u, 1000000u, 20000000u})
    Expect(size);
}

TEST_P(LargeRoundTrips, BringBackWhatWasSentInSlicesOfAnySize) {
  {
    const ScopedSliceSize size(1);
    Expect(200);
  }
  {
    const ScopedSliceSize size(7);
    Expect(2000);
  }
  for (const int slice : {32767, 32768, 1000000}) {
    const ScopedSliceSize size(slice);
    for (const std::size_t size_bytes : {100u, 32768u, 1000000u, 3000000u})
      Expect(size_bytes);
  }
}

TEST_P(LargeRoundTrips, GoOnWithTheDefaultWhereTheSizeIsNoSize) {
  for (const int none : {0, -7}) {
    const ScopedSliceSize size(none);
    Expect(100000);
  }
}

}  // namespace
