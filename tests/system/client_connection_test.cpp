#include <mivo/mivo.h>

#include "support/event.h"
#include "support/raw_server.h"
#include "support/shared_names.h"
#include "support/stdout_capture.h"
#include "support/teardown.h"
#include "support/test_client.h"
#include "support/test_server.h"
#include "support/transport.h"
#include "support/uv_faults.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <uv.h>

#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using namespace mivo_test;

namespace {

class ClientConnection : public testing::TestWithParam<Transport> {
 protected:
  bool IsLocal() const { return GetParam() == Transport::Local; }

  bool InitWith(IClient* client, const Address& address, bool threaded) {
    switch (GetParam()) {
      case Transport::Tcp4:
        return client->InitMIVOClientTcp4(address.host.c_str(), address.name.c_str(), threaded);
      case Transport::Tcp6:
        return client->InitMIVOClientTcp6(address.host.c_str(), address.name.c_str(), threaded);
      case Transport::Local:
        break;
    }
    return client->InitMIVOClient(address.name.c_str(), threaded);
  }

  // Init against a server that answers the version check with `content`, and with the envelope as it should be.
  bool InitAnsweredWith(IClient* client, RawServer& server, const std::string& content, RawPeer* peer) {
    std::thread answering([&] {
      *peer = server.Accept();
      const std::string check = peer->ReadFrame().value_or("");
      peer->SendFrame(ServerReply(content, IntOf(check, "s_c_sw_threadid"), TextOf(check, "s_c_sw_semid")));
    });
    const bool connected = InitClient(client, server.address());
    answering.join();
    return connected;
  }
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, ClientConnection, kEveryTransport, TransportName);

class ClientOverTcp : public ClientConnection {};
INSTANTIATE_TEST_SUITE_P(OnTcp, ClientOverTcp, kTcpOnly, TransportName);

// --- A client that never connected

TEST(FreshClient, IsNotConnected) {
  TestClient client;
  ASSERT_NE(client.get(), nullptr);
  EXPECT_FALSE(client->isok());
}

TEST(FreshClient, DestroyingNothingDoesNothing) {
  DestroyClient(nullptr);
}

TEST(FreshClient, IsDestroyedWithItsHandlersAndLeavesNothing) {
  const Resources before = CountResourcesWhenWarm();
  Deletions deletions;
  {
    TestClient client;
    client.On("a", nullptr, &deletions);
    client.On("b", nullptr, &deletions);
    client->methodall(new LambdaMethodAll(nullptr, &deletions));
  }
  EXPECT_EQ(deletions.count, 3);
  ExpectSameResources(before);
}

TEST(FreshClient, TakesEverySettingBeforeItConnects) {
  TestClient client;
  client->SetTimeoutStep(0);
  client->SetTimeoutStep(-1);
  client->SetTimeoutStep(5000);
  client->ClearRetvalMem();
  const int size = client->GetBigfileBufferSize();
  client->SetBigfileBufferSize(size);
  EXPECT_EQ(client->GetBigfileBufferSize(), size);
  EXPECT_FALSE(client->isok());
}

// --- A connection that comes about

TEST(ClientNames, TheSocketIsInTmpUnderThePrefixAndTheName) {
  RawServer server(Transport::Local);
  ASSERT_EQ(access(("/tmp/echo.sock." + server.address().name).c_str(), F_OK), 0);
  TestClient client;
  EXPECT_TRUE(client.InitAgainst(server).connected());
}

TEST_P(ClientConnection, InitConnectsAndSaysSo) {
  TestServer server(GetParam());
  ASSERT_TRUE(server.Init());
  StdoutCapture output;
  TestClient client;
  EXPECT_TRUE(client.Init(server.address()));
  EXPECT_TRUE(client->isok());
  EXPECT_EQ(output.Count("connected: " + server.address().name + " \n"), 1);
  EXPECT_FALSE(output.Contains("cant connect"));
}

TEST_P(ClientConnection, TheBoolOfInitMakesNoDifference) {
  TestServer server(GetParam());
  ASSERT_TRUE(server.Init());
  for (const bool threaded : {true, false}) {
    TestClient client;
    EXPECT_TRUE(InitWith(client.get(), server.address(), threaded));
    EXPECT_TRUE(client->isok());
    EXPECT_EQ(TakeError(client->SendMsg("nobody", nullptr, 0, 10000)), 0);
  }
}

TEST_P(ClientConnection, TheLoopThreadPrintsItsBannerAndItsLines) {
  RawServer server(GetParam());
  StdoutCapture output;
  TestClient client;
  ASSERT_TRUE(client.InitAgainst(server).connected());
  const std::string banner = IsLocal()                       ? "MIVO Version: 1.1.0.12\n"
                             : GetParam() == Transport::Tcp4 ? "Tcp4: MIVO Version: 1.1.0.12\n"
                                                             : "Tcp6: MIVO Version: 1.1.0.12\n";
  EXPECT_EQ(output.Text().compare(0, banner.size(), banner), 0) << "the banner comes first";
  EXPECT_TRUE(output.WaitFor(IsLocal() ? "runing .....\n" : "\nrun\n"));
  EXPECT_FALSE(output.Contains(IsLocal() ? "\nrun\n" : "runing"));
  client->close();
  EXPECT_EQ(output.Count(IsLocal() ? "out run .....\n" : "\nrun out\n"), 1);
  EXPECT_FALSE(output.Contains(IsLocal() ? "run out\n" : "out run"));
}

TEST_P(ClientConnection, OnlyTheDirectLinesAreLeftAtLevelZero) {
  TestServer server(GetParam());
  ASSERT_TRUE(server.Init());
  TestClient client;
  SetLog(client.get(), "", 0);
  SetLog(server.get(), "", 0);
  StdoutCapture output;
  ASSERT_TRUE(client.Init(server.address()));
  client->close();
  EXPECT_EQ(output.Text(), IsLocal() ? "" : "run\nrun out\n");
}

// --- The version check

TEST_P(ClientConnection, TheFirstFrameIsTheVersionCheck) {
  RawServer server(GetParam());
  TestClient client;
  std::string check;
  ASSERT_TRUE(client.InitAgainst(server, &check).connected());
  const std::string semid = TextOf(check, "s_c_sw_semid").value_or("");
  // Pinned to the byte, except for the two values that differ from call to call.
  ASSERT_EQ(HandshakeRequest(1234, "0x5a10"), FromHex(exact::kHandshakeRequest));
  EXPECT_EQ(Hex(check), Hex(HandshakeRequest(ThreadId(), semid)));
  EXPECT_EQ(check.size(), 190 + semid.size() - 6);
  const std::string data = TextOf(check, "s_c_sw_data").value_or("");
  EXPECT_EQ(Hex(data),
            "05 03 07 00 00 00 56 45 52 53 49 4F 4E 0D 00 00 00 03 16 00 00 00 4D 49 56 4F 20 56 65 72 73 69 6F 6E 3A "
            "20 31 2E 31 2E 30 2E 31 32 2C 00 00 00");
}

TEST_P(ClientConnection, NothingButTheServersBoolDecidesTheCheck) {
  const struct {
    const char* what;
    std::string content;
    bool accepted;
  } answers[] = {
      {"true and the same text", Wire().Bool(true).KeyString("VERSION", kBanner), true},
      {"true and another text", Wire().Bool(true).KeyString("VERSION", "MIVO Version: 9"), true},
      {"true without a text", Wire().Bool(true), true},
      {"true and a number for a text", Wire().Bool(true).KeyInt("VERSION", 9), true},
      {"false and the same text", Wire().Bool(false).KeyString("VERSION", kBanner), false},
      {"no positional value", Wire().KeyString("VERSION", kBanner), false},
      {"an int first", Wire().Int(1).Bool(true).KeyString("VERSION", kBanner), false},
      {"true and an error code", Wire().Bool(true).KeyInt("errorCode", -1001), true},
  };
  RawServer server(GetParam());
  for (const auto& answer : answers) {
    SCOPED_TRACE(answer.what);
    TestClient client;
    RawPeer peer;
    EXPECT_EQ(InitAnsweredWith(client.get(), server, answer.content, &peer), answer.accepted);
    EXPECT_EQ(client->isok(), answer.accepted);
    // Refused, the client has gone.
    if (!answer.accepted) {
      EXPECT_TRUE(peer.ReadEof());
    }
  }
}

TEST_P(ClientConnection, ARefusedCheckIsAnErrorAndClosesTheClient) {
  RawServer server(GetParam());
  TestClient client;
  StdoutCapture output;
  RawPeer peer;
  EXPECT_FALSE(InitAnsweredWith(client.get(), server, Wire().Bool(false).KeyString("VERSION", "old"), &peer));
  EXPECT_FALSE(client->isok());
  EXPECT_EQ(output.Count("connected: " + server.address().name + " \n"), 1);
  EXPECT_EQ(output.Count("Check Server Version: \nserver old\nclient MIVO Version: 1.1.0.12 \n"), 1);
  EXPECT_EQ(output.Count("Check Server Version Error!\nClosing!\n"), 1);
  EXPECT_EQ(output.Count("Client Closing waiting thread!\n"), 1);
  EXPECT_EQ(output.Count("Closed!\n"), 2);
  EXPECT_FALSE(output.Contains("timeout"));
}

TEST_P(ClientConnection, AGoodCheckPrintsBothVersions) {
  TestServer server(GetParam());
  ASSERT_TRUE(server.Init());
  TestClient client;
  StdoutCapture output;
  ASSERT_TRUE(client.Init(server.address()));
  EXPECT_EQ(output.Count("Check Server Version: \nserver MIVO Version: 1.1.0.12\nclient MIVO Version: 1.1.0.12 \n"), 1);
}

TEST_P(ClientConnection, ControlCharactersOfTheServersVersionArePrintedAsNumbers) {
  RawServer server(GetParam());
  TestClient client;
  StdoutCapture output;
  RawPeer peer;
  ASSERT_TRUE(
      InitAnsweredWith(client.get(), server, Wire().Bool(true).KeyString("VERSION", "1\nClosed!\x1b[2J"), &peer));
  EXPECT_EQ(output.Count("\nserver 1\\x0aClosed!\\x1b[2J\nclient MIVO Version: 1.1.0.12 \n"), 1);
}

TEST_P(ClientConnection, ACheckAnsweredWithoutATextPrintsNoneForTheServer) {
  RawServer server(GetParam());
  TestClient client;
  StdoutCapture output;
  RawPeer peer;
  ASSERT_TRUE(InitAnsweredWith(client.get(), server, Wire().Bool(true), &peer));
  EXPECT_EQ(output.Count("Check Server Version: \nserver \nclient MIVO Version: 1.1.0.12 \n"), 1);
}

// Over one transport only: version checks wait their turn in the whole process, ten seconds each.
TEST(ClientHandshake, AServerThatDoesNotAnswerIsGivenTenSeconds) {
  RawServer server(Transport::Local);
  TestClient client;
  StdoutCapture output;
  RawPeer silent;
  std::thread accepting([&] { silent = server.Accept(); });
  const Stopwatch watch;
  EXPECT_FALSE(client.Init(server.address()));
  EXPECT_GE(watch.ElapsedMs(), 9950);
  EXPECT_LT(watch.ElapsedMs(), 40000);
  accepting.join();
  EXPECT_EQ(output.Count("Check Server Version: timeout\n"), 1);
  EXPECT_EQ(output.Count("Check Server Version Error!\n"), 1);
  EXPECT_FALSE(client->isok());
}

TEST_P(ClientConnection, AServerThatGoesAwayDuringTheCheckFailsItAtOnce) {
  RawServer server(GetParam());
  TestClient client;
  StdoutCapture output;
  std::thread accepting([&] {
    RawPeer peer = server.Accept();
    EXPECT_TRUE(peer.ReadFrame().has_value());
  });
  const Stopwatch watch;
  EXPECT_FALSE(client.Init(server.address()));
  EXPECT_LT(watch.ElapsedMs(), 9000);
  accepting.join();
  EXPECT_EQ(output.Count("Check Server Version: timeout\n"), 1);
  EXPECT_EQ(output.Count("Check Server Version Error!\n"), 1);
  EXPECT_FALSE(client->isok());
}

TEST_P(ClientConnection, AServerThatGoesAwayBeforeTheCheckFailsIt) {
  RawServer server(GetParam());
  TestClient client;
  StdoutCapture output;
  std::thread accepting([&] { EXPECT_TRUE(server.Accept().connected()); });
  const Stopwatch watch;
  EXPECT_FALSE(client.Init(server.address()));
  EXPECT_LT(watch.ElapsedMs(), 9000);
  accepting.join();
  EXPECT_EQ(output.Count("Check Server Version: timeout\n"), 1);
  EXPECT_EQ(output.Count("Check Server Version Error!\n"), 1);
  EXPECT_FALSE(client->isok());
}

// --- A connection that cannot be had

TEST_P(ClientConnection, InitIsFalseWhereNobodyListens) {
  const Address nowhere = FreeAddress(GetParam());
  TestClient client;
  StdoutCapture output;
  const Stopwatch watch;
  EXPECT_FALSE(client.Init(nowhere));
  EXPECT_LT(watch.ElapsedMs(), 5000);
  EXPECT_FALSE(client->isok());
  EXPECT_EQ(output.Count("cant connect: " + nowhere.name + " \n"), 1);
  EXPECT_EQ(output.Count("connected:"), 0);
}

TEST_P(ClientConnection, FailedInitsLeaveNothingBehind) {
  const Address nowhere = FreeAddress(GetParam());
  const Resources before = CountResourcesWhenWarm();
  TestClient client;
  SetLog(client.get(), "", 0);
  for (int i = 0; i < 1000; ++i)
    ASSERT_FALSE(client.Init(nowhere));
  ExpectSameResources(before);
}

TEST_P(ClientConnection, InitSucceedsOnceTheServerIsThere) {
  TestServer server(GetParam());
  TestClient client;
  EXPECT_FALSE(client.Init(server.address()));
  ASSERT_TRUE(server.Init());
  EXPECT_TRUE(client.Init(server.address()));
  EXPECT_EQ(TakeError(client->SendMsg("nobody", nullptr, 0, 10000)), 0);
}

TEST_P(ClientConnection, InitSucceedsAfterARefusedCheck) {
  RawServer refusing(GetParam());
  TestServer server(GetParam());
  ASSERT_TRUE(server.Init());
  TestClient client;
  RawPeer peer;
  EXPECT_FALSE(InitAnsweredWith(client.get(), refusing, Wire().Bool(false), &peer));
  EXPECT_TRUE(client.Init(server.address()));
  EXPECT_EQ(TakeError(client->SendMsg("nobody", nullptr, 0, 10000)), 0);
}

TEST_P(ClientConnection, EveryFailedStepOfAStartLeavesTheClientFitForTheNext) {
  // Nobody accepts here, so that the faults meet nobody but the client.
  const RawServer listening(GetParam());
  RawServer server(GetParam());
  const Resources before = CountResourcesWhenWarm();
  TestClient client;
  SetLog(client.get(), "", 0);
  const struct {
    const char* what;
    Fault fault;
    int call;
  } failures[] = {
      {"loop", Fault::kLoopInit, 1},     {"socket", Fault::kSocketCall, 1}, {"connect", Fault::kConnectCall, 1},
      {"wake-up", Fault::kAsyncInit, 1}, {"reading", Fault::kWatchCall, 1}, {"timer", Fault::kTimerStart, 1},
  };
  StdoutCapture output;
  for (const auto& failure : failures) {
    SCOPED_TRACE(failure.what);
    const ScopedFault fault(failure.fault, failure.call, 1, UV_ENOMEM);
    EXPECT_FALSE(client.Init(listening.address()));
    EXPECT_EQ(fault.failures(), 1);
    EXPECT_FALSE(client->isok());
  }
  {
    const ScopedFault fault(Fault::kThreadCreate, 1, 1, UV_EAGAIN);
    EXPECT_FALSE(client.Init(listening.address()));
    EXPECT_EQ(fault.failures(), 1);
    EXPECT_FALSE(client->isok());
  }
  // The capture holds two descriptors.
  ExpectSameResources({before.threads, before.descriptors + 2});
  RawPeer peer = client.InitAgainst(server);
  ASSERT_TRUE(peer.connected());
  EXPECT_EQ(TakeError(client->SendMsg("silence", nullptr, 0, 1)), -1001) << "calls and time-outs work";
}

TEST_P(ClientConnection, InitIsFalseWhenNoDescriptorIsLeft) {
  TestServer server(GetParam());
  ASSERT_TRUE(server.Init());
  // libuv takes a descriptor in reserve with a loop's first stream.
  ASSERT_TRUE(server.Connect().AnswersInOrder());
  const Resources before = CountResourcesWhenWarm();
  TestClient client;
  StdoutCapture output;
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  rlimit none = limit;
  none.rlim_cur = 3;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const bool connected = client.Init(server.address());
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_FALSE(connected);
  EXPECT_EQ(output.Count("cant connect: " + server.address().name + " \n"), 1);
  EXPECT_EQ(output.Count("uv_loop_init error\n"), GetParam() == Transport::Tcp4 ? 1 : 0);
  EXPECT_TRUE(client.Init(server.address()));
  client->close();
  // The capture holds two descriptors.
  ExpectSameResources({before.threads, before.descriptors + 2});
}

TEST_P(ClientOverTcp, OnlyIpv4SaysWhichStepFailed) {
  const int lines = GetParam() == Transport::Tcp4 ? 1 : 0;
  RawServer server(GetParam());
  TestClient client;
  StdoutCapture output;
  {
    const ScopedFault fault(Fault::kSocketCall, 1, 1, UV_ENOMEM);
    EXPECT_FALSE(client.Init(server.address()));
  }
  EXPECT_EQ(output.Count("uv_tcp_init error\n"), lines);
  {
    const ScopedFault fault(Fault::kConnectCall, 1, 1, UV_EINVAL);
    EXPECT_FALSE(client.Init(server.address()));
  }
  EXPECT_EQ(output.Count("uv_tcp_connect error\n"), lines);
  {
    const ScopedFault fault(Fault::kLoopInit, 1, 1, UV_ENOMEM);
    EXPECT_FALSE(client.Init(server.address()));
  }
  EXPECT_EQ(output.Count("uv_loop_init error\n"), lines);
  EXPECT_EQ(output.Count("cant connect: " + server.address().name + " \n"), 3);
  EXPECT_TRUE(client.InitAgainst(server).connected());
}

// --- Addresses

TEST_P(ClientOverTcp, AHostThatIsNoAddressMeansThisMachine) {
  RawServer server(GetParam());
  for (const char* host : {"no address", "", static_cast<const char*>(nullptr)}) {
    TestClient client;
    StdoutCapture output;
    RawPeer peer;
    std::thread answering([&] { peer = server.AcceptAndAnswerHandshake(); });
    const char* const port = server.address().name.c_str();
    EXPECT_TRUE(GetParam() == Transport::Tcp4 ? client->InitMIVOClientTcp4(host, port, true)
                                              : client->InitMIVOClientTcp6(host, port, true));
    answering.join();
    EXPECT_EQ(output.Count("uv_ip4_addr error\n"), GetParam() == Transport::Tcp4 ? 1 : 0);
    EXPECT_FALSE(output.Contains("uv_ip6_addr"));
  }
}

TEST_P(ClientOverTcp, ThePortIsTheNumberAtTheBeginningOfItsText) {
  RawServer server(GetParam());
  for (const std::string& port :
       {"00" + server.address().name, server.address().name + "x", " " + server.address().name}) {
    TestClient client;
    StdoutCapture output;
    RawPeer peer;
    std::thread answering([&] { peer = server.AcceptAndAnswerHandshake(); });
    EXPECT_TRUE(client.Init({GetParam(), server.address().host, port}));
    answering.join();
    EXPECT_EQ(output.Count("connected: " + port + " \n"), 1);
  }
}

TEST_P(ClientOverTcp, APortThatIsNoneCannotBeConnectedTo) {
  TestClient client;
  const std::string host = GetParam() == Transport::Tcp4 ? "127.0.0.1" : "::1";
  for (const char* port : {"", "port", "0", static_cast<const char*>(nullptr)}) {
    StdoutCapture output;
    EXPECT_FALSE(GetParam() == Transport::Tcp4 ? client->InitMIVOClientTcp4(host.c_str(), port, true)
                                               : client->InitMIVOClientTcp6(host.c_str(), port, true));
    EXPECT_TRUE(output.Contains("cant connect: " + std::string(port == nullptr ? "" : port) + " \n"));
  }
}

TEST(ClientNames, NoNameIsTheEmptyName) {
  // Nobody listens under it while this is our turn.
  const SharedNames turn;
  for (const char* name : {"", static_cast<const char*>(nullptr)}) {
    TestClient client;
    StdoutCapture output;
    EXPECT_FALSE(client->InitMIVOClient(name, true));
    EXPECT_EQ(output.Count("connect:  \n"), 1);
    EXPECT_TRUE(output.Contains("cant connect"));
  }
}

// A listening socket at this path.
int ListenAt(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path);
  unlink(path.c_str());
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 || listen(listener, 8) != 0) {
    ADD_FAILURE() << "cannot listen at " << path;
  }
  return listener;
}

TEST(ClientNames, ANameThatDoesNotFitIsRefusedAndNotCut) {
  const std::string unique = UniqueSocketName();
  const std::string longest = unique + std::string(107 - SocketPath(unique).size(), 'n');
  // Here a name that was cut would end.
  const int listener = ListenAt(SocketPath(longest));
  TestClient client;
  {
    StdoutCapture output;
    EXPECT_FALSE(client->InitMIVOClient((longest + "n").c_str(), true));
    EXPECT_EQ(output.Count("cant connect: " + longest + "n \n"), 1);
    EXPECT_FALSE(client->InitMIVOClient(std::string(5000, 'n').c_str(), true));
  }
  std::thread answering([&] {
    RawPeer peer(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC), Transport::Local);
    EXPECT_TRUE(AnswerHandshake(&peer).has_value());
  });
  EXPECT_TRUE(client->InitMIVOClient(longest.c_str(), true));
  answering.join();
  close(listener);
  unlink(SocketPath(longest).c_str());
}

// --- Connecting again

TEST_P(ClientConnection, IsokFollowsTheConnection) {
  RawServer server(GetParam());
  TestClient client;
  EXPECT_FALSE(client->isok());
  RawPeer peer = client.InitAgainst(server);
  EXPECT_TRUE(client->isok());
  peer.Close();
  EXPECT_TRUE(Eventually([&] { return !client->isok(); }));
  client->close();
  EXPECT_FALSE(client->isok());
  peer = client.InitAgainst(server);
  EXPECT_TRUE(client->isok());
  client->close();
  EXPECT_FALSE(client->isok());
}

TEST_P(ClientConnection, AfterACloseInitGivesAClientAsGoodAsNew) {
  RawServer raw(GetParam());
  TestServer server(GetParam());
  server.On("six", [](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(6); });
  ASSERT_TRUE(server.Init());
  TestClient client;
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(client.Init(server.address()));
    EXPECT_EQ(TakeInt(client->SendMsg("six", nullptr, 0, 10000)), 6);
    client->close();
    RawPeer peer = client.InitAgainst(raw);
    ASSERT_TRUE(peer.connected());
    const Stopwatch watch;
    EXPECT_EQ(TakeError(client->SendMsg("silence", nullptr, 0, 20)), -1001);
    EXPECT_LT(watch.ElapsedMs(), 30000);
    client->close();
  }
}

TEST_P(ClientConnection, InitOnAConnectedClientLeavesTheConnectionAlone) {
  RawServer server(GetParam());
  RawServer other(GetParam());
  TestClient client;
  RawPeer peer = client.InitAgainst(server);
  ASSERT_TRUE(peer.connected());
  EXPECT_TRUE(client.Init(other.address()));
  EXPECT_FALSE(other.Accept(std::chrono::milliseconds(30)).connected());
  PendingCall call([&] { return client->SendMsgFast("name", nullptr, 7, 0); });
  const std::string request = peer.ReadFrame().value_or("");
  EXPECT_TRUE(peer.SendFrame(ServerReply(Wire().Int(5), 7, TextOf(request, "s_c_sw_semid"))));
  EXPECT_EQ(TakeInt(call.Wait()), 5);
}

TEST_P(ClientConnection, InitAfterALostConnectionConnectsAgainAndKeepsTheHandlers) {
  RawServer server(GetParam());
  Deletions deletions;
  Event called;
  TestClient client;
  client.On(
      "name", [&](int, MIVOParams*, MIVOParams*) { called.Signal(); }, &deletions);
  RawPeer peer = client.InitAgainst(server);
  peer.Close();
  ASSERT_TRUE(Eventually([&] { return !client->isok(); }));
  peer = client.InitAgainst(server);
  ASSERT_TRUE(peer.connected());
  EXPECT_EQ(deletions.count, 0);
  ASSERT_TRUE(peer.SendFrame(Request({"name", 1})));
  EXPECT_TRUE(called.WaitFor());
  EXPECT_EQ(TakeError(client->SendMsg("silence", nullptr, 0, 20)), -1001);
}

TEST_P(ClientConnection, AHalfReceivedFrameDoesNotOutliveItsConnection) {
  RawServer server(GetParam());
  Event called;
  const std::string frame = Frame(Request({"name", 1}));
  for (const bool closed_between : {true, false}) {
    TestClient client;
    client->SetCustomReleaseEvent();
    LambdaMethod handler([&](int, MIVOParams*, MIVOParams*) { called.Signal(); });
    client->method("name", &handler);
    RawPeer peer = client.InitAgainst(server);
    ASSERT_TRUE(peer.SendBytes(frame.substr(0, frame.size() / 2)));
    ASSERT_TRUE(peer.WaitUntilTaken());
    peer.Close();
    ASSERT_TRUE(Eventually([&] { return !client->isok(); }));
    if (closed_between) {
      client->close();
      client->method("name", &handler);
    }
    peer = client.InitAgainst(server);
    ASSERT_TRUE(peer.connected());
    ASSERT_TRUE(peer.SendBytes(frame.substr(0, 20)));
    ASSERT_TRUE(peer.WaitUntilTaken());
    ASSERT_TRUE(peer.SendBytes(frame.substr(20)));
    EXPECT_EQ(peer.ReadFrame(), ClientReply("", 1, std::nullopt));
    client->close();
  }
  EXPECT_EQ(called.count(), 2);
}

// --- Time-outs

TEST_P(ClientConnection, TheStepOfTheSweepCannotBeChanged) {
  for (const int step : {5000, 0, -1}) {
    RawServer server(GetParam());
    TestClient client;
    client->SetTimeoutStep(step);
    RawPeer peer = client.InitAgainst(server);
    ASSERT_TRUE(peer.connected());
    client->SetTimeoutStep(step);
    const Stopwatch watch;
    EXPECT_EQ(TakeError(client->SendMsgFast("silence", nullptr, 0, 600)), -1001);
    EXPECT_GE(watch.ElapsedMs(), 595);
    EXPECT_LT(watch.ElapsedMs(), 4500);
  }
}

// On a busy machine a call may end late, so one timely call is looked for, here and below.
TEST_P(ClientConnection, TheFirstSweepComesHalfASecondAfterConnecting) {
  bool timely = false;
  for (int attempt = 0; attempt < 10 && !timely; ++attempt) {
    RawServer server(GetParam());
    TestClient client;
    const Stopwatch watch;
    RawPeer peer = client.InitAgainst(server);
    ASSERT_TRUE(peer.connected());
    ASSERT_EQ(TakeError(client->SendMsg("silence", nullptr, 0, 50)), -1001);
    EXPECT_GE(watch.ElapsedMs(), 495);
    timely = watch.ElapsedMs() < 900 * kSlowdown;
  }
  EXPECT_TRUE(timely);
}

TEST_P(ClientConnection, TheSweepComesEveryTenthOfASecond) {
  RawServer server(GetParam());
  TestClient client;
  RawPeer peer = client.InitAgainst(server);
  ASSERT_TRUE(peer.connected());
  // With this one the first sweep has been.
  ASSERT_EQ(TakeError(client->SendMsg("silence", nullptr, 0, 1)), -1001);
  bool timely = false;
  for (int attempt = 0; attempt < 20 && !timely; ++attempt) {
    const Stopwatch watch;
    ASSERT_EQ(TakeError(client->SendMsg("silence", nullptr, 0, 150)), -1001);
    EXPECT_GE(watch.ElapsedMs(), 150);
    timely = watch.ElapsedMs() < 350 * kSlowdown;
  }
  EXPECT_TRUE(timely);
}

}  // namespace
