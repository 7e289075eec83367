#include <mivo/mivo.h>

#include "support/event.h"
#include "support/journal.h"
#include "support/raw_server.h"
#include "support/stdout_capture.h"
#include "support/test_client.h"
#include "support/test_server.h"
#include "support/transport.h"
#include "support/uv_faults.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <uv.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

using namespace mivo_test;

namespace {

// Time for the client to do what it must not do.
constexpr std::chrono::milliseconds kMoment{50};

long MappedBytes() {
  long pages = 0;
  FILE* const statm = std::fopen("/proc/self/statm", "re");
  if (statm == nullptr) return 0;
  if (std::fscanf(statm, "%ld", &pages) != 1) pages = 0;
  std::fclose(statm);
  return pages * 4096;
}

class ClientFrames : public testing::TestWithParam<Transport> {
 protected:
  void SetUp() override {
    client_.On("note", [this](int, MIVOParams* request, MIVOParams* reply) {
      MIVOValue* const value = request->GetValue(0);
      const int number = value != nullptr && value->IsInt() ? value->GetInt() : -1;
      noted_.Add(std::to_string(number));
      reply->AddInt(number);
    });
    client_.On("silent", [](int, MIVOParams*, MIVOParams*) {});
    peer_ = client_.InitAgainst(server_);
    ASSERT_TRUE(peer_.connected());
  }

  static std::string Note(int number) { return Request({"note", number, Wire().Int(number).bytes()}); }
  static std::string Noted(int number) { return ClientReply(Wire().Int(number), number, std::nullopt); }

  // True when the client answers, and with nothing in front.
  bool AnswersAndNothingElse() {
    ++next_;
    return peer_.Exchange(Note(next_)) == Noted(next_);
  }

  // The request that one call sends.
  std::string SentBy(const std::function<MIVOParams*()>& call) {
    PendingCall pending(call);
    const std::string request = peer_.ReadFrame().value_or("");
    peer_.SendFrame(ServerReply("", IntOf(request, "s_c_sw_threadid"), TextOf(request, "s_c_sw_semid")));
    EXPECT_EQ(TakeError(pending.Wait()), 0);
    return request;
  }

  Journal noted_;
  RawServer server_{GetParam()};
  TestClient client_;
  RawPeer peer_;

 private:
  int next_ = 1000000;
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, ClientFrames, kEveryTransport, TransportName);

// --- What the client sends

TEST_P(ClientFrames, APostIsItsLengthAndItsEnvelopeAndNothingElse) {
  EXPECT_EQ(client_->PostMsg("foo", nullptr, 9), 0);
  const std::string payload = FromHex(exact::kPost);
  EXPECT_EQ(Hex(peer_.ReadBytes(4 + payload.size()).value_or("")), Hex(LittleEndian(67) + payload));
  EXPECT_TRUE(peer_.ExpectSilence(kMoment));
}

TEST_P(ClientFrames, ACallIsItsEnvelopeInItsOrder) {
  MIVOParams empty;
  const std::string request = SentBy([&] { return client_->SendMsg("foo", &empty, 9, 0); });
  const std::string semid = TextOf(request, "s_c_sw_semid").value_or("");
  // The pinned example, with the semaphore of this call in the place of the example's.
  ASSERT_EQ(Hex(Request({"foo", 9, "", "0xab"})), Hex(FromHex(exact::kCall)));
  EXPECT_EQ(Hex(request), Hex(Request({"foo", 9, "", semid})));
}

TEST_P(ClientFrames, ArgumentsTravelAsTheyWereEncoded) {
  MIVOParams params;
  params.AddInt(-1);
  params.AddDouble(1.5);
  params.AddKeyValueStream("k", "a\0b", 3);
  ListParams* const list = params.CreateListParams();
  list->AddBool(true);
  list->AddString("x", 1);
  params.AddList(list);
  const std::string encoded = *params.GetParamas();
  const std::string request = SentBy([&] { return client_->SendMsg("foo", &params, 9, 0); });
  EXPECT_EQ(Hex(TextOf(request, "s_c_sw_data").value_or("")), Hex(encoded));
  EXPECT_EQ(*params.GetParamas(), encoded);
}

TEST_P(ClientFrames, NoArgumentsAreAbsentAndEmptyOnesAreThere) {
  MIVOParams empty;
  const std::string without = SentBy([&] { return client_->SendMsg("foo", nullptr, 9, 0); });
  const std::string with = SentBy([&] { return client_->SendMsg("foo", &empty, 9, 0); });
  EXPECT_EQ(Describe(without).size(), 3u);
  EXPECT_FALSE(TextOf(without, "s_c_sw_data").has_value());
  EXPECT_EQ(TextOf(with, "s_c_sw_data"), "");
}

TEST_P(ClientFrames, TheSemaphoreLooksLikeAnAddress) {
  const std::string request = SentBy([&] { return client_->SendMsg("foo", nullptr, 9, 0); });
  const std::string semid = TextOf(request, "s_c_sw_semid").value_or("");
  ASSERT_GT(semid.size(), 2u);
  EXPECT_EQ(semid.substr(0, 2), "0x");
  EXPECT_EQ(semid.find_first_not_of("0123456789abcdef", 2), std::string::npos) << semid;
  EXPECT_NE(semid.find_first_not_of("0", 2), std::string::npos) << "null";
}

TEST_P(ClientFrames, PostsLeaveInTheOrderInWhichTheyWereMade) {
  std::thread posting([&] {
    for (int i = 1; i <= 1000; ++i) {
      MIVOParams params;
      params.AddInt(i);
      i % 2 == 0 ? client_->PostMsg("foo", &params, i) : client_->PostMsgFast("foo", &params, i);
    }
  });
  for (int i = 1; i <= 1000; ++i)
    EXPECT_EQ(peer_.ReadFrame(), Request({"foo", i, Wire().Int(i).bytes()}));
  posting.join();
}

TEST_P(ClientFrames, TheCallsOfSeveralThreadsNeverMixTheirFrames) {
  constexpr int kThreads = 4;
  constexpr int kPosts = 100;
  const std::string filling(5000, 'f');
  std::vector<std::thread> threads;
  for (int thread = 1; thread <= kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; i < kPosts; ++i) {
        MIVOParams params;
        params.AddInt(i);
        params.AddStream(filling.data(), static_cast<long>(filling.size()));
        client_->PostMsgFast("foo", &params, thread);
      }
    });
  }
  std::vector<int> next(kThreads + 1, 0);
  for (int i = 0; i < kThreads * kPosts; ++i) {
    const std::string frame = peer_.ReadFrame().value_or("");
    const auto thread = static_cast<std::size_t>(IntOf(frame, "s_c_sw_threadid").value_or(0));
    ASSERT_LT(thread, next.size());
    EXPECT_EQ(frame, Request({"foo", static_cast<int>(thread), Wire().Int(next[thread]++).Stream(filling).bytes()}));
  }
  for (std::thread& thread : threads)
    thread.join();
}

TEST_P(ClientFrames, NothingOfALifeIsSentUnderALocalNameOrWithAnErrorCode) {
  std::set<std::string> names;
  RawServer server(GetParam());
  TestClient client;
  client.On("s_c_closed", nullptr);
  client.On("s_c_connect", nullptr);
  std::string check;
  RawPeer peer = client.InitAgainst(server, &check);
  names.insert(TextOf(check, "s_c_sw_name").value_or(""));
  ASSERT_TRUE(peer.SendFrame(Request({"unknown", 1})));
  client->PostMsg("post", nullptr, 0);
  PendingCall timed_out([&] { return client->SendMsg("silence", nullptr, 0, 1); });
  EXPECT_EQ(TakeError(timed_out.Wait()), -1001);
  PendingCall closed([&] { return client->SendMsg("silence", nullptr, 0, 0); });
  std::vector<std::string> frames;
  for (int i = 0; i < 4; ++i)
    frames.push_back(peer.ReadFrame().value_or(""));
  client->close();
  EXPECT_EQ(TakeError(closed.Wait()), -1001);
  EXPECT_TRUE(peer.ReadEof()) << "the close says nothing";
  for (const std::string& frame : frames) {
    names.insert(TextOf(frame, "s_c_sw_name").value_or(""));
    EXPECT_EQ(frame.find("errorCode"), std::string::npos);
  }
  EXPECT_EQ(names, (std::set<std::string>{"post", "retval", "s_c_version", "silence"}));
}

// --- What the client reads

TEST_P(ClientFrames, EveryNameButRetvalIsARequestAndItsReplyIsMarkedRetval) {
  const std::string reply = peer_.Exchange(Note(7)).value_or("");
  EXPECT_EQ(noted_.lines(), Lines{"7"});
  EXPECT_EQ(TextOf(reply, "s_c_sw_name"), "retval");
  EXPECT_EQ(Hex(reply), Hex(Noted(7)));
}

TEST_P(ClientFrames, RepliesArePinnedToTheByte) {
  EXPECT_EQ(Hex(peer_.Exchange(Request({"silent", 9, std::nullopt, "0xab"})).value_or("")),
            Hex(FromHex(exact::kEmptyClientReply)));
  EXPECT_EQ(Hex(peer_.Exchange(Request({"unknown", 9, std::nullopt, "0xab"})).value_or("")),
            Hex(FromHex(exact::kUnknownNameClientReply)));
}

TEST_P(ClientFrames, GivesOutTheFramesOfOneWriteInOrder) {
  PendingCall call([&] { return client_->SendMsgFast("foo", nullptr, 9, 0); });
  const auto semid = TextOf(peer_.ReadFrame().value_or(""), "s_c_sw_semid");
  // The first reply is taken, whatever comes after it.
  ASSERT_TRUE(peer_.SendBytes(Frame(ServerReply(Wire().Int(1), 9, semid)) +
                              Frame(ServerReply(Wire().Int(2), 9, semid)) + Frame(Note(3))));
  EXPECT_EQ(peer_.ReadFrame(), Noted(3));
  EXPECT_EQ(TakeInt(call.Wait()), 1);
}

TEST_P(ClientFrames, AFrameInThreeWritesIsGivenOutOnceAndWithItsLastByte) {
  const std::string frame = Frame(Note(5));
  ASSERT_TRUE(peer_.SendBytes(frame.substr(0, 10)));
  ASSERT_TRUE(peer_.WaitUntilTaken());
  ASSERT_TRUE(peer_.SendBytes(frame.substr(10, frame.size() - 11)));
  ASSERT_TRUE(peer_.WaitUntilTaken());
  EXPECT_TRUE(peer_.ExpectSilence(kMoment));
  EXPECT_EQ(noted_.lines(), Lines{});
  ASSERT_TRUE(peer_.SendBytes(frame.substr(frame.size() - 1)));
  EXPECT_EQ(peer_.ReadFrame(), Noted(5));
  EXPECT_TRUE(AnswersAndNothingElse());
}

TEST_P(ClientFrames, AFrameSentByteByByteIsGivenOutOnce) {
  for (const char byte : Frame(Note(5))) {
    ASSERT_TRUE(peer_.SendBytes(std::string(1, byte)));
    ASSERT_TRUE(peer_.WaitUntilTaken());
  }
  EXPECT_EQ(peer_.ReadFrame(), Noted(5));
  EXPECT_TRUE(AnswersAndNothingElse());
}

TEST_P(ClientFrames, AChunkThatEndsInsideTheSecondFrameGivesOutTheFirst) {
  const std::string second = Frame(Note(2));
  for (const std::size_t cut : {std::size_t{1}, std::size_t{3}, std::size_t{4}, second.size() - 1}) {
    SCOPED_TRACE("cut at " + std::to_string(cut));
    ASSERT_TRUE(peer_.SendBytes(Frame(Note(1)) + second.substr(0, cut)));
    EXPECT_EQ(peer_.ReadFrame(), Noted(1));
    ASSERT_TRUE(peer_.WaitUntilTaken());
    ASSERT_TRUE(peer_.SendBytes(second.substr(cut)));
    EXPECT_EQ(peer_.ReadFrame(), Noted(2));
  }
}

TEST_P(ClientFrames, AHalfAndThenTheOtherHalfWithAFrameBehindIt) {
  PendingCall call([&] { return client_->SendMsgFast("foo", nullptr, 9, 0); });
  const auto semid = TextOf(peer_.ReadFrame().value_or(""), "s_c_sw_semid");
  const std::string first = Frame(ServerReply(Wire().Int(1), 9, semid));
  const std::string second = Frame(ServerReply(Wire().Int(2), 9, semid));
  ASSERT_TRUE(peer_.SendBytes(Frame(Note(1)) + first.substr(0, 30)));
  EXPECT_EQ(peer_.ReadFrame(), Noted(1));
  ASSERT_TRUE(peer_.WaitUntilTaken());
  ASSERT_TRUE(peer_.SendBytes(first.substr(30) + second + Frame(Note(2))));
  EXPECT_EQ(peer_.ReadFrame(), Noted(2));
  EXPECT_EQ(TakeInt(call.Wait()), 1);
}

TEST_P(ClientFrames, AWholeFrameInItsOwnChunkOvertakesAHalfOne) {
  const std::string first = Frame(Note(1));
  ASSERT_TRUE(peer_.SendBytes(first.substr(0, first.size() / 2)));
  ASSERT_TRUE(peer_.WaitUntilTaken());
  ASSERT_TRUE(peer_.SendFrame(Note(2)));
  EXPECT_EQ(peer_.ReadFrame(), Noted(2));
  ASSERT_TRUE(peer_.SendBytes(first.substr(first.size() / 2)));
  EXPECT_EQ(peer_.ReadFrame(), Noted(1));
}

TEST_P(ClientFrames, AFrameOfNothingIsAnEmptyEvent) {
  StdoutCapture output;
  ASSERT_TRUE(peer_.SendFrame(""));
  EXPECT_TRUE(output.WaitFor("event empty!\n"));
  EXPECT_TRUE(AnswersAndNothingElse());
  EXPECT_EQ(output.Text(), "event empty!\n");
}

TEST_P(ClientFrames, AMessageWithoutANameIsAnEmptyEvent) {
  StdoutCapture output;
  const std::string nameless[] = {Wire().KeyInt("s_c_sw_threadid", 1), Wire().Int(1), Wire().KeyInt("s_c_sw_name", 1),
                                  Wire().Key("s_c_sw_name").List(0)};
  int count = 0;
  for (const std::string& payload : nameless) {
    ASSERT_TRUE(peer_.SendFrame(payload));
    EXPECT_TRUE(output.WaitFor("event empty!\n", ++count));
  }
  EXPECT_TRUE(AnswersAndNothingElse());
  EXPECT_EQ(output.Count("\n"), count);
}

TEST_P(ClientFrames, APayloadThatDoesNotDecodeIsDroppedWithoutAWord) {
  StdoutCapture output;
  const std::string call = Note(1);
  for (const std::string& payload : {std::string("\x08", 1), call + '\x08', call.substr(0, call.size() - 1),
                                     std::string("\x03\xff\xff\xff\x7f", 5), std::string(1000, '\xff')}) {
    ASSERT_TRUE(peer_.SendFrame(payload));
  }
  EXPECT_TRUE(AnswersAndNothingElse());
  EXPECT_EQ(output.Text(), "");
  EXPECT_EQ(noted_.lines().size(), 1u);
}

TEST_P(ClientFrames, ANegativeLengthEndsTheConnection) {
  for (const bool behind_a_frame : {false, true}) {
    RawServer server(GetParam());
    TestClient client;
    Event closed;
    client.On("s_c_closed", [&](int, MIVOParams*, MIVOParams*) { closed.Signal(); });
    RawPeer peer = client.InitAgainst(server);
    PendingCall call([&] { return client->SendMsgFast("foo", nullptr, 0, 0); });
    ASSERT_TRUE(peer.ReadFrame().has_value());
    ASSERT_TRUE(peer.SendBytes((behind_a_frame ? Frame(Wire().KeyString("s_c_sw_name", "retval")) : std::string()) +
                               "\xff\xff\xff\xff"));
    EXPECT_TRUE(peer.ReadEof());
    EXPECT_EQ(TakeError(call.Wait()), -1001);
    EXPECT_FALSE(client->isok());
    EXPECT_EQ(closed.count(), 1);
  }
  EXPECT_TRUE(AnswersAndNothingElse()) << "another client of the process";
}

TEST_P(ClientFrames, AnAnnouncedLengthTakesNoMemory) {
  ASSERT_TRUE(AnswersAndNothingElse());
  const long before = MappedBytes();
  ASSERT_TRUE(peer_.SendBytes(LittleEndian(0x7fffffff)));
  ASSERT_TRUE(peer_.WaitUntilTaken());
  ASSERT_TRUE(peer_.SendBytes("a beginning"));
  ASSERT_TRUE(peer_.WaitUntilTaken());
  EXPECT_LT(MappedBytes() - before, 512L * 1024 * 1024);
  EXPECT_TRUE(client_->isok());
  peer_.Close();
  EXPECT_TRUE(Eventually([&] { return !client_->isok(); }));
}

TEST_P(ClientFrames, AFrameOfTenMegabytesArrivesWholeBothWays) {
  std::string much(10 * 1024 * 1024, 'm');
  for (std::size_t i = 0; i < much.size(); i += 4096)
    much[i] = static_cast<char>(i / 4096);
  MIVOParams params;
  params.AddStream(much.data(), static_cast<long>(much.size()));
  PendingCall call([&] { return client_->SendMsgFast("foo", &params, 9, 0); });
  const std::string request = peer_.ReadFrame().value_or("");
  EXPECT_TRUE(TextOf(request, "s_c_sw_data") == *params.GetParamas());
  ASSERT_TRUE(peer_.SendFrame(ServerReply(Wire().Stream(much), 9, TextOf(request, "s_c_sw_semid"))));
  MIVOParams* const reply = call.Wait();
  ASSERT_NE(reply, nullptr);
  ASSERT_NE(reply->GetValue(0), nullptr);
  long length = 0;
  const char* const bytes = reply->GetValue(0)->GetStream(length);
  EXPECT_TRUE(std::string(bytes, static_cast<std::size_t>(length)) == much);
}

// --- Writes that fail

TEST_P(ClientFrames, AWriteThatFailsFourTimesIsDroppedAndTheConnectionStays) {
  ASSERT_TRUE(AnswersAndNothingElse());
  StdoutCapture output;
  {
    const ScopedFault fault(Fault::kSendCall, 1, 4, UV_ENOBUFS);
    EXPECT_EQ(client_->PostMsg("lost", nullptr, 1), 0);
    EXPECT_EQ(fault.calls(), 4);
    const auto times = fault.times();
    ASSERT_EQ(times.size(), 4u);
    for (std::size_t i = 1; i < times.size(); ++i) {
      EXPECT_GE(times[i] - times[i - 1], std::chrono::milliseconds(1)) << "between tries " << i << " and " << i + 1;
    }
  }
  EXPECT_TRUE(output.WaitFor("write error\nwrite data error\n"));
  EXPECT_EQ(client_->PostMsg("foo", nullptr, 9), 0);
  EXPECT_EQ(Hex(peer_.ReadFrame().value_or("")), Hex(FromHex(exact::kPost)));
  EXPECT_TRUE(client_->isok());
  EXPECT_EQ(output.Text(), "write error\nwrite data error\n");
}

TEST_P(ClientFrames, ACallThatCannotBeWrittenHasNoReplyAndDoesNotWaitForOne) {
  ASSERT_TRUE(AnswersAndNothingElse());
  StdoutCapture output;
  SetLog(client_.get(), "", 0);
  {
    const ScopedFault fault(Fault::kSendCall, 1, 4, UV_ENOBUFS);
    const Stopwatch watch;
    EXPECT_EQ(TakeError(client_->SendMsg("lost", nullptr, 9, 60000)), -1001);
    EXPECT_LT(watch.ElapsedMs(), 30000);
    EXPECT_EQ(fault.calls(), 4);
  }
  EXPECT_EQ(output.Text(), "write error\nwrite data error\n") << "at level zero, too";
  EXPECT_EQ(IntOf(SentBy([&] { return client_->SendMsg("foo", nullptr, 10, 0); }), "s_c_sw_threadid"), 10);
}

TEST_P(ClientFrames, AWriteThatFailsUpToThreeTimesArrives) {
  ASSERT_TRUE(AnswersAndNothingElse());
  StdoutCapture output;
  for (int failures = 1; failures <= 3; ++failures) {
    const ScopedFault fault(Fault::kSendCall, 1, failures, UV_ENOBUFS);
    EXPECT_EQ(client_->PostMsg("foo", nullptr, 9), 0);
    EXPECT_EQ(Hex(peer_.ReadFrame().value_or("")), Hex(FromHex(exact::kPost)));
    const auto times = fault.times();
    ASSERT_EQ(times.size(), static_cast<std::size_t>(failures) + 1);
    EXPECT_GE(times.back() - times.front(), std::chrono::milliseconds(failures));
  }
  EXPECT_EQ(output.Text(), "");
}

TEST_P(ClientFrames, AHandlersReplyThatCannotBeWrittenIsDroppedAndTheConnectionStays) {
  ASSERT_TRUE(AnswersAndNothingElse());
  StdoutCapture output;
  {
    const ScopedFault fault(Fault::kSendCall, 1, 4, UV_ENOBUFS);
    ASSERT_TRUE(peer_.SendFrame(Note(1)));
    EXPECT_TRUE(output.WaitFor("write error\nwrite data error\n"));
  }
  EXPECT_TRUE(AnswersAndNothingElse());
}

TEST_P(ClientFrames, AWriteThatFailsLaterIsReportedWithItsReason) {
  StdoutCapture output;
  const std::string much(32 * 1024 * 1024, 'x');
  MIVOParams params;
  params.AddStream(much.data(), static_cast<long>(much.size()));
  PendingCall call([&] { return client_->SendMsgFast("foo", &params, 9, 0); });
  // The request has begun and does not fit into the kernel: it is queued when the reader goes.
  ASSERT_TRUE(peer_.ReadBytes(1000).has_value());
  peer_.Reset();
  EXPECT_TRUE(output.WaitFor("Write error: "));
  EXPECT_EQ(TakeError(call.Wait()), -1001);
  bool known = false;
  for (const int reason : {UV_EPIPE, UV_ECONNRESET, UV_ECANCELED}) {
    known = known || output.Contains("Write error: " + std::string(uv_strerror(reason)) + "\n");
  }
  EXPECT_TRUE(known);
}

TEST_P(ClientFrames, WritingToAPeerThatDiedHurtsNobody) {
  for (int round = 0; round < 10; ++round) {
    RawServer server(GetParam());
    TestClient client;
    SetLog(client.get(), "", 0);
    RawPeer peer = client.InitAgainst(server);
    StdoutCapture quiet;
    std::thread dying([&] { peer.Reset(); });
    for (int i = 0; i < 50; ++i)
      EXPECT_EQ(client->PostMsgFast("foo", nullptr, i + 1), 0);
    dying.join();
    client->PostMsgFast("foo", nullptr, 1);
    EXPECT_TRUE(Eventually([&] { return !client->isok(); }));
  }
}

}  // namespace
