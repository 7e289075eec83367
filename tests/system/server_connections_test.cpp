#include <mivo/mivo.h>

#include "support/event.h"
#include "support/journal.h"
#include "support/raw_client.h"
#include "support/stdout_capture.h"
#include "support/teardown.h"
#include "support/test_server.h"
#include "support/transport.h"
#include "support/uv_faults.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>
#include <uv.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <thread>
#include <vector>

using namespace mivo_test;

namespace {

int Log(IServer* server, std::string text, int level) {
  return server->log(text.data(), level);
}

// One "Accept success" line, taken apart; `connections` is -1 where the line ends without the number.
struct Accepted {
  int number = -1;
  int id = 0;
  int connections = -1;
};

// Every line of a text that begins like this.
Lines LinesBeginning(const std::string& text, const std::string& beginning) {
  Lines found;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = text.find('\n', at);
    const std::string line = text.substr(at, end == std::string::npos ? end : end - at);
    if (line.compare(0, beginning.size(), beginning) == 0) found.push_back(line);
    if (end == std::string::npos) break;
    at = end + 1;
  }
  return found;
}

std::vector<Accepted> AcceptLines(const std::string& text, Transport transport) {
  std::vector<Accepted> all;
  for (const std::string& line : LinesBeginning(text, "Accept success: ")) {
    Accepted accepted;
    char rest[64] = "";
    std::sscanf(line.c_str(), "Accept success: %d client id: %d%63[^\n]", &accepted.number, &accepted.id, rest);
    if (transport == Transport::Local) {
      EXPECT_STREQ(rest, " all count: ") << line;
    } else {
      EXPECT_EQ(std::sscanf(rest, " all count:%d", &accepted.connections), 1) << line;
      EXPECT_EQ(rest, " all count:" + std::to_string(accepted.connections) + " ") << line;
    }
    all.push_back(accepted);
  }
  return all;
}

class ServerConnections : public testing::TestWithParam<Transport> {
 protected:
  // A served connection: accepted, read from and answered.
  static RawPeer Served(const TestServer& server) {
    RawPeer peer = server.Connect();
    EXPECT_TRUE(peer.AnswersInOrder());
    return peer;
  }
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, ServerConnections, kEveryTransport, TransportName);

// Each in a process of its own, so that nobody has been accepted before.
TEST_P(ServerConnections, TheFirstAcceptOfAProcessIsNumberZero) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  EXPECT_EXIT(
      {
        auto* const server = new TestServer(GetParam());
        if (!server->Init()) std::exit(1);
        StdoutCapture output;  // from here: what Init may remark ends without a line break
        RawPeer first = Served(*server);
        RawPeer second = Served(*server);
        const auto accepted = AcceptLines(output.Text(), GetParam());
        if (accepted.size() != 2 || accepted[0].number != 0 || accepted[1].number != 1) std::exit(2);
        if (GetParam() != Transport::Local && (accepted[0].connections != 1 || accepted[1].connections != 2))
          std::exit(3);
        // The other kind counts for itself.
        auto* const other = new TestServer(GetParam() == Transport::Local ? Transport::Tcp4 : Transport::Local);
        if (!other->Init()) std::exit(4);
        RawPeer third = Served(*other);
        const auto more =
            AcceptLines(output.Text().substr(output.Text().rfind("Accept success: ")), other->address().transport);
        if (more.size() != 1 || more[0].number != 0) std::exit(5);
        std::_Exit(0);
      },
      testing::ExitedWithCode(0), "");
}

TEST_P(ServerConnections, AcceptNumbersGrowByOneOverServersAndReconnects) {
  TestServer other(GetParam() == Transport::Tcp6 ? Transport::Tcp4 : GetParam());
  TestServer server(GetParam());
  ASSERT_TRUE(server.Init());
  ASSERT_TRUE(other.Init());
  StdoutCapture output;
  for (const TestServer* each : {&server, &other, &server, &server, &other})
    Served(*each);
  const auto accepted = AcceptLines(output.Text(), GetParam());
  ASSERT_EQ(accepted.size(), 5u);
  for (std::size_t i = 1; i < accepted.size(); ++i)
    EXPECT_EQ(accepted[i].number, accepted[i - 1].number + 1);
}

TEST_P(ServerConnections, TheCountOfConnectionsRisesAndFallsAndTheAcceptNumbersOnlyRise) {
  TestServer server(GetParam());
  ASSERT_TRUE(server.Init());
  StdoutCapture output;
  RawPeer first = Served(server);
  RawPeer second = Served(server);
  first.Close();
  ASSERT_TRUE(output.WaitFor("Client Close: ", 1));
  second.Close();
  ASSERT_TRUE(output.WaitFor("Client Close: ", 2));
  RawPeer third = Served(server);
  const auto accepted = AcceptLines(output.Text(), GetParam());
  ASSERT_EQ(accepted.size(), 3u);
  EXPECT_EQ(accepted[2].number, accepted[0].number + 2);
  if (GetParam() != Transport::Local) {
    EXPECT_EQ(accepted[0].connections, 1);
    EXPECT_EQ(accepted[1].connections, 2);
    EXPECT_EQ(accepted[2].connections, 1);
  }
}

TEST_P(ServerConnections, OneLifeIsToldInOrderAndUnderOneId) {
  Journal journal;
  LambdaMethod sink([&](int, MIVOParams* request, MIVOParams*) { journal.Add(request->GetValue(0)->GetString()); });
  TestServer server(GetParam());
  server->method("s_c_log", &sink);
  server.On("s_c_connect", [&](int id, MIVOParams*, MIVOParams*) { journal.Add("connect " + std::to_string(id)); });
  server.On("s_c_closed", [&](int id, MIVOParams*, MIVOParams*) { journal.Add("closed " + std::to_string(id)); });
  server.On("hello", [&](int id, MIVOParams*, MIVOParams*) { journal.Add("hello " + std::to_string(id)); });
  ASSERT_TRUE(server.Init());
  RawPeer peer = server.Connect();
  ASSERT_TRUE(peer.Exchange(Request({"hello", 1})).has_value());
  peer.Close();
  ASSERT_TRUE(journal.WaitFor("Client Close: "));
  const Lines lines = journal.lines();
  ASSERT_EQ(lines.size(), 6u);
  const std::string id = lines[1].substr(lines[1].find(' ') + 1);
  EXPECT_EQ(lines[1], "connect " + id);
  const auto accepted = AcceptLines(lines[2], GetParam());
  ASSERT_EQ(accepted.size(), 1u);
  EXPECT_EQ(std::to_string(accepted[0].id), id);
  EXPECT_EQ(lines[3], "hello " + id);
  EXPECT_EQ(lines[4], "closed " + id);
  EXPECT_EQ(lines[5], "Client Close: " + id + "\n");
  server.Destroy();
}

TEST_P(ServerConnections, TheConnectNoticeComesBeforeAnythingIsReadFromTheConnection) {
  Journal journal;
  std::atomic<int> read_before{-1};
  Event sent;
  TestServer server(GetParam());
  server.On("s_c_connect", [&](int, MIVOParams*, MIVOParams*) {
    sent.WaitFor();
    read_before = server->GetClientCount();
    journal.Add("connect");
  });
  server.On("hello", [&](int, MIVOParams*, MIVOParams*) { journal.Add("hello"); });
  ASSERT_TRUE(server.Init());
  RawPeer peer = server.Connect();
  ASSERT_TRUE(peer.SendFrame(Request({"hello", 1})));
  sent.Signal();
  ASSERT_TRUE(peer.ReadFrame().has_value());
  EXPECT_EQ(journal.lines(), (Lines{"connect", "hello"}));
  EXPECT_EQ(read_before, 0);
}

TEST_P(ServerConnections, NoticesGetSetsThatMayBeUsedAndNothingOfThemIsSent) {
  Event closed;
  std::atomic<int> usable{0};
  const auto use = [&](int, MIVOParams* request, MIVOParams* reply) {
    ASSERT_NE(request, nullptr);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(request->ParamsSize() + request->MapSize() + request->Size(), 0);
    EXPECT_EQ(reply->ParamsSize() + reply->MapSize() + reply->Size(), 0);
    request->AddInt(1);
    reply->AddKeyValueString("greeting", "hello");
    EXPECT_TRUE(reply->ToParams());
    ++usable;
  };
  TestServer server(GetParam());
  server.On("s_c_connect", use);
  server.On("s_c_closed", [&](int id, MIVOParams* request, MIVOParams* reply) {
    use(id, request, reply);
    closed.Signal();
  });
  ASSERT_TRUE(server.Init());
  RawPeer peer = server.Connect();
  EXPECT_TRUE(peer.AnswersInOrder());
  peer.HalfClose();
  EXPECT_TRUE(peer.ReadEof());
  EXPECT_TRUE(closed.WaitFor());
  EXPECT_EQ(usable, 2);
}

TEST_P(ServerConnections, IdsOfLiveConnectionsAreDistinct) {
  constexpr int kConnections = 500;
  Journal ids;
  TestServer server(GetParam());
  server.On("s_c_connect", [&](int id, MIVOParams*, MIVOParams*) { ids.Add(std::to_string(id)); });
  Log(server.get(), "", 0);
  ASSERT_TRUE(server.Init());
  std::vector<RawPeer> peers;
  for (int i = 0; i < kConnections; ++i)
    peers.push_back(server.Connect());
  ASSERT_TRUE(ids.WaitForSize(kConnections));
  const Lines all = ids.lines();
  EXPECT_EQ(std::set<std::string>(all.begin(), all.end()).size(), static_cast<std::size_t>(kConnections));
  EXPECT_EQ(ids.CountOf("0"), 0);
}

TEST_P(ServerConnections, TheIdOfADepartedClientIsNeverGivenToANewer) {
  constexpr int kConnections = 200;
  Journal ids;
  Journal closed;
  TestServer server(GetParam());
  server.On("s_c_connect", [&](int id, MIVOParams*, MIVOParams*) { ids.Add(std::to_string(id)); });
  server.On("s_c_closed", [&](int id, MIVOParams*, MIVOParams*) { closed.Add(std::to_string(id)); });
  Log(server.get(), "", 0);
  ASSERT_TRUE(server.Init());
  for (int i = 1; i <= kConnections; ++i) {
    Served(server).Close();
    ASSERT_TRUE(closed.WaitForSize(static_cast<std::size_t>(i)));
  }
  const Lines all = ids.lines();
  EXPECT_EQ(std::set<std::string>(all.begin(), all.end()).size(), static_cast<std::size_t>(kConnections));
  EXPECT_EQ(closed.lines(), all);
}

TEST_P(ServerConnections, ACallToADepartedClientReachesNobody) {
  Journal ids;
  Event closed;
  TestServer server(GetParam());
  server.On("s_c_connect", [&](int id, MIVOParams*, MIVOParams*) { ids.Add(std::to_string(id)); });
  server.On("s_c_closed", [&](int, MIVOParams*, MIVOParams*) { closed.Signal(); });
  ASSERT_TRUE(server.Init());
  RawPeer departed = Served(server);
  departed.Close();
  ASSERT_TRUE(closed.WaitFor());
  RawPeer newer = Served(server);
  const int id = std::stoi(ids.lines().front());
  const Stopwatch watch;
  EXPECT_EQ(server->SendMsg(id, "name", nullptr, 0, 1000 * 1000), nullptr);
  EXPECT_EQ(server->PostMsg(id, "name", nullptr, 0), 0);
  EXPECT_LT(watch.ElapsedMs(), 500 * 1000) << "it did not wait for the time-out";
  EXPECT_TRUE(newer.AnswersInOrder());
}

TEST_P(ServerConnections, TheEndOfAConnectionIsToldOnce) {
  Journal journal;
  TestServer server(GetParam());
  server.On("s_c_closed", [&](int id, MIVOParams*, MIVOParams*) { journal.Add(std::to_string(id)); });
  ASSERT_TRUE(server.Init());
  StdoutCapture output;
  RawPeer peer = Served(server);
  const auto accepted = AcceptLines(output.Text(), GetParam());
  ASSERT_EQ(accepted.size(), 1u);
  peer.Close();
  ASSERT_TRUE(output.WaitFor("Client Close: " + std::to_string(accepted[0].id) + "\n"));
  RawPeer other = Served(server);
  EXPECT_EQ(output.Count("Client Close: "), 1);
  EXPECT_EQ(journal.lines(), Lines{std::to_string(accepted[0].id)});
  EXPECT_FALSE(output.Contains("Read error"));
}

TEST_P(ServerConnections, AResetIsAReadErrorAndThenAnEnd) {
  TestServer server(GetParam());
  ASSERT_TRUE(server.Init());
  StdoutCapture output;
  RawPeer peer = Served(server);
  const auto accepted = AcceptLines(output.Text(), GetParam());
  ASSERT_EQ(accepted.size(), 1u);
  const std::size_t printed = output.Size();
  // On the local transport it is the unread answer that turns the end into a reset.
  ASSERT_TRUE(peer.SendFrame(Request({"s_c_close_server", 1})));
  ASSERT_TRUE(peer.WaitReadable());
  peer.Reset();
  const std::string expected = "Read error ECONNRESET\nClient Close: " + std::to_string(accepted[0].id) + "\n";
  EXPECT_TRUE(output.WaitFor("Client Close: "));
  EXPECT_EQ(output.TextFrom(printed), expected);
}

TEST_P(ServerConnections, AHalfCloseEndsTheConnection) {
  Event entered;
  Event leave;
  TestServer server(GetParam());
  server.On("slow", [&](int, MIVOParams*, MIVOParams*) {
    entered.Signal();
    leave.WaitFor();
  });
  ASSERT_TRUE(server.Init());
  RawPeer peer = server.Connect();
  ASSERT_TRUE(peer.SendFrame(Request({"slow", 1})));
  ASSERT_TRUE(entered.WaitFor());
  peer.HalfClose();
  EXPECT_TRUE(peer.ReadEof()) << "the reply is lost";
  leave.Signal();
  EXPECT_TRUE(Served(server).connected());
}

TEST_P(ServerConnections, AnswersEveryFrameOfOneWrite) {
  TestServer server(GetParam());
  server.On("add",
            [](int, MIVOParams* request, MIVOParams* reply) { reply->AddInt(request->GetValue(0)->GetInt() + 1); });
  ASSERT_TRUE(server.Init());
  RawPeer peer = server.Connect();
  ASSERT_TRUE(peer.SendBytes(Frame(Request({"add", 1, Wire().Int(10).bytes()})) +
                             Frame(Request({"add", 2, Wire().Int(20).bytes()}))));
  const std::set<std::string> expected{ServerReply(Wire().Int(11), 1, std::nullopt),
                                       ServerReply(Wire().Int(21), 2, std::nullopt)};
  std::set<std::string> replies;
  for (int i = 0; i < 2; ++i)
    replies.insert(peer.ReadFrame().value_or("nothing"));
  EXPECT_EQ(replies, expected);
}

TEST_P(ServerConnections, HalfAFrameOfADeadClientIsNeverDispatched) {
  Journal journal;
  TestServer server(GetParam());
  server.On("hello", [&](int, MIVOParams*, MIVOParams*) { journal.Add("hello"); });
  server.On("s_c_closed", [&](int, MIVOParams*, MIVOParams*) { journal.Add("closed"); });
  ASSERT_TRUE(server.Init());
  const std::string frame = Frame(Request({"hello", 1}));
  RawPeer peer = server.Connect();
  ASSERT_TRUE(peer.SendBytes(frame.substr(0, frame.size() - 1)));
  ASSERT_TRUE(peer.WaitUntilTaken());
  peer.Close();
  ASSERT_TRUE(journal.WaitFor("closed"));
  // The next connection neither completes the frame nor has anything in front of its own.
  RawPeer next = server.Connect();
  ASSERT_TRUE(next.SendBytes(frame.substr(0, 1)));
  ASSERT_TRUE(next.WaitUntilTaken());
  ASSERT_TRUE(next.SendBytes(frame.substr(1)));
  EXPECT_EQ(next.ReadFrame(), ServerReply("", 1, std::nullopt));
  EXPECT_EQ(journal.lines(), (Lines{"closed", "hello"}));
}

// The newer connections come while the handler runs, so that one of them may get the departed one's memory.
TEST_P(ServerConnections, TheReplyToADepartedClientGoesToNobody) {
  for (int round = 0; round < 10; ++round) {
    Event entered;
    Event leave;
    Event closed;
    TestServer server(GetParam());
    server.On("slow", [&](int, MIVOParams*, MIVOParams* reply) {
      entered.Signal();
      leave.WaitFor();
      reply->AddString("a secret");
    });
    server.On("s_c_closed", [&](int, MIVOParams*, MIVOParams*) { closed.Signal(); });
    server.On("quick", [](int, MIVOParams*, MIVOParams*) {});
    Log(server.get(), "", -1);
    ASSERT_TRUE(server.Init());
    RawPeer departing = server.Connect();
    ASSERT_TRUE(departing.SendFrame(Request({"slow", 1, std::nullopt, "0x1"})));
    ASSERT_TRUE(entered.WaitFor());
    departing.Close();
    ASSERT_TRUE(closed.WaitFor());
    std::vector<RawPeer> newer;
    for (int i = 0; i < 5; ++i)
      newer.push_back(Served(server));
    leave.Signal();
    // Three requests over the pool: the reply of the slow one has been completed by then.
    for (int i = 0; i < 3; ++i) {
      for (RawPeer& peer : newer)
        EXPECT_EQ(peer.Exchange(Request({"quick", i})), ServerReply("", i, std::nullopt));
    }
    EXPECT_TRUE(newer.front().ExpectSilence(std::chrono::milliseconds(5)));
    for (RawPeer& peer : newer)
      EXPECT_TRUE(peer.AnswersInOrder());
  }
}

TEST_P(ServerConnections, ServesTwoHundredConnectionsAtATime) {
  constexpr int kConnections = 200;
  TestServer server(GetParam());
  server.On("echo", [](int, MIVOParams* request, MIVOParams* reply) { reply->AddInt(request->GetValue(0)->GetInt()); });
  Log(server.get(), "", 0);
  ASSERT_TRUE(server.Init());
  std::vector<RawPeer> peers;
  for (int i = 0; i < kConnections; ++i)
    peers.push_back(server.Connect());
  for (int i = 0; i < kConnections; ++i) {
    ASSERT_TRUE(peers[static_cast<std::size_t>(i)].SendFrame(Request({"echo", i, Wire().Int(i * 7).bytes()})));
  }
  for (int i = 0; i < kConnections; ++i) {
    EXPECT_EQ(peers[static_cast<std::size_t>(i)].ReadFrame(), ServerReply(Wire().Int(i * 7), i, std::nullopt));
  }
  EXPECT_EQ(server->GetClientCount(), kConnections);
}

TEST_P(ServerConnections, TenThousandComingsAndGoingsLeaveNothingBehind) {
  constexpr int kConnections = 10000;
  std::atomic<int> came{0};
  std::atomic<int> went{0};
  TestServer server(GetParam());
  server.On("s_c_connect", [&](int, MIVOParams*, MIVOParams*) { ++came; });
  server.On("s_c_closed", [&](int, MIVOParams*, MIVOParams*) { ++went; });
  Log(server.get(), "", -1);
  ASSERT_TRUE(server.Init());
  StdoutCapture resets;
  Served(server).Close();
  ASSERT_TRUE(Eventually([&] { return went == 1; }));
  const Resources before = CountResources();
  for (int i = 1; i <= kConnections; ++i) {
    RawPeer peer = server.Connect();
    ASSERT_TRUE(peer.connected());
    if (i % 3 == 0) {
      ASSERT_TRUE(peer.SendBytes("\x05"));
    }
    // No time-wait on this side, which would run out of ports.
    peer.Reset();
    // The backlog holds 128 that nobody has accepted.
    if (i % 100 == 0) {
      ASSERT_TRUE(Eventually([&] { return came == i + 1 && went == i + 1; }));
    }
  }
  EXPECT_TRUE(Served(server).connected());
  ExpectSameResources(before);
}

// --- What is counted

TEST_P(ServerConnections, TheClientCountIsOfConnectionsThatHaveDeliveredSomethingAndDoesNotFall) {
  Journal journal;
  TestServer server(GetParam());
  server.On("s_c_connect", [&](int, MIVOParams*, MIVOParams*) { journal.Add("connect"); });
  server.On("s_c_closed", [&](int, MIVOParams*, MIVOParams*) { journal.Add("closed"); });
  ASSERT_TRUE(server.Init());
  RawPeer silent = server.Connect();
  ASSERT_TRUE(journal.WaitFor("connect", 1));
  EXPECT_EQ(server->GetClientCount(), 0);
  RawPeer first = Served(server);
  EXPECT_EQ(server->GetClientCount(), 1);
  EXPECT_TRUE(first.AnswersInOrder());
  EXPECT_EQ(server->GetClientCount(), 1);
  RawPeer second = Served(server);
  EXPECT_EQ(server->GetClientCount(), 2);
  first.Close();
  ASSERT_TRUE(journal.WaitFor("closed", 1));
  EXPECT_EQ(server->GetClientCount(), 2);
  // An end is something, too.
  silent.Close();
  ASSERT_TRUE(journal.WaitFor("closed", 2));
  EXPECT_EQ(server->GetClientCount(), 3);
}

TEST_P(ServerConnections, AByteIsSomethingToCount) {
  TestServer server(GetParam());
  ASSERT_TRUE(server.Init());
  RawPeer peer = server.Connect();
  ASSERT_TRUE(peer.SendBytes(std::string(1, '\0')));
  ASSERT_TRUE(peer.WaitUntilTaken());
  EXPECT_TRUE(Eventually([&] { return server->GetClientCount() == 1; }));
}

// --- Failures

TEST_P(ServerConnections, AnErrorOfTheListenerIsReportedAndNothingElse) {
  TestServer server(GetParam());
  ASSERT_TRUE(server.Init());
  Log(server.get(), "", 0);
  StdoutCapture output;
  ScopedFault fault(Fault::kAcceptCall, 1, 1, UV_EPROTO);
  EXPECT_TRUE(Served(server).connected());
  EXPECT_EQ(fault.failures(), 1);
  EXPECT_EQ(output.Text(), "New client connection error...\n");
}

TEST_P(ServerConnections, AFailedAcceptIsReportedAndTheListenerGoesOn) {
  Journal journal;
  TestServer server(GetParam());
  server.On("s_c_connect", [&](int, MIVOParams*, MIVOParams*) { journal.Add("connect"); });
  server.On("s_c_closed", [&](int, MIVOParams*, MIVOParams*) { journal.Add("closed"); });
  Log(server.get(), "", 0);
  ASSERT_TRUE(server.Init());
  RawPeer early = Served(server);
  StdoutCapture output;
  const Resources before = CountResources();
  {
    ScopedFault fault(Fault::kWatchCall, 1, 3, UV_EMFILE);
    for (int i = 1; i <= 3; ++i) {
      RawPeer refused = server.Connect();
      ASSERT_TRUE(refused.connected());
      EXPECT_TRUE(refused.ReadEof());
      EXPECT_TRUE(output.WaitFor("Accept error... .\n", i));
    }
    EXPECT_TRUE(Served(server).connected());
    EXPECT_EQ(fault.calls(), 4);
  }
  EXPECT_TRUE(early.AnswersInOrder());
  EXPECT_TRUE(journal.WaitFor("closed", 1));
  EXPECT_EQ(journal.CountOf("connect"), 5) << "the notice comes before the accept";
  EXPECT_EQ(journal.CountOf("closed"), 1) << "who was not accepted does not end";
  EXPECT_EQ(output.Text(), "Accept error... .\nAccept error... .\nAccept error... .\n");
  ExpectSameResources(before);
}

TEST_P(ServerConnections, AFailedAcceptTakesNoAcceptNumber) {
  TestServer server(GetParam());
  ASSERT_TRUE(server.Init());
  StdoutCapture output;
  RawPeer first = Served(server);
  {
    ScopedFault fault(Fault::kWatchCall, 1, 1, UV_EMFILE);
    EXPECT_TRUE(server.Connect().ReadEof());
  }
  RawPeer second = Served(server);
  const auto accepted = AcceptLines(output.Text(), GetParam());
  ASSERT_EQ(accepted.size(), 2u);
  EXPECT_EQ(accepted[1].number, accepted[0].number + 1);
  if (GetParam() != Transport::Local) {
    EXPECT_EQ(accepted[1].connections, 2);
  }
}

TEST_P(ServerConnections, RecoversFromAFullDescriptorTable) {
  TestServer server(GetParam());
  Log(server.get(), "", 0);
  ASSERT_TRUE(server.Init());
  RawPeer early = Served(server);
  rlimit usual{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
  std::vector<RawPeer> peers;
  {
    StdoutCapture output;
    rlimit low = usual;
    low.rlim_cur = static_cast<rlim_t>(CountResources().descriptors) + 12;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    // Both ends are in this process: some connections find no descriptor on the other side.
    for (;;) {
      RawPeer peer = RawPeer::ConnectTo(server.address(), std::chrono::milliseconds(0));
      if (!peer.connected()) break;
      peers.push_back(std::move(peer));
    }
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);
  }
  EXPECT_GE(peers.size(), 3u);
  peers.clear();
  EXPECT_TRUE(early.AnswersInOrder());
  EXPECT_TRUE(Served(server).connected());
}

// --- Notices that use the server

TEST_P(ServerConnections, ANoticeMayCallAndPost) {
  Journal journal;
  TestServer server(GetParam());
  for (const char* notice : {"s_c_connect", "s_c_closed"}) {
    server.On(notice, [&journal, &server, notice](int id, MIVOParams*, MIVOParams*) {
      const int posted = server->PostMsg(id, "posted", nullptr, 7);
      const bool null = server->SendMsg(id, "called", nullptr, 8, 100000000) == nullptr;
      journal.Add(std::string(notice) + (posted == 0 && null ? " done" : " failed"));
    });
  }
  Log(server.get(), "", 0);
  ASSERT_TRUE(server.Init());
  RawPeer peer = server.Connect();
  EXPECT_TRUE(journal.WaitFor("s_c_connect done"));
  peer.Close();
  EXPECT_TRUE(journal.WaitFor("s_c_closed done"));
  // While the notice runs the connection is not accepted yet: what is sent to it reaches nobody.
  EXPECT_TRUE(Served(server).connected());
}

TEST_P(ServerConnections, ANoticeMayCloseTheServer) {
  for (const bool wait : {true, false}) {
    for (const char* notice : {"s_c_connect", "s_c_closed"}) {
      TestServer server(GetParam());
      server.On(notice, [&server, wait](int, MIVOParams*, MIVOParams*) {
        EXPECT_TRUE(wait ? server->close() : server->closeasync());
      });
      ASSERT_TRUE(server.Init());
      RawPeer peer = server.Connect();
      ASSERT_TRUE(peer.connected());
      peer.HalfClose();
      EXPECT_TRUE(Eventually([&] { return !server->isok(); })) << notice;
      EXPECT_TRUE(peer.ReadEof());
    }
  }
}

TEST(ServerConnectionsOfTwoKinds, AreServedSideBySide) {
  TestServer local(Transport::Local);
  TestServer tcp4(Transport::Tcp4);
  TestServer tcp6(Transport::Tcp6);
  for (TestServer* server : {&local, &tcp4, &tcp6})
    ASSERT_TRUE(server->Init());
  RawPeer to_local = local.Connect();
  RawPeer to_tcp4 = tcp4.Connect();
  RawPeer to_tcp6 = tcp6.Connect();
  for (RawPeer* peer : {&to_tcp6, &to_local, &to_tcp4})
    EXPECT_TRUE(peer->AnswersInOrder());
  tcp4.Destroy();
  EXPECT_TRUE(to_tcp4.ReadEof());
  EXPECT_TRUE(to_local.AnswersInOrder());
  EXPECT_TRUE(to_tcp6.AnswersInOrder());
}

}  // namespace
