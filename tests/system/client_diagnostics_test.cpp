#include <mivo/mivo.h>

#include "support/event.h"
#include "support/raw_server.h"
#include "support/stdout_capture.h"
#include "support/test_client.h"
#include "support/test_server.h"
#include "support/transport.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <iostream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace mivo_test;

namespace {

class ClientDiagnostics : public testing::TestWithParam<Transport> {
 protected:
  // Everything that one life prints: connected, left by the server, closed.
  std::string LinesOfALife(IClient* client) {
    RawServer server(GetParam());
    StdoutCapture output;
    {
      RawPeer peer = InitAgainst(client, server);
      EXPECT_TRUE(peer.connected());
      EXPECT_TRUE(GetParam() == Transport::Local || output.WaitFor("run\n"));
    }
    EXPECT_TRUE(Eventually([&] { return !client->isok(); }));
    client->close();
    return output.Text();
  }

  std::string DirectLines() const { return GetParam() == Transport::Local ? "" : "run\nrun out\n"; }

  static bool HasDebugLines(const std::string& lines) {
    int found = 0;
    for (const char* line : {"MIVO Version", "connected: ", "Check Server Version: \n", "Server Closed: ", "Closing!\n",
                             "Client Closing waiting thread!\n", "async_closeing Client!\n", "closeClient!\n",
                             "async_closed Client!\n", "Closed!\n"}) {
      found += lines.find(line) != std::string::npos ? 1 : 0;
    }
    EXPECT_TRUE(found == 0 || found == 10) << lines;
    return found == 10;
  }
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, ClientDiagnostics, kEveryTransport, TransportName);

TEST_P(ClientDiagnostics, AFreshClientPrintsItsDebugLines) {
  TestClient client;
  EXPECT_TRUE(HasDebugLines(LinesOfALife(client.get())));
}

TEST_P(ClientDiagnostics, LevelZeroAndBelowPrintNoDebugLines) {
  for (const int level : {0, -1, -1000}) {
    TestClient client;
    EXPECT_EQ(SetLog(client.get(), "", level), 0);
    EXPECT_EQ(LinesOfALife(client.get()), DirectLines());
  }
}

TEST_P(ClientDiagnostics, TheLinesCanBeTurnedOnAgain) {
  TestClient client;
  EXPECT_EQ(SetLog(client.get(), "", 0), 0);
  EXPECT_FALSE(HasDebugLines(LinesOfALife(client.get())));
  EXPECT_EQ(SetLog(client.get(), "on", 1), 1);
  EXPECT_TRUE(HasDebugLines(LinesOfALife(client.get())));
  EXPECT_EQ(SetLog(client.get(), "off", 0), 1);
  EXPECT_FALSE(HasDebugLines(LinesOfALife(client.get())));
  EXPECT_EQ(SetLog(client.get(), "", 1), 0);
  EXPECT_TRUE(HasDebugLines(LinesOfALife(client.get())));
}

TEST_P(ClientDiagnostics, TheLogTextIsNeverPrinted) {
  TestClient client;
  {
    StdoutCapture output;
    EXPECT_EQ(SetLog(client.get(), "a text of its own", 1), 1);
    EXPECT_EQ(output.Text(), "");
  }
  EXPECT_EQ(LinesOfALife(client.get()).find("a text of its own"), std::string::npos);
}

TEST_P(ClientDiagnostics, EachClientHasALevelOfItsOwn) {
  TestClient quiet;
  TestClient loud;
  SetLog(quiet.get(), "", 0);
  EXPECT_TRUE(HasDebugLines(LinesOfALife(loud.get())));
  EXPECT_FALSE(HasDebugLines(LinesOfALife(quiet.get())));
}

TEST(ClientLog, NoTextIsAnEmptyText) {
  TestClient client;
  EXPECT_EQ(client->log(nullptr, 0), 0);
  StdoutCapture output;
  client->close();
  EXPECT_EQ(output.Text(), "");
}

TEST(ClientLog, ErrorsAndDirectLinesAreLeftAtLevelZero) {
  TestClient client;
  SetLog(client.get(), "", 0);
  StdoutCapture output;
  EXPECT_EQ(client->PostMsg("foo", nullptr, 0), 0);
  EXPECT_EQ(output.Text(), "send msg: disconnect... .. .\n");
  EXPECT_EQ(client->PostMsgFast("foo", nullptr, 0), 0);
  EXPECT_EQ(output.Count("send msg: disconnect... .. .\n"), 2);
  const std::size_t before = output.Size();
  EXPECT_EQ(TakeError(client->SendMsg("foo", nullptr, 0, 0)), -1000);
  EXPECT_EQ(output.TextFrom(before), "SendMsg end: IsOk Flase\nsend msg: disconnect... .. .\n");
}

TEST(ClientLog, ALargeCallWithoutAConnectionSaysSo) {
  TestClient client;
  SetLog(client.get(), "", 0);
  MIVOParams params;
  params.AddInt(7);
  StdoutCapture output;
  EXPECT_EQ(TakeError(client->SendMsgEx("foo", &params, 0, 0)), -1000);
  EXPECT_EQ(output.Text(), "sendmsgex: disconnect... .. .\n");
  EXPECT_EQ(params.Size(), 9) << "nothing was sent, nothing was taken";
}

TEST_P(ClientDiagnostics, AnEmptyEventIsSaidAtLevelZero) {
  RawServer server(GetParam());
  TestClient client;
  SetLog(client.get(), "", 0);
  RawPeer peer = client.InitAgainst(server);
  StdoutCapture output;
  ASSERT_TRUE(peer.SendFrame(""));
  EXPECT_TRUE(output.WaitFor("event empty!\n"));
}

TEST(ClientLog, SeparatesTheStandardStreamsFromStdio) {
  TestClient client;
  std::ios_base::sync_with_stdio(true);
  SetLog(client.get(), "", 1);
  EXPECT_FALSE(std::ios_base::sync_with_stdio(false));
}

TEST(ClientLog, ALineIsCutAtAThousandAndTwentyThreeCharacters) {
  const std::string banner = "MIVO Version: 1.1.0.12\n";
  const std::string begin = "cant connect: ";
  for (const std::size_t length :
       {std::size_t{1000}, 1023 - begin.size() - 2, 1023 - begin.size() - 1, std::size_t{3000}}) {
    const std::string name(length, 'n');
    TestClient client;
    StdoutCapture output;
    EXPECT_FALSE(client->InitMIVOClient(name.c_str(), true));
    EXPECT_EQ(output.Text(), banner + (begin + name + " \n").substr(0, 1023));
  }
}

TEST(ClientLog, PercentSignsOfANameAreTextLikeAnyOther) {
  TestClient client;
  StdoutCapture output;
  const std::string name = "%s%n%d%%-" + UniqueSocketName();
  EXPECT_FALSE(client->InitMIVOClient(name.c_str(), true));
  EXPECT_EQ(output.Text(), "MIVO Version: 1.1.0.12\ncant connect: " + name + " \n");
}

TEST(ClientLog, LinesOfSeveralClientsStayWhole) {
  constexpr int kClients = 4;
  constexpr int kRounds = 25;
  const std::string name = UniqueSocketName() + std::string(60, '-');
  StdoutCapture output;
  std::vector<std::thread> threads;
  for (int i = 0; i < kClients; ++i) {
    threads.emplace_back([&, i] {
      TestClient client;
      const std::string own = name.substr(0, name.size() - static_cast<std::size_t>(i)) + std::to_string(i);
      for (int round = 0; round < kRounds; ++round) {
        EXPECT_FALSE(client->InitMIVOClient(own.c_str(), true));
        EXPECT_EQ(TakeError(client->SendMsgFast("foo", nullptr, 0, 0)), -1000);
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  std::set<std::string> kinds;
  int count = 0;
  std::istringstream lines(output.Text());
  for (std::string line; std::getline(lines, line); ++count)
    kinds.insert(line);
  EXPECT_EQ(count, kClients * (kRounds * 4 + 2));
  std::set<std::string> expected = {"MIVO Version: 1.1.0.12", "SendMsg end: IsOk Flase", "send msg: disconnect... .. .",
                                    "Closing!", "Closed!"};
  for (int i = 0; i < kClients; ++i)
    expected.insert("cant connect: " + name.substr(0, name.size() - static_cast<std::size_t>(i)) + std::to_string(i) +
                    " ");
  EXPECT_EQ(kinds, expected);
}

}  // namespace
