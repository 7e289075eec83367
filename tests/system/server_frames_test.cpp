#include <mivo/mivo.h>

#include "support/event.h"
#include "support/journal.h"
#include "support/raw_client.h"
#include "support/stdout_capture.h"
#include "support/test_server.h"
#include "support/transport.h"
#include "support/uv_faults.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <uv.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

using namespace mivo_test;

namespace {

// Time for the server to do what it must not do.
constexpr std::chrono::milliseconds kMoment{50};

// Pages of this process, in bytes: what it has mapped, touched or not.
long MappedBytes() {
  long pages = 0;
  FILE* const statm = std::fopen("/proc/self/statm", "re");
  if (statm == nullptr) return 0;
  if (std::fscanf(statm, "%ld", &pages) != 1) pages = 0;
  std::fclose(statm);
  return pages * 4096;
}

// A request that the loop answers by itself, so that answers come in the order of the requests.
std::string Ping(std::int32_t threadid) {
  return Request({"s_c_close_server", threadid});
}
std::string Pong(std::int32_t threadid) {
  return ServerReply(Wire().Bool(true), threadid, std::nullopt);
}

class ServerFrames : public testing::TestWithParam<Transport> {
 protected:
  void SetUp() override {
    server_.On("note", [this](int, MIVOParams* request, MIVOParams* reply) {
      MIVOValue* const value = request->GetValue(0);
      noted_.Add(value != nullptr && value->IsInt() ? std::to_string(value->GetInt()) : "nothing");
      reply->AddInt(static_cast<int>(noted_.lines().size()));
    });
    ASSERT_TRUE(server_.Init());
    peer_ = server_.Connect();
    ASSERT_TRUE(peer_.connected());
  }

  static std::string Note(int number, int threadid) { return Request({"note", threadid, Wire().Int(number).bytes()}); }

  Journal noted_;
  TestServer server_{GetParam()};
  RawPeer peer_;
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, ServerFrames, kEveryTransport, TransportName);

TEST_P(ServerFrames, AReplyIsItsLengthAndOneEncodedSetAndNothingElse) {
  const std::string payload = FromHex(exact::kUnknownNameReply);
  ASSERT_TRUE(peer_.SendFrame(FromHex(exact::kPost)));
  EXPECT_EQ(Hex(peer_.ReadBytes(4 + payload.size()).value_or("")), Hex(LittleEndian(92) + payload));
  EXPECT_TRUE(peer_.ExpectSilence(kMoment));
}

TEST_P(ServerFrames, AnswersTheVersionCheckByteForByte) {
  EXPECT_EQ(Hex(peer_.Exchange(FromHex(exact::kHandshakeRequest)).value_or("")), Hex(FromHex(exact::kHandshakeReply)));
}

TEST_P(ServerFrames, EveryNameButRetvalIsARequestAndItsReplyIsMarkedRetval) {
  const auto reply = peer_.Exchange(Note(7, 1));
  EXPECT_EQ(noted_.lines(), Lines{"7"});
  EXPECT_EQ(TextOf(reply.value_or(""), "s_c_sw_name"), "retval");
  ASSERT_TRUE(peer_.SendFrame(Wire().KeyString("s_c_sw_name", "retval").KeyInt("s_c_sw_threadid", 1)));
  EXPECT_TRUE(peer_.AnswersInOrder());
}

TEST_P(ServerFrames, DispatchesThreeFramesOfOneWriteInOrder) {
  ASSERT_TRUE(peer_.SendBytes(Frame(Ping(1)) + Frame(Ping(2)) + Frame(Ping(3))));
  for (int threadid = 1; threadid <= 3; ++threadid)
    EXPECT_EQ(peer_.ReadFrame(), Pong(threadid));
  EXPECT_TRUE(peer_.AnswersInOrder());
}

TEST_P(ServerFrames, AFrameInThreeWritesIsDispatchedOnceAndWithItsLastByte) {
  const std::string frame = Frame(Note(5, 1));
  ASSERT_TRUE(peer_.SendBytes(frame.substr(0, 10)));
  ASSERT_TRUE(peer_.WaitUntilTaken());
  ASSERT_TRUE(peer_.SendBytes(frame.substr(10, frame.size() - 11)));
  ASSERT_TRUE(peer_.WaitUntilTaken());
  EXPECT_TRUE(peer_.ExpectSilence(kMoment));
  EXPECT_EQ(noted_.lines(), Lines{});
  ASSERT_TRUE(peer_.SendBytes(frame.substr(frame.size() - 1)));
  EXPECT_EQ(peer_.ReadFrame(), ServerReply(Wire().Int(1), 1, std::nullopt));
  EXPECT_TRUE(peer_.AnswersInOrder());
  EXPECT_EQ(noted_.lines(), Lines{"5"});
}

TEST_P(ServerFrames, AFrameSentByteByByteIsDispatchedOnce) {
  for (const char byte : Frame(Note(5, 1))) {
    ASSERT_TRUE(peer_.SendBytes(std::string(1, byte)));
    ASSERT_TRUE(peer_.WaitUntilTaken());
  }
  EXPECT_EQ(peer_.ReadFrame(), ServerReply(Wire().Int(1), 1, std::nullopt));
  EXPECT_TRUE(peer_.AnswersInOrder());
  EXPECT_EQ(noted_.lines(), Lines{"5"});
}

TEST_P(ServerFrames, AChunkThatEndsInsideTheSecondFrameGivesOutTheFirst) {
  const std::string second = Frame(Ping(2));
  for (std::size_t cut = 1; cut < second.size(); ++cut) {
    ASSERT_TRUE(peer_.SendBytes(Frame(Ping(1)) + second.substr(0, cut)));
    ASSERT_EQ(peer_.ReadFrame(), Pong(1)) << "cut at " << cut;
    ASSERT_TRUE(peer_.WaitUntilTaken());
    ASSERT_TRUE(peer_.SendBytes(second.substr(cut)));
    ASSERT_EQ(peer_.ReadFrame(), Pong(2)) << "cut at " << cut;
  }
}

TEST_P(ServerFrames, AFrameAndAHalfThenAHalfAndAFrameAreThreeFrames) {
  const std::string second = Frame(Ping(2));
  ASSERT_TRUE(peer_.SendBytes(Frame(Ping(1)) + second.substr(0, second.size() / 2)));
  ASSERT_TRUE(peer_.WaitUntilTaken());
  ASSERT_TRUE(peer_.SendBytes(second.substr(second.size() / 2) + Frame(Ping(3))));
  for (int threadid = 1; threadid <= 3; ++threadid)
    EXPECT_EQ(peer_.ReadFrame(), Pong(threadid));
  EXPECT_TRUE(peer_.AnswersInOrder());
}

// A chunk that is one whole frame is looked at before what is pending: it overtakes an unfinished frame, which stays.
TEST_P(ServerFrames, AChunkThatIsOneWholeFrameOvertakesAPendingPart) {
  const std::string first = Frame(Ping(1));
  ASSERT_TRUE(peer_.SendBytes(first.substr(0, first.size() / 2)));
  ASSERT_TRUE(peer_.WaitUntilTaken());
  ASSERT_TRUE(peer_.SendFrame(Ping(2)));
  EXPECT_EQ(peer_.ReadFrame(), Pong(2));
  ASSERT_TRUE(peer_.WaitUntilTaken());
  ASSERT_TRUE(peer_.SendBytes(first.substr(first.size() / 2)));
  EXPECT_EQ(peer_.ReadFrame(), Pong(1));
  EXPECT_TRUE(peer_.AnswersInOrder());
}

TEST_P(ServerFrames, AnEmptyFrameIsReportedAndNotAnswered) {
  StdoutCapture output;
  ASSERT_TRUE(peer_.SendBytes(std::string(4, '\0')));
  EXPECT_TRUE(peer_.AnswersInOrder());
  EXPECT_EQ(output.Count("event empty!\n"), 1);
}

TEST_P(ServerFrames, ASetWithoutANameIsReportedAndNotAnswered) {
  StdoutCapture output;
  ASSERT_TRUE(peer_.SendFrame(Wire().Int(5).KeyInt("s_c_sw_threadid", 9).KeyString("name", "note")));
  EXPECT_TRUE(peer_.AnswersInOrder());
  EXPECT_EQ(output.Count("event empty!\n"), 1);
  EXPECT_EQ(noted_.lines(), Lines{});
}

TEST_P(ServerFrames, AnUndecodablePayloadWithoutANameIsReportedAndNotAnswered) {
  StdoutCapture output;
  ASSERT_TRUE(peer_.SendFrame("\x08 this is no encoding"));
  ASSERT_TRUE(peer_.SendFrame(Wire().Int(1).Raw("\x09").KeyString("s_c_sw_name", "note")));
  EXPECT_TRUE(peer_.AnswersInOrder());
  EXPECT_EQ(output.Count("event empty!\n"), 2);
  EXPECT_EQ(noted_.lines(), Lines{});
}

TEST_P(ServerFrames, WhatWasDecodedBeforeGarbageIsServed) {
  const auto reply = peer_.Exchange(
      Wire().KeyString("s_c_sw_name", "note").KeyInt("s_c_sw_threadid", 9).Raw("\x0F").KeyString("s_c_sw_semid", "x"));
  EXPECT_EQ(reply, ServerReply(Wire().Int(1), 9, std::nullopt));
  EXPECT_EQ(noted_.lines(), Lines{"nothing"});
}

TEST_P(ServerFrames, ANegativeLengthEndsThatConnectionOnly) {
  Journal journal;
  TestServer server(GetParam());
  server.On("s_c_closed", [&](int, MIVOParams*, MIVOParams*) { journal.Add("closed"); });
  ASSERT_TRUE(server.Init());
  StdoutCapture output;
  RawPeer other = server.Connect();
  ASSERT_TRUE(other.AnswersInOrder());
  const std::vector<std::string> headers{LittleEndian(-1), LittleEndian(-5), LittleEndian(-2147483647 - 1),
                                         LittleEndian(-1) + Frame(Ping(1)), Frame(Ping(1)) + LittleEndian(-1)};
  for (std::size_t i = 0; i < headers.size(); ++i) {
    RawPeer peer = server.Connect();
    ASSERT_TRUE(peer.SendBytes(headers[i]));
    if (i == 4) {
      EXPECT_EQ(peer.ReadFrame(), Pong(1));
    }
    EXPECT_TRUE(peer.ReadEof()) << Hex(headers[i]);
    // It ends as any connection ends.
    EXPECT_TRUE(journal.WaitFor("closed", static_cast<int>(i) + 1));
    EXPECT_TRUE(output.WaitFor("Client Close: ", static_cast<int>(i) + 1));
  }
  EXPECT_TRUE(other.AnswersInOrder());
  EXPECT_FALSE(output.Contains("Read error"));
  EXPECT_EQ(journal.CountOf("closed"), static_cast<int>(headers.size()));
}

TEST_P(ServerFrames, ANegativeLengthIsSeenWhereverTheHeaderIsCut) {
  for (std::size_t cut = 1; cut < 4; ++cut) {
    RawPeer peer = server_.Connect();
    ASSERT_TRUE(peer.SendBytes(LittleEndian(-2).substr(0, cut)));
    ASSERT_TRUE(peer.WaitUntilTaken());
    EXPECT_TRUE(peer.ExpectSilence(kMoment)) << "a cut header is no error";
    ASSERT_TRUE(peer.SendBytes(LittleEndian(-2).substr(cut)));
    EXPECT_TRUE(peer.ReadEof());
  }
}

TEST_P(ServerFrames, AnAnnouncedLengthCostsNoMemory) {
  constexpr int kConnections = 20;
  ASSERT_TRUE(peer_.AnswersInOrder());
  const long before = MappedBytes();
  std::vector<RawPeer> peers;
  for (int i = 0; i < kConnections; ++i) {
    peers.push_back(server_.Connect());
    ASSERT_TRUE(peers.back().SendBytes(LittleEndian(0x7FFFFFFF) + "some"));
    ASSERT_TRUE(peers.back().WaitUntilTaken());
  }
  ASSERT_TRUE(peer_.AnswersInOrder());
  EXPECT_LT(MappedBytes() - before, 1L << 30);
  for (RawPeer& peer : peers) {
    EXPECT_TRUE(peer.ExpectSilence(std::chrono::milliseconds(0)));
    peer.Close();
  }
  EXPECT_TRUE(peer_.AnswersInOrder());
}

TEST_P(ServerFrames, DeliversAFrameOfTenMegabytes) {
  constexpr std::size_t kSize = 10 * 1024 * 1024;
  TestServer server(GetParam());
  server.On("swap", [](int, MIVOParams* request, MIVOParams* reply) {
    MIVOValue* const value = request->GetValue(0);
    if (value == nullptr || !value->IsStream()) return;
    long length = 0;
    const char* const bytes = value->GetStream(length);
    const std::string swapped(bytes + length / 2, bytes + length);
    const std::string all = swapped + std::string(bytes, bytes + length / 2);
    reply->AddStream(all.data(), static_cast<long>(all.size()));
  });
  ASSERT_TRUE(server.Init());
  RawPeer peer = server.Connect();
  std::string bytes(kSize / 2, 'a');
  bytes.append(kSize / 2, 'b');
  const auto reply = peer.Exchange(Request({"swap", 3, Wire().Stream(bytes).bytes()}));
  ASSERT_TRUE(reply.has_value());
  const std::string swapped = bytes.substr(kSize / 2) + bytes.substr(0, kSize / 2);
  EXPECT_TRUE(*reply == ServerReply(Wire().Stream(swapped), 3, std::nullopt));
}

TEST_P(ServerFrames, AWriteThatFailsFourTimesIsDroppedAndTheConnectionStays) {
  ASSERT_TRUE(peer_.AnswersInOrder());
  StdoutCapture output;
  ScopedFault fault(Fault::kSendCall, 1, 4, UV_ENOBUFS);
  ASSERT_TRUE(peer_.SendFrame(Ping(1)));
  EXPECT_TRUE(output.WaitFor("write error\n"));
  EXPECT_EQ(fault.calls(), 4);
  const auto times = fault.times();
  ASSERT_EQ(times.size(), 4u);
  for (std::size_t i = 1; i < times.size(); ++i) {
    EXPECT_GE(times[i] - times[i - 1], std::chrono::milliseconds(1)) << "between tries " << i << " and " << i + 1;
  }
  EXPECT_EQ(peer_.Exchange(Ping(2)), Pong(2));
  EXPECT_EQ(output.Count("write error\n"), 1);
}

TEST_P(ServerFrames, TheReplyOfAHandlerThatCannotBeWrittenIsDroppedAndTheConnectionStays) {
  ASSERT_TRUE(peer_.AnswersInOrder());
  StdoutCapture output;
  ScopedFault fault(Fault::kSendCall, 1, 4, UV_ENOBUFS);
  ASSERT_TRUE(peer_.SendFrame(Note(1, 1)));
  EXPECT_TRUE(output.WaitFor("write error\n"));
  EXPECT_EQ(peer_.Exchange(Note(2, 2)), ServerReply(Wire().Int(2), 2, std::nullopt));
  EXPECT_EQ(output.Count("write error\n"), 1);
}

TEST_P(ServerFrames, AWriteThatFailsUpToThreeTimesArrives) {
  ASSERT_TRUE(peer_.AnswersInOrder());
  StdoutCapture output;
  for (int failures = 1; failures <= 3; ++failures) {
    ScopedFault fault(Fault::kSendCall, 1, failures, UV_ENOBUFS);
    EXPECT_EQ(peer_.Exchange(Ping(failures)), Pong(failures));
    const auto times = fault.times();
    ASSERT_EQ(times.size(), static_cast<std::size_t>(failures) + 1);
    EXPECT_GE(times.back() - times.front(), std::chrono::milliseconds(failures));
  }
  EXPECT_FALSE(output.Contains("rite error"));
}

TEST_P(ServerFrames, AWriteThatFailsLaterIsReportedWithItsReason) {
  TestServer server(GetParam());
  server.On("much", [](int, MIVOParams*, MIVOParams* reply) {
    const std::string bytes(32 * 1024 * 1024, 'x');
    reply->AddStream(bytes.data(), static_cast<long>(bytes.size()));
  });
  ASSERT_TRUE(server.Init());
  StdoutCapture output;
  RawPeer peer = server.Connect();
  ASSERT_TRUE(peer.SendFrame(Request({"much", 1})));
  // The reply has begun and does not fit into the kernel: it is queued when the reader goes.
  ASSERT_TRUE(peer.ReadBytes(1000).has_value());
  peer.Reset();
  EXPECT_TRUE(output.WaitFor("Write error: "));
  EXPECT_TRUE(output.WaitFor("Client Close: "));
  const std::string printed = output.Text();
  bool known = false;
  for (const int reason : {UV_EPIPE, UV_ECONNRESET, UV_ECANCELED}) {
    if (printed.find(std::string("Write error: ") + uv_strerror(reason) + "\n") != std::string::npos) known = true;
  }
  EXPECT_TRUE(known) << printed;
  EXPECT_TRUE(server.Connect().AnswersInOrder());
}

// The notice of a new connection holds the loop until the peer has sent its requests and gone; the answers then meet a
// connection whose other end is closed, before the loop has seen its end.
TEST_P(ServerFrames, AnsweringAPeerThatIsGoneKillsNobody) {
  Event gone;
  TestServer server(GetParam());
  server.On("s_c_connect", [&](int, MIVOParams*, MIVOParams*) { gone.WaitFor(); });
  ASSERT_TRUE(server.Init());
  struct sigaction as_usual {};
  as_usual.sa_handler = SIG_DFL;
  struct sigaction before {};
  ASSERT_EQ(sigaction(SIGPIPE, &as_usual, &before), 0);

  RawPeer peer = server.Connect();
  std::string requests;
  for (int i = 0; i < 500; ++i)
    requests += Frame(Ping(i));
  ASSERT_TRUE(peer.SendBytes(requests));
  peer.Close();
  gone.Signal();
  EXPECT_TRUE(server.Connect().AnswersInOrder());

  struct sigaction after {};
  ASSERT_EQ(sigaction(SIGPIPE, &before, &after), 0);
  EXPECT_EQ(after.sa_handler, SIG_DFL) << "the disposition is the program's";
}

// The same with the loop on a thread of the program's, which it has back as it was.
TEST_P(ServerFrames, RunKillsNobodyAndLeavesTheSignalMaskAlone) {
  Event gone;
  TestServer server(GetParam());
  server.On("s_c_connect", [&](int, MIVOParams*, MIVOParams*) { gone.WaitFor(); });
  ASSERT_TRUE(server.Start());
  bool pending = true;
  bool blocked_after = true;
  std::thread runner([&] {
    server->run();
    sigset_t signals;
    sigpending(&signals);
    pending = sigismember(&signals, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, nullptr, &signals);
    blocked_after = sigismember(&signals, SIGPIPE) == 1;
  });
  RawPeer peer = server.Connect();
  std::string requests;
  for (int i = 0; i < 500; ++i)
    requests += Frame(Ping(i));
  ASSERT_TRUE(peer.SendBytes(requests));
  peer.Close();
  gone.Signal();
  EXPECT_TRUE(server.Connect().AnswersInOrder());
  server->closeasync();
  runner.join();
  EXPECT_FALSE(pending);
  EXPECT_FALSE(blocked_after);
}

TEST_P(ServerFrames, HandsOffOfOneThreadLeaveInOrder) {
  constexpr int kPosts = 300;
  TestServer server(GetParam());
  server.On("burst", [&](int client_id, MIVOParams*, MIVOParams*) {
    for (int i = 0; i < kPosts; ++i) {
      MIVOParams params;
      params.AddInt(i);
      server->PostMsg(client_id, "tick", &params, 5);
    }
  });
  ASSERT_TRUE(server.Init());
  RawPeer peer = server.Connect();
  ASSERT_TRUE(peer.SendFrame(Request({"burst", 1})));
  for (int i = 0; i < kPosts; ++i) {
    ASSERT_EQ(peer.ReadFrame(), Request({"tick", 5, Wire().Int(i).bytes()})) << i;
  }
  EXPECT_EQ(peer.ReadFrame(), ServerReply("", 1, std::nullopt));
}

// Notices have handlers, and are handlers only: no peer hears of them, nor of the key of local error sets.
TEST_P(ServerFrames, NoNoticeAndNoErrorSetIsEverSent) {
  Journal journal;
  TestServer server(GetParam());
  for (const char* notice : {"s_c_connect", "s_c_closed", "s_c_createport"}) {
    server.On(notice, [&journal, notice](int, MIVOParams*, MIVOParams*) { journal.Add(notice); });
  }
  ASSERT_TRUE(server.Init());
  RawPeer watching = server.Connect();
  ASSERT_TRUE(watching.AnswersInOrder());
  RawPeer other = server.Connect();
  ASSERT_TRUE(other.AnswersInOrder());
  other.Close();
  ASSERT_TRUE(journal.WaitFor("s_c_closed"));
  EXPECT_TRUE(watching.AnswersInOrder());
  server.Destroy();
  EXPECT_TRUE(watching.ReadEof());
  EXPECT_EQ(journal.CountOf("s_c_createport"), 1);
  EXPECT_EQ(journal.CountOf("s_c_connect"), 2);
}

}  // namespace
