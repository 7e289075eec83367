#include <mivo/mivo.h>

#include "support/event.h"
#include "support/journal.h"
#include "support/raw_client.h"
#include "support/stdout_capture.h"
#include "support/test_server.h"
#include "support/transport.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace mivo_test;

namespace {

// `log` takes its text writable.
int Log(IServer* server, std::string text, int level) {
  return server->log(text.data(), level);
}

std::string StartLine(const Address& address) {
  const char* const kind = address.transport == Transport::Local ? "Pipe " : "Tcp ";
  return std::string(kind) + kBanner + " port:" + address.name + "\n";
}

// A sink that writes down what it gets. The server never deletes it.
class JournalSink : public IServerMethod {
 public:
  explicit JournalSink(Journal* journal) : journal_(journal) {}

  void OnCall(int client_id, MIVOParams* request, MIVOParams* reply) override {
    if (client_id != 0 || reply != nullptr || request == nullptr || request->ParamsSize() != 1 ||
        request->MapSize() != 0 || !request->GetValue(0)->IsString()) {
      journal_->Add("a sink call of another shape");
      return;
    }
    journal_->Add(request->GetValue(0)->GetString());
  }

 private:
  Journal* const journal_;
};

class ServerDiagnostics : public testing::TestWithParam<Transport> {
 protected:
  TestServer server_{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, ServerDiagnostics, kEveryTransport, TransportName);

TEST_P(ServerDiagnostics, ANewServerPrintsItsDebugLines) {
  StdoutCapture output;
  ASSERT_TRUE(server_.Init());
  const std::string started = StartLine(server_.address()) + ChownRemark(GetParam());
  EXPECT_EQ(output.Text(), started);
  EXPECT_TRUE(server_->close());
  EXPECT_EQ(output.Text(), started + "Server Closing!\nServer Closed!\n");
}

// Nothing is flushed by the test: the text has reached the descriptor, which is no terminal, by the library alone.
TEST_P(ServerDiagnostics, ALineIsVisibleInAPipeAtOnce) {
  StdoutCapture output;
  ASSERT_TRUE(server_.Init());
  EXPECT_TRUE(output.Contains(StartLine(server_.address())));
  RawPeer peer = server_.Connect();
  EXPECT_TRUE(output.WaitFor("Accept success: "));
}

TEST_P(ServerDiagnostics, LevelZeroSilencesTheDebugLines) {
  StdoutCapture output;
  EXPECT_EQ(Log(server_.get(), "", 0), 0);
  ASSERT_TRUE(server_.Init());
  RawPeer peer = server_.Connect();
  ASSERT_TRUE(peer.AnswersInOrder());
  peer.Close();
  ASSERT_TRUE(Eventually([&] { return server_->GetClientCount() == 1; }));
  server_->closeasync();
  server_->closeasync();
  server_.Destroy();
  EXPECT_EQ(output.Text(), ChownRemark(GetParam()));
}

TEST_P(ServerDiagnostics, ANegativeLevelSilencesTheDebugLines) {
  StdoutCapture output;
  Log(server_.get(), "some text", -3);
  ASSERT_TRUE(server_.Init());
  server_.Destroy();
  EXPECT_EQ(output.Text(), ChownRemark(GetParam()));
}

TEST_P(ServerDiagnostics, APositiveLevelBringsTheDebugLinesBack) {
  StdoutCapture output;
  EXPECT_EQ(Log(server_.get(), "", 0), 0);
  EXPECT_EQ(Log(server_.get(), "some text", 1), 1);
  ASSERT_TRUE(server_.Init());
  EXPECT_EQ(output.Text(), StartLine(server_.address()) + ChownRemark(GetParam()));
  EXPECT_EQ(Log(server_.get(), "", -1), 0);
  EXPECT_EQ(Log(server_.get(), "", 2), 0);
  server_->close();
  EXPECT_TRUE(output.Contains("Server Closed!\n"));
  EXPECT_FALSE(output.Contains("some text"));
}

TEST_P(ServerDiagnostics, ErrorLinesAppearAtLevelZero) {
  StdoutCapture output;
  Log(server_.get(), "", 0);
  EXPECT_EQ(server_->SendMsg(1, "name", nullptr, 0, 10), nullptr);
  EXPECT_EQ(server_->PostMsg(1, "name", nullptr, 0), 0);
  EXPECT_EQ(output.Text(), "send msg: disconnect... .. .\nsend msg: disconnect... .. .\n");
}

TEST_P(ServerDiagnostics, AReadErrorAppearsAtLevelZero) {
  StdoutCapture output;
  Log(server_.get(), "", 0);
  ASSERT_TRUE(server_.Init());
  RawPeer peer = server_.Connect();
  ASSERT_TRUE(peer.SendFrame(Request({"s_c_close_server", 1})));
  // On the local transport it is the unread answer that turns the end into a reset.
  ASSERT_TRUE(peer.WaitReadable());
  peer.Reset();
  EXPECT_TRUE(output.WaitFor("Read error ECONNRESET\n"));
  server_.Destroy();
  EXPECT_EQ(output.Text(), ChownRemark(GetParam()) + "Read error ECONNRESET\n");
}

TEST_P(ServerDiagnostics, DirectLinesAppearAtLevelZero) {
  StdoutCapture output;
  Log(server_.get(), "", 0);
  ASSERT_TRUE(server_.Init());
  RawPeer peer = server_.Connect();
  ASSERT_TRUE(peer.SendFrame(""));
  ASSERT_TRUE(peer.AnswersInOrder());
  EXPECT_EQ(output.Text(), ChownRemark(GetParam()) + "event empty!\n");
}

TEST_P(ServerDiagnostics, ASinkReceivesEveryLineInPlaceOfStandardOutput) {
  Journal journal;
  JournalSink sink(&journal);
  server_->method("s_c_log", &sink);
  StdoutCapture output;
  ASSERT_TRUE(server_.Init());
  EXPECT_EQ(journal.lines(), Lines{StartLine(server_.address())});
  RawPeer peer = server_.Connect();
  ASSERT_TRUE(peer.AnswersInOrder());
  EXPECT_EQ(journal.CountOf("Accept success: "), 1);
  peer.Close();
  EXPECT_TRUE(journal.WaitFor("Client Close: "));
  EXPECT_TRUE(server_->close());
  server_->closeasync();
  const Lines lines = journal.lines();
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_EQ(lines[3], "Server Closing!\n");
  EXPECT_EQ(lines[4], "Server Closed!\n");
  EXPECT_EQ(lines[5], "server closeasync\n");
  EXPECT_EQ(server_->SendMsg(1, "name", nullptr, 0, 10), nullptr);
  EXPECT_EQ(journal.lines().back(), "send msg: disconnect... .. .\n");
  server_.Destroy();
  EXPECT_EQ(output.Text(), ChownRemark(GetParam()));
}

TEST_P(ServerDiagnostics, ASinkAtLevelZeroReceivesErrorLinesOnly) {
  Journal journal;
  JournalSink sink(&journal);
  server_->method("s_c_log", &sink);
  Log(server_.get(), "", 0);
  server_->closeasync();
  EXPECT_EQ(journal.lines(), Lines{});
  server_->PostMsg(1, "name", nullptr, 0);
  EXPECT_EQ(journal.lines(), Lines{"send msg: disconnect... .. .\n"});
}

TEST_P(ServerDiagnostics, ANullSinkBringsTheLinesBackToStandardOutput) {
  Journal journal;
  JournalSink sink(&journal);
  server_->method("s_c_log", &sink);
  server_->method("s_c_log", nullptr);
  StdoutCapture output;
  server_->closeasync();
  EXPECT_EQ(output.Text(), "server closeasync\n");
  EXPECT_EQ(journal.lines(), Lines{});
}

TEST_P(ServerDiagnostics, ASinkMayUseTheServerItServes) {
  // Each line causes others: they go anywhere but round in circles.
  struct Talkative : IServerMethod {
    void OnCall(int, MIVOParams*, MIVOParams*) override {
      ++calls;
      server->GetClientCount();
      server->isok();
      server->PostMsg(12345, "name", nullptr, 0);
      if (!server->isok()) server->closeasync();
    }
    IServer* server = nullptr;
    std::atomic<int> calls{0};
  } sink;
  sink.server = server_.get();
  server_->method("s_c_log", &sink);
  server_->closeasync();
  EXPECT_EQ(sink.calls, 1);
  ASSERT_TRUE(server_.Init());
  RawPeer peer = server_.Connect();
  EXPECT_TRUE(peer.AnswersInOrder());
  server_.Destroy();
  EXPECT_GE(sink.calls, 5);
  EXPECT_LE(sink.calls, 8);
}

TEST_P(ServerDiagnostics, AThrowingHandlerIsReportedAndItsReplyCompleted) {
  server_.On("fragile", [](int, MIVOParams*, MIVOParams* reply) {
    reply->AddInt(1);
    throw std::runtime_error("out of eggs");
  });
  server_.On("strange", [](int, MIVOParams*, MIVOParams*) { throw 5; });
  StdoutCapture output;
  Log(server_.get(), "", 0);
  ASSERT_TRUE(server_.Init());
  RawPeer peer = server_.Connect();
  EXPECT_EQ(peer.Exchange(Request({"fragile", 9, std::nullopt, "0xab"})), ServerReply(Wire().Int(1), 9, "0xab"));
  EXPECT_TRUE(output.Contains("fragile"));
  EXPECT_TRUE(output.Contains("out of eggs"));
  EXPECT_EQ(peer.Exchange(Request({"strange", 9})), ServerReply("", 9, std::nullopt));
  EXPECT_TRUE(output.Contains("strange"));
  EXPECT_TRUE(peer.AnswersInOrder());
}

TEST_P(ServerDiagnostics, AThrowingCatchAllIsReportedAndItsReplyCompleted) {
  server_.OnEveryOther([](const char*, int, MIVOParams*, MIVOParams* reply) {
    reply->AddBool(true);
    throw std::runtime_error("out of milk");
  });
  StdoutCapture output;
  ASSERT_TRUE(server_.Init());
  RawPeer peer = server_.Connect();
  const auto reply = peer.Exchange(Request({"anything", 9}));
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(Describe(*reply).front(), "true");
  EXPECT_EQ(TextOf(*reply, "s_c_sw_name"), "retval");
  EXPECT_TRUE(output.Contains("out of milk"));
  EXPECT_TRUE(output.Contains("anything"));
}

TEST_P(ServerDiagnostics, AThrowingNoticeLeavesTheServerServing) {
  for (const char* notice : {"s_c_connect", "s_c_closed", "s_c_createport"}) {
    server_.On(notice, [notice](int, MIVOParams*, MIVOParams*) {
      throw std::runtime_error(std::string("from ") + notice + " with love");
    });
  }
  StdoutCapture output;
  ASSERT_TRUE(server_.Init());
  RawPeer peer = server_.Connect();
  EXPECT_TRUE(peer.AnswersInOrder());
  peer.Close();
  EXPECT_TRUE(output.WaitFor("Client Close: "));
  for (const char* notice : {"s_c_connect", "s_c_closed", "s_c_createport"}) {
    EXPECT_TRUE(output.Contains(std::string("from ") + notice + " with love"));
  }
  EXPECT_TRUE(server_.Connect().AnswersInOrder());
}

TEST_P(ServerDiagnostics, AThrowingSinkHurtsNobody) {
  struct Fragile : IServerMethod {
    void OnCall(int, MIVOParams*, MIVOParams*) override {
      ++calls;
      throw std::runtime_error("no paper");
    }
    std::atomic<int> calls{0};
  } sink;
  server_->method("s_c_log", &sink);
  ASSERT_TRUE(server_.Init());
  EXPECT_TRUE(server_.Connect().AnswersInOrder());
  server_.Destroy();
  EXPECT_GE(sink.calls, 4);
}

TEST(ServerLog, TakesANullTextAsEmpty) {
  TestServer server(Transport::Local);
  StdoutCapture output;
  EXPECT_EQ(server->log(nullptr, 0), 0);
  server->closeasync();
  EXPECT_EQ(output.Text(), "");
  EXPECT_EQ(server->log(nullptr, 1), 0);
  server->closeasync();
  EXPECT_EQ(output.Text(), "server closeasync\n");
}

TEST(ServerLog, SwitchesTheSynchronisationOfTheStandardStreamsOff) {
  TestServer server(Transport::Local);
  Log(server.get(), "x", 1);
  EXPECT_FALSE(std::ios_base::sync_with_stdio(true));
}

TEST(ServerLog, LevelsAreKeptPerServer) {
  TestServer loud(Transport::Local);
  TestServer quiet(Transport::Local);
  Log(quiet.get(), "", 0);
  StdoutCapture output;
  ASSERT_TRUE(loud.Init());
  ASSERT_TRUE(quiet.Init());
  const std::string remark = ChownRemark(Transport::Local);
  EXPECT_EQ(output.Text(), StartLine(loud.address()) + remark + remark);
}

TEST(ServerLog, SinksAreKeptPerServer) {
  Journal journal;
  JournalSink sink(&journal);
  TestServer recorded(Transport::Local);
  TestServer plain(Transport::Local);
  recorded->method("s_c_log", &sink);
  StdoutCapture output;
  ASSERT_TRUE(recorded.Init());
  ASSERT_TRUE(plain.Init());
  const std::string remark = ChownRemark(Transport::Local);
  EXPECT_EQ(output.Text(), remark + StartLine(plain.address()) + remark);
  EXPECT_EQ(journal.lines(), Lines{StartLine(recorded.address())});
}

TEST(ServerLog, CutsALineToAThousandAndTwentyThreeCharacters) {
  const std::string name(2000, 'n');
  const std::string line = ("Pipe " + std::string(kBanner) + " port:" + name).substr(0, 1023);
  {
    TestServer server(Transport::Local);
    StdoutCapture output;
    EXPECT_FALSE(server->StartMIVOServer(name.c_str()));
    EXPECT_EQ(output.Text(), line + "Bind error: ENAMETOOLONG\n");
  }
  Journal journal;
  JournalSink sink(&journal);
  TestServer server(Transport::Local);
  server->method("s_c_log", &sink);
  EXPECT_FALSE(server->StartMIVOServer(name.c_str()));
  EXPECT_EQ(journal.lines(), (Lines{line, "Bind error: ENAMETOOLONG\n"}));
}

TEST(ServerLog, DoesNotCutALineOfExactlyAThousandAndTwentyThreeCharacters) {
  const std::string beginning = "Pipe " + std::string(kBanner) + " port:";
  const std::string name(1023 - beginning.size() - 1, 'n');
  TestServer server(Transport::Local);
  StdoutCapture output;
  EXPECT_FALSE(server->StartMIVOServer(name.c_str()));
  EXPECT_EQ(output.Text(), beginning + name + "\nBind error: ENAMETOOLONG\n");
}

TEST(ServerLog, PrintsPercentSignsAsTheyAre) {
  const std::string name = "%s%n%d" + UniqueSocketName();
  TestServer server(Transport::Local);
  StdoutCapture output;
  ASSERT_TRUE(server->StartMIVOServer(name.c_str()));
  EXPECT_EQ(output.Text(), "Pipe " + std::string(kBanner) + " port:" + name + "\n" + ChownRemark(Transport::Local));
}

TEST(ServerLog, LinesOfSeveralThreadsStayWhole) {
  constexpr int kThreads = 8;
  constexpr int kLines = 400;
  const std::string line = "send msg: disconnect... .. .\n";
  StdoutCapture output;
  std::vector<std::unique_ptr<TestServer>> servers;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i)
    servers.push_back(std::make_unique<TestServer>(Transport::Local));
  for (const auto& server : servers) {
    threads.emplace_back([&server] {
      for (int i = 0; i < kLines; ++i)
        (*server)->PostMsg(1, "name", nullptr, 0);
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  const std::string text = output.Text();
  EXPECT_EQ(text.size(), line.size() * kThreads * kLines);
  EXPECT_EQ(output.Count(line), kThreads * kLines);
}

}  // namespace
