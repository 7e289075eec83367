#include <mivo/mivo.h>

#include "support/event.h"
#include "support/journal.h"
#include "support/raw_client.h"
#include "support/shared_names.h"
#include "support/stdout_capture.h"
#include "support/teardown.h"
#include "support/test_server.h"
#include "support/transport.h"
#include "support/uv_faults.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <uv.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using namespace mivo_test;

namespace {

// Time for the server to do what it must not do.
constexpr std::chrono::milliseconds kMoment{50};

constexpr char kClosingLines[] = "Server Closing!\nServer Closed!\n";

int Log(IServer* server, std::string text, int level) {
  return server->log(text.data(), level);
}

std::string StartLine(Transport transport, const std::string& name) {
  return std::string(transport == Transport::Local ? "Pipe " : "Tcp ") + kBanner + " port:" + name + "\n";
}

bool IsSocket(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
}

bool Exists(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0;
}

Address Local(const std::string& name) {
  return {Transport::Local, "", name};
}

// The port that this process listens on; 0 when there is not exactly one.
int OnlyListeningPort() {
  std::set<int> ports;
  for (int descriptor = 0; descriptor < 1024; ++descriptor) {
    int listening = 0;
    socklen_t size = sizeof listening;
    if (getsockopt(descriptor, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) != 0 || listening == 0) continue;
    sockaddr_storage name{};
    socklen_t name_size = sizeof name;
    if (getsockname(descriptor, reinterpret_cast<sockaddr*>(&name), &name_size) != 0) continue;
    if (name.ss_family == AF_INET) {
      ports.insert(ntohs(reinterpret_cast<sockaddr_in*>(&name)->sin_port));
    } else if (name.ss_family == AF_INET6) {
      ports.insert(ntohs(reinterpret_cast<sockaddr_in6*>(&name)->sin6_port));
    }
  }
  return ports.size() == 1 ? *ports.begin() : 0;
}

class ServerLifecycle : public testing::TestWithParam<Transport> {
 protected:
  // libuv makes some threads and descriptors once and keeps them.
  static void WarmUp(Transport transport) {
    TestServer server(transport);
    server.On("warm", [](int, MIVOParams*, MIVOParams*) {});
    ASSERT_TRUE(server.Init());
    RawPeer peer = server.Connect();
    ASSERT_TRUE(peer.Exchange(Request({"warm", 1})).has_value());
  }
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, ServerLifecycle, kEveryTransport, TransportName);

class ServerPorts : public testing::TestWithParam<Transport> {};

INSTANTIATE_TEST_SUITE_P(OnTcp, ServerPorts, kTcpOnly, TransportName);

// --- A server that was never started

TEST(FreshServer, IsNotRunning) {
  TestServer server(Transport::Local);
  ASSERT_NE(server.get(), nullptr);
  EXPECT_FALSE(server->isok());
  EXPECT_FALSE(server->isthread());
  EXPECT_EQ(server->GetClientCount(), 0);
}

TEST(FreshServer, DestroyingNothingDoesNothing) {
  DestroyServer(nullptr);
}

TEST(FreshServer, CloseSaysNothingAndIsTrue) {
  TestServer server(Transport::Local);
  StdoutCapture output;
  EXPECT_TRUE(server->close());
  EXPECT_TRUE(server->close());
  server.Destroy();
  EXPECT_EQ(output.Text(), "");
}

TEST(FreshServer, CloseAsyncPrintsItsLineAndIsTrue) {
  TestServer server(Transport::Local);
  StdoutCapture output;
  EXPECT_TRUE(server->closeasync());
  EXPECT_EQ(output.Text(), "server closeasync\n");
}

TEST(FreshServer, RunReturnsTrueAtOnce) {
  TestServer server(Transport::Local);
  EXPECT_TRUE(server->run());
  EXPECT_FALSE(server->isok());
}

TEST(FreshServer, DestructionLeavesItsHandlersAlone) {
  Deletions deletions;
  LambdaMethod method(nullptr, &deletions);
  LambdaMethodAll method_all(nullptr, &deletions);
  TestServer server(Transport::Local);
  server->method("name", &method);
  server->methodall(&method_all);
  server->close();
  server.Destroy();
  EXPECT_EQ(deletions.count, 0);
}

TEST(FreshServer, TakesEverySettingBeforeItIsStarted) {
  TestServer server(Transport::Local);
  server->SetTimeoutStep(0);
  server->SetTimeoutStep(-5);
  server->SetTimeoutStep(10);
  server->ClearRetvalMem();
  server->SetCustomReleaseEvent();
  server->method(nullptr, nullptr);
  server->methodall(nullptr);
  EXPECT_EQ(server->SendMsg(1, nullptr, nullptr, 0, 0), nullptr);
  EXPECT_EQ(server->PostMsg(1, nullptr, nullptr, 0), 0);
}

// --- Names and addresses

TEST(ServerNames, InitListensOnTheSocketNamedByTheNumber) {
  TestServer server(Transport::Local);
  StdoutCapture output;
  ASSERT_TRUE(server.Init());
  EXPECT_TRUE(server->isok());
  EXPECT_TRUE(server->isthread());
  EXPECT_EQ(std::to_string(server->GetPort()), server.address().name);
  EXPECT_TRUE(IsSocket(SocketPath(server.address().name)));
  EXPECT_EQ(output.Text(), StartLine(Transport::Local, server.address().name) + ChownRemark(Transport::Local));
}

TEST(ServerNames, InitFormatsTheNumberAnew) {
  const std::string name = UniqueSocketName();
  for (const std::string& text : {"00" + name, " +" + name, name + "x"}) {
    Journal published;
    TestServer server(Local(name));
    server.On("s_c_createport",
              [&](int, MIVOParams* request, MIVOParams*) { published.Add(request->GetValue(0)->GetString()); });
    StdoutCapture output;
    ASSERT_TRUE(server->InitMIVOServer(text.c_str()));
    EXPECT_TRUE(IsSocket(SocketPath(name)));
    EXPECT_FALSE(Exists(SocketPath(text)));
    EXPECT_EQ(published.lines(), Lines{name});
    EXPECT_EQ(output.Text(), StartLine(Transport::Local, name) + ChownRemark(Transport::Local));
    EXPECT_TRUE(server.Connect().AnswersInOrder());
  }
}

TEST(ServerNames, InitTakesATextThatIsNoNumberAsZero) {
  const SharedNames turn;
  for (const char* text : {"abc", "", static_cast<const char*>(nullptr)}) {
    TestServer server(Local("0"));
    ASSERT_TRUE(server->InitMIVOServer(text));
    EXPECT_EQ(server->GetPort(), 0);
    EXPECT_TRUE(server.Connect().AnswersInOrder());
  }
}

TEST(ServerNames, InitSurvivesANumberThatIsTooLarge) {
  const SharedNames turn;
  StdoutCapture output;
  TestServer server(Transport::Local);
  const bool listens = server->InitMIVOServer("99999999999999999999");
  EXPECT_EQ(listens, server->isok());
  EXPECT_TRUE(output.Contains("Pipe ")) << "it tried";
}

TEST(ServerNames, StartTakesTheNameAsItIs) {
  const std::string number = UniqueSocketName();
  struct Case {
    std::string name;
    int port;
  };
  for (const Case& expected : {Case{"abc" + number, 0}, Case{number + "x", std::stoi(number)},
                               Case{"00" + number, std::stoi(number)}, Case{"with blank " + number, 0}}) {
    TestServer server(Local(expected.name));
    StdoutCapture output;
    ASSERT_TRUE(server.Start()) << expected.name;
    EXPECT_TRUE(server->isok());
    EXPECT_FALSE(server->isthread());
    EXPECT_EQ(server->GetPort(), expected.port);
    EXPECT_TRUE(IsSocket(SocketPath(expected.name)));
    EXPECT_EQ(output.Text(), StartLine(Transport::Local, expected.name) + ChownRemark(Transport::Local));
    server.Destroy();
    EXPECT_FALSE(Exists(SocketPath(expected.name)));
  }
}

TEST(ServerNames, StartTakesNullAsTheEmptyName) {
  const SharedNames turn;
  TestServer server(Local(""));
  ASSERT_TRUE(server->StartMIVOServer(nullptr));
  EXPECT_TRUE(IsSocket(SocketPath("")));
}

TEST(ServerNames, APathMayFillTheAddressAndNoMore) {
  constexpr std::size_t kLongestPath = 107;
  std::string name = UniqueSocketName();
  name.resize(kLongestPath - SocketPath("").size(), 'n');
  {
    TestServer server(Local(name));
    ASSERT_TRUE(server.Start());
    EXPECT_TRUE(IsSocket(SocketPath(name)));
  }
  TestServer server(Local(name + "n"));
  StdoutCapture output;
  EXPECT_FALSE(server.Start());
  EXPECT_FALSE(server->isok());
  EXPECT_EQ(output.Text(), StartLine(Transport::Local, name + "n") + "Bind error: ENAMETOOLONG\n");
  EXPECT_FALSE(Exists(SocketPath(name)));
}

TEST(ServerNames, AMissingFolderIsABindError) {
  TestServer server(Transport::Local);
  const std::string name = UniqueSocketName() + "/no/such/folder";
  StdoutCapture output;
  EXPECT_FALSE(server->StartMIVOServer(name.c_str()));
  EXPECT_FALSE(server->isok());
  EXPECT_EQ(output.Text(), StartLine(Transport::Local, name) + "Bind error: EACCES\n");
}

TEST(ServerNames, PortZeroIsChosenByTheSystemAndNotReadBack) {
  for (const char* text : {"0", "no number", "", static_cast<const char*>(nullptr)}) {
    Journal published;
    TestServer server(Transport::Tcp4);
    server.On("s_c_createport",
              [&](int, MIVOParams* request, MIVOParams*) { published.Add(request->GetValue(0)->GetString()); });
    ASSERT_TRUE(server->InitMIVOServerTcp4("127.0.0.1", text));
    EXPECT_EQ(server->GetPort(), 0);
    EXPECT_EQ(published.lines(), Lines{"0"});
    const int port = OnlyListeningPort();
    ASSERT_NE(port, 0);
    EXPECT_TRUE(RawPeer::ConnectTo({Transport::Tcp4, "127.0.0.1", std::to_string(port)}).AnswersInOrder());
  }
}

TEST(ServerNames, AnAddressThatIsNoneListensOnEveryAddress) {
  for (const char* text : {"bad", "", "1.2.3", "::1", static_cast<const char*>(nullptr)}) {
    const int port = FreePort(Transport::Tcp4);
    TestServer server({Transport::Tcp4, "127.0.0.1", std::to_string(port)});
    ASSERT_TRUE(server->InitMIVOServerTcp4(text, std::to_string(port).c_str()));
    EXPECT_TRUE(server.Connect().AnswersInOrder());
    // Any address of the machine, not the usual one only.
    EXPECT_TRUE(RawPeer::ConnectTo({Transport::Tcp4, "127.8.8.8", std::to_string(port)}).AnswersInOrder());
  }
  for (const char* text : {"bad", "", "127.0.0.1", static_cast<const char*>(nullptr)}) {
    const int port = FreePort(Transport::Tcp6);
    TestServer server({Transport::Tcp6, "::1", std::to_string(port)});
    ASSERT_TRUE(server->InitMIVOServerTcp6(text, std::to_string(port).c_str()));
    EXPECT_TRUE(server.Connect().AnswersInOrder());
    // Those of the other family too.
    EXPECT_TRUE(RawPeer::ConnectTo({Transport::Tcp4, "127.0.0.1", std::to_string(port)}).AnswersInOrder());
  }
}

TEST(ServerNames, AnAddressOfAnotherMachineIsABindError) {
  const std::string port = std::to_string(FreePort(Transport::Tcp4));
  {
    TestServer server(Transport::Tcp4);
    StdoutCapture output;
    EXPECT_FALSE(server->InitMIVOServerTcp4("192.0.2.1", port.c_str()));
    EXPECT_FALSE(server->isok());
    EXPECT_EQ(output.Text(), StartLine(Transport::Tcp4, port) + "Bind error: EADDRNOTAVAIL\n");
  }
  TestServer server(Transport::Tcp6);
  StdoutCapture output;
  EXPECT_FALSE(server->StartMIVOServerTcp6("2001:db8::1", port.c_str()));
  EXPECT_EQ(output.Text(), StartLine(Transport::Tcp6, port) + "Bind error: EADDRNOTAVAIL\n");
}

TEST_P(ServerPorts, APortInUseIsAListenError) {
  TestServer first(GetParam());
  ASSERT_TRUE(first.Init());
  TestServer second(first.address());
  StdoutCapture output;
  EXPECT_FALSE(second.Init());
  EXPECT_EQ(output.Text(), StartLine(GetParam(), first.address().name) + "Listen error: EADDRINUSE\n");
  EXPECT_TRUE(first.Connect().AnswersInOrder());
}

TEST_P(ServerPorts, ATextThatIsTooLargeHurtsNobody) {
  for (const char* text : {"99999999999", "-1", "65536", "9223372036854775808"}) {
    TestServer server(Address{GetParam(), GetParam() == Transport::Tcp4 ? "127.0.0.1" : "::1", text});
    StdoutCapture output;
    const bool listens = server.Init();
    EXPECT_EQ(listens, server->isok());
    EXPECT_TRUE(output.Contains("Tcp ")) << "it tried";
  }
}

// --- Starting

TEST_P(ServerLifecycle, InitServesWhenItReturns) {
  TestServer server(GetParam());
  StdoutCapture output;
  ASSERT_TRUE(server.Init());
  EXPECT_TRUE(server->isok());
  EXPECT_TRUE(server->isthread());
  EXPECT_EQ(std::to_string(server->GetPort()), server.address().name);
  EXPECT_EQ(output.Text(), StartLine(GetParam(), server.address().name) + ChownRemark(GetParam()));
  EXPECT_TRUE(server.Connect().AnswersInOrder());
}

TEST_P(ServerLifecycle, StartAndRunServeOnTheCallersThread) {
  Journal threads;
  TestServer server(GetParam());
  server.On("s_c_connect", [&](int, MIVOParams*, MIVOParams*) {
    threads.Add(std::to_string(std::hash<std::thread::id>()(std::this_thread::get_id())));
  });
  server.On("add", [](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(4); });
  ASSERT_TRUE(server.Start());
  EXPECT_TRUE(server->isok());
  EXPECT_FALSE(server->isthread());
  EXPECT_EQ(std::to_string(server->GetPort()), server.address().name);
  bool result = false;
  std::string running_thread;
  std::thread runner([&] {
    running_thread = std::to_string(std::hash<std::thread::id>()(std::this_thread::get_id()));
    result = server->run();
  });
  RawPeer peer = server.Connect();
  EXPECT_EQ(peer.Exchange(Request({"add", 1})), ServerReply(Wire().Int(4), 1, std::nullopt));
  EXPECT_TRUE(server->closeasync());
  runner.join();
  EXPECT_TRUE(result);
  EXPECT_FALSE(server->isok());
  EXPECT_EQ(threads.lines(), Lines{running_thread});
  EXPECT_TRUE(peer.ReadEof());
}

TEST_P(ServerLifecycle, TheNameIsPublishedOnceWhenListeningHasBegun) {
  Journal published;
  std::atomic<bool> reachable{false};
  TestServer server(GetParam());
  server.On("s_c_createport", [&](int client_id, MIVOParams* request, MIVOParams* reply) {
    EXPECT_EQ(client_id, 0);
    EXPECT_EQ(reply, nullptr);
    ASSERT_NE(request, nullptr);
    EXPECT_EQ(request->ParamsSize(), 1);
    EXPECT_EQ(request->MapSize(), 0);
    ASSERT_TRUE(request->GetValue(0)->IsString());
    published.Add(request->GetValue(0)->GetString());
    reachable = server.Connect().connected();
  });
  ASSERT_TRUE(server.Init());
  EXPECT_EQ(published.lines(), Lines{server.address().name});
  EXPECT_TRUE(reachable);
  EXPECT_TRUE(server.Connect().AnswersInOrder());
  EXPECT_EQ(published.lines().size(), 1u);
}

TEST_P(ServerLifecycle, TheNameIsNotPublishedWhenListeningFails) {
  for (const Fault step : {Fault::kBindCall, Fault::kListenCall}) {
    Journal published;
    LambdaMethod handler([&](int, MIVOParams*, MIVOParams*) { published.Add("published"); });
    TestServer server(GetParam());
    server->SetCustomReleaseEvent();
    server->method("s_c_createport", &handler);
    ScopedFault fault(step, 1, 1, UV_EADDRINUSE);
    EXPECT_FALSE(server.Init());
    EXPECT_EQ(fault.failures(), 1);
    EXPECT_EQ(published.lines(), Lines{});
    EXPECT_TRUE(server.Init());
    EXPECT_EQ(published.lines(), Lines{"published"});
  }
}

TEST_P(ServerLifecycle, EveryFailedStepOfAStartLeavesTheServerFitForTheNext) {
  WarmUp(GetParam());
  struct Step {
    Fault fault;
    int first;
    const char* line;
  };
  for (const Step& step :
       {Step{Fault::kLoopInit, 1, ""}, Step{Fault::kSocketCall, 1, "Bind error: EMFILE\n"},
        Step{Fault::kBindCall, 1, "Bind error: EMFILE\n"}, Step{Fault::kListenCall, 1, "Listen error: EMFILE\n"},
        Step{Fault::kAsyncInit, 1, ""}, Step{Fault::kThreadCreate, 1, ""}}) {
    SCOPED_TRACE("fault " + std::to_string(static_cast<int>(step.fault)) + ", call " + std::to_string(step.first));
    for (const bool own_thread : {true, false}) {
      SCOPED_TRACE(own_thread ? "Init" : "Start");
      TestServer server(GetParam());
      const Resources before = CountResources();
      StdoutCapture output;
      {
        ScopedFault fault(step.fault, step.first, 1, UV_EMFILE);
        const bool listens = own_thread ? server.Init() : server.Start();
        EXPECT_EQ(listens, fault.failures() == 0);
        EXPECT_EQ(server->isok(), listens);
        if (step.first == 1 && (own_thread || step.fault != Fault::kThreadCreate)) {
          EXPECT_EQ(fault.failures(), 1) << "the step was not taken";
        }
        if (listens) continue;
      }
      EXPECT_TRUE(output.Contains(step.line));
      // The capture itself holds two descriptors.
      ExpectSameResources({before.threads, before.descriptors + 2});
      ASSERT_TRUE(server.Init());
      EXPECT_TRUE(server.Connect().AnswersInOrder());
    }
  }
}

TEST_P(ServerLifecycle, AFailedInitIsDestroyedLikeAServerThatDoesNotRun) {
  WarmUp(GetParam());
  const Resources before = CountResources();
  {
    TestServer server(GetParam());
    ScopedFault fault(Fault::kListenCall, 1, 1, UV_EADDRINUSE);
    StdoutCapture output;
    EXPECT_FALSE(server.Init());
    EXPECT_TRUE(server->isthread());
    const std::size_t printed = output.Size();
    server.Destroy();
    EXPECT_EQ(output.TextFrom(printed), "server closeasync\n");
  }
  ExpectSameResources({before.threads, before.descriptors + (GetParam() == Transport::Local ? 0 : 1)});
}

TEST_P(ServerLifecycle, AStartOnARunningServerIsRefusedAndTheFirstServesOn) {
  TestServer server(GetParam());
  ASSERT_TRUE(server.Init());
  RawPeer peer = server.Connect();
  ASSERT_TRUE(peer.AnswersInOrder());
  const std::string other = UniqueSocketName();
  const std::string port = std::to_string(FreePort(Transport::Tcp4));
  EXPECT_FALSE(server.Init());
  EXPECT_FALSE(server.Start());
  EXPECT_FALSE(server->InitMIVOServer(other.c_str()));
  EXPECT_FALSE(server->StartMIVOServer(other.c_str()));
  EXPECT_FALSE(server->InitMIVOServerTcp4("127.0.0.1", port.c_str()));
  EXPECT_FALSE(server->StartMIVOServerTcp4("127.0.0.1", port.c_str()));
  EXPECT_FALSE(server->InitMIVOServerTcp6("::1", port.c_str()));
  EXPECT_FALSE(server->StartMIVOServerTcp6("::1", port.c_str()));
  EXPECT_TRUE(server->isok());
  EXPECT_EQ(std::to_string(server->GetPort()), server.address().name);
  EXPECT_FALSE(Exists(SocketPath(other)));
  EXPECT_TRUE(peer.AnswersInOrder());
  EXPECT_TRUE(server.Connect().AnswersInOrder());
}

TEST_P(ServerLifecycle, ServesAgainAfterAClose) {
  TestServer server(GetParam());
  for (int round = 1; round <= 3; ++round) {
    server.On("round", [round](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(round); });
    Event connected;
    std::atomic<int> id{0};
    server.On("s_c_connect", [&](int client_id, MIVOParams*, MIVOParams*) {
      id = client_id;
      connected.Signal();
    });
    ASSERT_TRUE(server.Init()) << round;
    RawPeer peer = server.Connect();
    EXPECT_EQ(peer.Exchange(Request({"round", 1})), ServerReply(Wire().Int(round), 1, std::nullopt));
    ASSERT_TRUE(connected.WaitFor());
    // The sweep of the time-outs runs in each round.
    EXPECT_EQ(server->SendMsg(id, "unanswered", nullptr, 3, 1), nullptr);
    EXPECT_TRUE(peer.ReadFrame().has_value());
    EXPECT_TRUE(server->close());
    EXPECT_TRUE(peer.ReadEof());
    EXPECT_FALSE(server->isok());
  }
}

TEST_P(ServerLifecycle, StartsAgainWhetherItRanOrNot) {
  TestServer server(GetParam());
  for (int round = 0; round < 3; ++round) {
    ASSERT_TRUE(server.Start()) << "closed without having run, " << round;
    EXPECT_TRUE(server->close());
    ASSERT_TRUE(server.Start()) << round;
    std::thread runner([&] { EXPECT_TRUE(server->run()); });
    EXPECT_TRUE(server.Connect().AnswersInOrder());
    EXPECT_TRUE(server->close());
    runner.join();
  }
}

TEST_P(ServerLifecycle, RunBesideTheServersOwnThreadReturnsWhenTheServerIsClosed) {
  TestServer server(GetParam());
  ASSERT_TRUE(server.Init());
  Event returned;
  std::thread runner([&] {
    EXPECT_TRUE(server->run());
    returned.Signal();
  });
  EXPECT_TRUE(server.Connect().AnswersInOrder());
  EXPECT_TRUE(server->close());
  EXPECT_TRUE(returned.WaitFor());
  runner.join();
}

TEST_P(ServerLifecycle, TwoServersOfAProcessAreIndependent) {
  TestServer first(GetParam());
  TestServer second(GetParam());
  first.On("who", [](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(1); });
  second.On("who", [](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(2); });
  ASSERT_TRUE(first.Init());
  ASSERT_TRUE(second.Init());
  RawPeer to_first = first.Connect();
  RawPeer to_second = second.Connect();
  EXPECT_EQ(to_first.Exchange(Request({"who", 1})), ServerReply(Wire().Int(1), 1, std::nullopt));
  EXPECT_EQ(to_second.Exchange(Request({"who", 1})), ServerReply(Wire().Int(2), 1, std::nullopt));
  first.Destroy();
  EXPECT_TRUE(to_first.ReadEof());
  EXPECT_EQ(to_second.Exchange(Request({"who", 1})), ServerReply(Wire().Int(2), 1, std::nullopt));
}

TEST(ServerNames, ANewcomerTakesTheNameOverAndTheConnectionsStay) {
  TestServer first(Transport::Local);
  first.On("who", [](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(1); });
  ASSERT_TRUE(first.Init());
  RawPeer to_first = first.Connect();
  ASSERT_TRUE(to_first.AnswersInOrder());
  TestServer second(first.address());
  second.On("who", [](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(2); });
  ASSERT_TRUE(second.Init());
  EXPECT_EQ(second.Connect().Exchange(Request({"who", 1})), ServerReply(Wire().Int(2), 1, std::nullopt));
  EXPECT_EQ(to_first.Exchange(Request({"who", 1})), ServerReply(Wire().Int(1), 1, std::nullopt));
}

// --- Settings

// The first look at the time-outs comes 500 ms after the first call, then one every step.
TEST_P(ServerLifecycle, AStepBelowOneMillisecondMeansAHundred) {
  for (const int step : {0, -5}) {
    Event connected;
    std::atomic<int> id{0};
    TestServer server(GetParam());
    server.On("s_c_connect", [&](int client_id, MIVOParams*, MIVOParams*) {
      id = client_id;
      connected.Signal();
    });
    server->SetTimeoutStep(step);
    ASSERT_TRUE(server.Init());
    RawPeer peer = server.Connect();
    ASSERT_TRUE(connected.WaitFor());
    const Stopwatch first;
    EXPECT_EQ(server->SendMsg(id, "unanswered", nullptr, 3, 0), nullptr);
    EXPECT_GE(first.ElapsedMs(), 490);
    const Stopwatch following;
    for (int i = 0; i < 5; ++i)
      EXPECT_EQ(server->SendMsg(id, "unanswered", nullptr, 3, 0), nullptr);
    EXPECT_GE(following.ElapsedMs(), 390);
  }
}

TEST_P(ServerLifecycle, TimeOutsAreLookedAtEveryStep) {
  Event connected;
  std::atomic<int> id{0};
  TestServer server(GetParam());
  server.On("s_c_connect", [&](int client_id, MIVOParams*, MIVOParams*) {
    id = client_id;
    connected.Signal();
  });
  server->SetTimeoutStep(1000);
  ASSERT_TRUE(server.Init());
  RawPeer peer = server.Connect();
  ASSERT_TRUE(connected.WaitFor());
  // One watch for both: this thread may be late to see the first one end.
  const Stopwatch watch;
  EXPECT_EQ(server->SendMsg(id, "unanswered", nullptr, 3, 100), nullptr);
  EXPECT_GE(watch.ElapsedMs(), 450);
  EXPECT_EQ(server->SendMsg(id, "unanswered", nullptr, 3, 100), nullptr);
  EXPECT_GE(watch.ElapsedMs(), 1350);
}

TEST_P(ServerLifecycle, TheStepMayBeChangedWhileServing) {
  Event connected;
  std::atomic<int> id{0};
  TestServer server(GetParam());
  server.On("s_c_connect", [&](int client_id, MIVOParams*, MIVOParams*) {
    id = client_id;
    connected.Signal();
  });
  ASSERT_TRUE(server.Init());
  RawPeer peer = server.Connect();
  ASSERT_TRUE(connected.WaitFor());
  EXPECT_EQ(server->SendMsg(id, "unanswered", nullptr, 3, 0), nullptr);
  const Stopwatch watch;
  server->SetTimeoutStep(700);
  // One look may still come at the old step, and two at the new one. One watch for all: this thread may be late to see
  // a call end.
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(server->SendMsg(id, "unanswered", nullptr, 3, 0), nullptr);
  EXPECT_GE(watch.ElapsedMs(), 1200);
}

TEST(ServerSettings, TheLogTextNamesNoFile) {
  TestServer server(Transport::Local);
  const std::string path = "/tmp/mivo_test_log_" + UniqueSocketName();
  EXPECT_EQ(Log(server.get(), path, 1), 1);
  ASSERT_TRUE(server.Init());
  server.Destroy();
  EXPECT_FALSE(Exists(path));
}

TEST(ServerSettings, TheSliceSizeIsSharedByTheWholeProcess) {
  IClient* const client = CreateClient();
  const int before = client->GetBigfileBufferSize();
  TestServer server(Transport::Local);
  server->SetBigfileBufferSize(777);
  EXPECT_EQ(client->GetBigfileBufferSize(), 777);
  server->SetBigfileBufferSize(-1);
  EXPECT_EQ(client->GetBigfileBufferSize(), -1);
  server->SetBigfileBufferSize(before);
  DestroyClient(client);
}

TEST_P(ServerLifecycle, ClearingTheRepliesFreesThemAndNothingElse) {
  Event connected;
  std::atomic<int> id{0};
  TestServer server(GetParam());
  server.On("s_c_connect", [&](int client_id, MIVOParams*, MIVOParams*) {
    id = client_id;
    connected.Signal();
  });
  ASSERT_TRUE(server.Init());
  RawPeer peer = server.Connect();
  ASSERT_TRUE(connected.WaitFor());
  std::thread answering([&] {
    for (int i = 0; i < 2; ++i) {
      const auto request = peer.ReadFrame();
      ASSERT_TRUE(request.has_value());
      peer.SendFrame(ClientReply(Wire().Int(i), *IntOf(*request, "s_c_sw_threadid"), TextOf(*request, "s_c_sw_semid")));
    }
  });
  MIVOParams* const first = server->SendMsg(id, "name", nullptr, 5, 60000);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->GetValue(0)->GetInt(), 0);
  server->ClearRetvalMem();
  server->ClearRetvalMem();
  // Nothing is stored any more that could stand in for a reply.
  EXPECT_EQ(server->SendMsg(id + 1, "name", nullptr, 5, 60000), nullptr);
  MIVOParams* const second = server->SendMsg(id, "name", nullptr, 5, 60000);
  answering.join();
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(second->GetValue(0)->GetInt(), 1);
}

// --- Closing

TEST_P(ServerLifecycle, CloseWithoutALoopRunningHappensAtOnce) {
  TestServer server(GetParam());
  ASSERT_TRUE(server.Start());
  StdoutCapture output;
  EXPECT_TRUE(server->close());
  EXPECT_FALSE(server->isok());
  EXPECT_EQ(output.Text(), kClosingLines);
  EXPECT_TRUE(server->close());
  EXPECT_EQ(output.Text(), kClosingLines) << "a second close says nothing";
  EXPECT_TRUE(server->run());
}

TEST_P(ServerLifecycle, CloseOnAnotherThreadReturnsWhenTheServerIsClosed) {
  Deletions deletions;
  TestServer server(GetParam());
  server.On("name", nullptr, &deletions);
  ASSERT_TRUE(server.Init());
  RawPeer peer = server.Connect();
  ASSERT_TRUE(peer.AnswersInOrder());
  StdoutCapture output;
  EXPECT_TRUE(server->close());
  EXPECT_FALSE(server->isok());
  EXPECT_TRUE(output.Contains(kClosingLines));
  EXPECT_EQ(deletions.count, 1);
  EXPECT_TRUE(server->close());
  EXPECT_EQ(output.Count("Server Closing!\n"), 1);
  EXPECT_TRUE(peer.ReadEof());
}

TEST_P(ServerLifecycle, CloseOnTheLoopThreadIsTheServersEnd) {
  std::atomic<bool> result{false};
  TestServer server(GetParam());
  server.On("s_c_connect", [&](int, MIVOParams*, MIVOParams*) { result = server->close(); });
  ASSERT_TRUE(server.Init());
  RawPeer peer = server.Connect();
  EXPECT_TRUE(peer.ReadEof());
  EXPECT_TRUE(Eventually([&] { return result.load(); }));
  EXPECT_FALSE(server->isok());
  EXPECT_TRUE(server->close());
}

TEST_P(ServerLifecycle, CloseAsyncTakesTenMillisecondsAndTheServerEnds) {
  TestServer server(GetParam());
  ASSERT_TRUE(server.Init());
  RawPeer peer = server.Connect();
  ASSERT_TRUE(peer.AnswersInOrder());
  StdoutCapture output;
  const Stopwatch watch;
  EXPECT_TRUE(server->closeasync());
  EXPECT_GE(watch.ElapsedMs(), 10);
  EXPECT_TRUE(peer.ReadEof());
  EXPECT_TRUE(Eventually([&] { return !server->isok(); }));
  EXPECT_TRUE(output.WaitFor(kClosingLines));
}

TEST_P(ServerLifecycle, CloseAsyncDoesNotWaitForABusyLoop) {
  Event entered;
  Event leave;
  TestServer server(GetParam());
  server.On("s_c_connect", [&](int, MIVOParams*, MIVOParams*) {
    entered.Signal();
    leave.WaitFor();
  });
  ASSERT_TRUE(server.Init());
  RawPeer peer = server.Connect();
  ASSERT_TRUE(entered.WaitFor());
  EXPECT_TRUE(server->closeasync());
  EXPECT_TRUE(server->isok()) << "the loop has not got to it";
  leave.Signal();
  EXPECT_TRUE(Eventually([&] { return !server->isok(); }));
}

TEST_P(ServerLifecycle, ManyMayCloseAtOnce) {
  for (int round = 0; round < 10; ++round) {
    TestServer server(GetParam());
    ASSERT_TRUE(server.Init());
    RawPeer peer = server.Connect();
    std::vector<std::thread> closers;
    for (int i = 0; i < 4; ++i) {
      closers.emplace_back([&server, i] { i % 2 == 0 ? server->closeasync() : server->close(); });
    }
    for (std::thread& closer : closers)
      closer.join();
    EXPECT_FALSE(server->isok()) << "close has waited";
    EXPECT_TRUE(peer.ReadEof());
  }
}

TEST(ServerNames, TheSocketOfAClosedServerIsGone) {
  TestServer server(Transport::Local);
  ASSERT_TRUE(server.Init());
  ASSERT_TRUE(IsSocket(SocketPath(server.address().name)));
  EXPECT_TRUE(server->close());
  server.Destroy();
  EXPECT_FALSE(Exists(SocketPath(server.address().name)));
}

TEST_P(ServerLifecycle, ServesAgainUnderTheSameNameAfterDestruction) {
  const Address address = FreeAddress(GetParam());
  for (int round = 0; round < 3; ++round) {
    TestServer server(address);
    ASSERT_TRUE(server.Init()) << round;
    RawPeer peer = server.Connect();
    EXPECT_TRUE(peer.AnswersInOrder());
    // The server ends first: on TCP its port is then the one in time-wait.
    server.Destroy();
    EXPECT_TRUE(peer.ReadEof());
  }
}

// --- Who deletes the handlers

TEST_P(ServerLifecycle, CloseDeletesEveryHandlerOnce) {
  Deletions deletions;
  TestServer server(GetParam());
  for (const char* name : {"a", "b", "s_c_connect", "s_c_closed", "s_c_createport"})
    server.On(name, nullptr, &deletions);
  server.OnEveryOther(nullptr, &deletions);
  ASSERT_TRUE(server.Init());
  EXPECT_TRUE(server->close());
  EXPECT_EQ(deletions.count, 6);
  server.Destroy();
  EXPECT_EQ(deletions.count, 6);
}

TEST_P(ServerLifecycle, CloseWithoutALoopRunningHasDeletedTheHandlersWhenItReturns) {
  Deletions deletions;
  TestServer server(GetParam());
  server.On("name", nullptr, &deletions);
  server.OnEveryOther(nullptr, &deletions);
  ASSERT_TRUE(server.Start());
  EXPECT_TRUE(server->close());
  EXPECT_EQ(deletions.count, 2);
}

TEST_P(ServerLifecycle, DestroyDeletesTheHandlersOfARunningServer) {
  for (const bool own_thread : {true, false}) {
    Deletions deletions;
    TestServer server(GetParam());
    server.On("name", nullptr, &deletions);
    server.OnEveryOther(nullptr, &deletions);
    ASSERT_TRUE(own_thread ? server.Init() : server.Start());
    server.Destroy();
    EXPECT_EQ(deletions.count, 2);
  }
}

TEST_P(ServerLifecycle, AHandlerUnderTwoNamesIsDeletedOnce) {
  Deletions deletions;
  TestServer server(GetParam());
  auto* const handler = new LambdaMethod(nullptr, &deletions);
  server->method("one", handler);
  server->method("two", handler);
  ASSERT_TRUE(server.Init());
  EXPECT_TRUE(server->close());
  EXPECT_EQ(deletions.count, 1);
}

TEST_P(ServerLifecycle, CustomReleaseLeavesTheHandlersToTheApplication) {
  Deletions deletions;
  LambdaMethod method([](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(1); }, &deletions);
  LambdaMethodAll method_all(nullptr, &deletions);
  TestServer server(GetParam());
  server->SetCustomReleaseEvent();
  server->method("name", &method);
  server->methodall(&method_all);
  ASSERT_TRUE(server.Init());
  EXPECT_EQ(server.Connect().Exchange(Request({"name", 1})), ServerReply(Wire().Int(1), 1, std::nullopt));
  EXPECT_TRUE(server->close());
  server.Destroy();
  EXPECT_EQ(deletions.count, 0);
}

TEST_P(ServerLifecycle, CustomReleaseKeepsTheHandlersThroughARestart) {
  LambdaMethod method([](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(1); });
  TestServer server(GetParam());
  server->SetCustomReleaseEvent();
  server->method("name", &method);
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(server.Init());
    EXPECT_EQ(server.Connect().Exchange(Request({"name", 1})), ServerReply(Wire().Int(1), 1, std::nullopt));
    EXPECT_TRUE(server->close());
  }
}

TEST_P(ServerLifecycle, TheSinkIsNeverDeleted) {
  Deletions deletions;
  LambdaMethod sink(nullptr, &deletions);
  TestServer server(GetParam());
  server->method("s_c_log", &sink);
  ASSERT_TRUE(server.Init());
  EXPECT_TRUE(server->close());
  server.Destroy();
  EXPECT_EQ(deletions.count, 0);
}

// As a method it is the server's; the last line of the close must not reach it any more.
TEST_P(ServerLifecycle, ASinkThatIsAlsoAMethodIsDeletedOnceAndNotCalledAgain) {
  Deletions deletions;
  Journal journal;
  TestServer server(GetParam());
  auto* const both = new LambdaMethod(
      [&](int, MIVOParams* request, MIVOParams*) {
        EXPECT_EQ(deletions.count, 0);
        journal.Add(request->GetValue(0)->GetString());
      },
      &deletions);
  server->method("s_c_log", both);
  server->method("name", both);
  StdoutCapture output;
  ASSERT_TRUE(server.Init());
  EXPECT_TRUE(server->close());
  EXPECT_EQ(deletions.count, 1);
  EXPECT_TRUE(journal.Contains("Server Closing!\n"));
  EXPECT_EQ(output.Text(), ChownRemark(GetParam()) + "Server Closed!\n");
}

TEST_P(ServerLifecycle, AReplacedHandlerIsTheApplicationsAgain) {
  Deletions replaced;
  Deletions kept;
  LambdaMethod old_method(nullptr, &replaced);
  LambdaMethodAll old_method_all(nullptr, &replaced);
  TestServer server(GetParam());
  server->method("name", &old_method);
  server.On("name", nullptr, &kept);
  server->methodall(&old_method_all);
  server.OnEveryOther(nullptr, &kept);
  ASSERT_TRUE(server.Init());
  EXPECT_TRUE(server->close());
  server.Destroy();
  EXPECT_EQ(replaced.count, 0);
  EXPECT_EQ(kept.count, 2);
}

// The built-in receivers have no owner but the server, also where an application puts its own in their place.
TEST_P(ServerLifecycle, ReplacingABuiltInReceiverLosesNoMemory) {
  Deletions deletions;
  TestServer server(GetParam());
  server.On(
      "s_c_req_body", [](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(6); }, &deletions);
  ASSERT_TRUE(server.Init());
  EXPECT_EQ(server.Connect().Exchange(Request({"s_c_req_body", 1})), ServerReply(Wire().Int(6), 1, std::nullopt));
  server.Destroy();
  EXPECT_EQ(deletions.count, 1);
}

TEST_P(ServerLifecycle, AHandlerLivesUntilItHasReturned) {
  for (const bool destroy : {false, true}) {
    Event entered;
    Event leave;
    Event closed;
    Deletions deletions;
    std::atomic<int> deleted_while_running{-1};
    TestServer server(GetParam());
    server.On(
        "slow",
        [&](int, MIVOParams*, MIVOParams*) {
          entered.Signal();
          leave.WaitFor();
          deleted_while_running = deletions.count.load();
        },
        &deletions);
    ASSERT_TRUE(server.Init());
    RawPeer peer = server.Connect();
    ASSERT_TRUE(peer.SendFrame(Request({"slow", 1})));
    ASSERT_TRUE(entered.WaitFor());
    std::thread closer([&] {
      destroy ? server.Destroy() : static_cast<void>(server->close());
      closed.Signal();
    });
    EXPECT_TRUE(peer.ReadEof()) << "connections end without waiting for handlers";
    EXPECT_FALSE(closed.WaitFor(1, kMoment)) << "returned while a handler runs";
    leave.Signal();
    closer.join();
    EXPECT_EQ(deleted_while_running, 0);
    EXPECT_EQ(deletions.count, 1);
  }
}

TEST_P(ServerLifecycle, QueuedRequestsOfAClosedServerDoNoHarm) {
  Event entered;
  Event leave;
  TestServer server(GetParam());
  server.On("slow", [&](int, MIVOParams*, MIVOParams* reply) {
    entered.Signal();
    leave.WaitFor();
    reply->AddInt(1);
  });
  ASSERT_TRUE(server.Init());
  RawPeer peer = server.Connect();
  for (int i = 0; i < 50; ++i)
    ASSERT_TRUE(peer.SendFrame(Request({"slow", i})));
  ASSERT_TRUE(entered.WaitFor());
  ASSERT_TRUE(peer.WaitUntilTaken());
  std::thread closer([&] { server.Destroy(); });
  EXPECT_TRUE(peer.ReadEof());
  leave.Signal();
  closer.join();
}

// --- Destruction

TEST_P(ServerLifecycle, DestructionEndsTheConnections) {
  TestServer server(GetParam());
  ASSERT_TRUE(server.Init());
  std::vector<RawPeer> peers;
  for (int i = 0; i < 5; ++i) {
    peers.push_back(server.Connect());
    ASSERT_TRUE(peers.back().AnswersInOrder());
  }
  server.Destroy();
  for (RawPeer& peer : peers)
    EXPECT_TRUE(peer.ReadEof());
  EXPECT_FALSE(RawPeer::ConnectTo(server.address(), std::chrono::milliseconds(0)).connected());
  if (GetParam() == Transport::Local) {
    EXPECT_FALSE(Exists(SocketPath(server.address().name)));
  }
}

TEST_P(ServerLifecycle, DestructionWakesAHandlerThatWaitsForAClient) {
  std::atomic<bool> gave_null{false};
  TestServer server(GetParam());
  server.On("ask back", [&](int client_id, MIVOParams*, MIVOParams*) {
    gave_null = server->SendMsg(client_id, "unanswered", nullptr, 0, INT_MAX) == nullptr;
  });
  ASSERT_TRUE(server.Init());
  RawPeer peer = server.Connect();
  ASSERT_TRUE(peer.SendFrame(Request({"ask back", 1})));
  ASSERT_TRUE(peer.ReadFrame().has_value());
  server.Destroy();
  EXPECT_TRUE(gave_null);
}

TEST_P(ServerLifecycle, ADestroyedServerLeavesNothingBehindHoweverFarItCame) {
  WarmUp(GetParam());
  std::vector<std::unique_ptr<TestServer>> servers;
  for (int i = 0; i < 5; ++i)
    servers.push_back(std::make_unique<TestServer>(GetParam()));
  const Resources before = CountResources();
  servers[0]->Destroy();

  ASSERT_TRUE(servers[1]->Start());
  servers[1]->Destroy();

  ASSERT_TRUE(servers[2]->Start());
  EXPECT_TRUE(servers[2]->get()->close());
  servers[2]->Destroy();

  ASSERT_TRUE(servers[3]->Start());
  bool returned = false;
  std::thread runner([&] { returned = servers[3]->get()->run(); });
  EXPECT_TRUE(servers[3]->Connect().AnswersInOrder()) << "it runs";
  servers[3]->Destroy();
  runner.join();
  EXPECT_TRUE(returned);

  ASSERT_TRUE(servers[4]->Init());
  servers[4]->get()->closeasync();
  servers[4]->Destroy();
  ExpectSameResources(before);
}

TEST_P(ServerLifecycle, DestructionOfAStartedServerEndsConnectionsThatWereNotAccepted) {
  TestServer server(GetParam());
  ASSERT_TRUE(server.Start());
  RawPeer peer = server.Connect();
  ASSERT_TRUE(peer.connected());
  server.Destroy();
  EXPECT_TRUE(peer.ReadEof());
}

TEST_P(ServerLifecycle, DeletingTheObjectClosesItFirst) {
  WarmUp(GetParam());
  const Address address = FreeAddress(GetParam());
  const Resources before = CountResources();
  IServer* const server = CreateServer();
  ASSERT_TRUE(InitServer(server, address));
  {
    RawPeer peer = RawPeer::ConnectTo(address);
    ASSERT_TRUE(peer.AnswersInOrder());
    delete server;
    EXPECT_TRUE(peer.ReadEof());
  }
  ExpectSameResources(before);
}

TEST_P(ServerLifecycle, AHundredLivesLeaveNothingBehind) {
  WarmUp(GetParam());
  const Address address = FreeAddress(GetParam());
  const Resources before = CountResources();
  for (int i = 0; i < 100; ++i) {
    TestServer server(address);
    Log(server.get(), "", 0);
    ASSERT_TRUE(server.Init()) << i;
    EXPECT_TRUE(server.Connect().AnswersInOrder());
  }
  ExpectSameResources(before);
}

TEST_P(ServerLifecycle, AHandlerMayCloseItsServer) {
  for (const bool wait : {true, false}) {
    Deletions deletions;
    std::atomic<bool> result{false};
    Event returned;
    TestServer server(GetParam());
    server.On(
        "close",
        [&](int, MIVOParams*, MIVOParams*) {
          result = wait ? server->close() : server->closeasync();
          returned.Signal();
        },
        &deletions);
    ASSERT_TRUE(server.Init());
    RawPeer peer = server.Connect();
    ASSERT_TRUE(peer.SendFrame(Request({"close", 1})));
    ASSERT_TRUE(returned.WaitFor());
    EXPECT_TRUE(result);
    EXPECT_TRUE(Eventually([&] { return !server->isok(); }));
    EXPECT_TRUE(server->close());
    server.Destroy();
    EXPECT_EQ(deletions.count, 1);
  }
}

// It cannot serve there, nor wait for the end: the end waits for the handler.
TEST_P(ServerLifecycle, RunInAHandlerReturns) {
  Event entered;
  Event returned;
  TestServer server(GetParam());
  server.On("run", [&](int, MIVOParams*, MIVOParams*) {
    entered.Signal();
    EXPECT_TRUE(server->run());
    returned.Signal();
  });
  ASSERT_TRUE(server.Init());
  RawPeer peer = server.Connect();
  ASSERT_TRUE(peer.SendFrame(Request({"run", 1})));
  ASSERT_TRUE(entered.WaitFor());
  EXPECT_TRUE(server->closeasync());
  ASSERT_TRUE(returned.WaitFor());
}

TEST_P(ServerLifecycle, AHandlerCannotStartItsServer) {
  Journal journal;
  TestServer server(GetParam());
  server.On("start", [&](int, MIVOParams*, MIVOParams*) {
    server->closeasync();
    Eventually([&] { return !server->isok(); });
    journal.Add(server.Init() || server.Start() ? "started" : "refused");
  });
  ASSERT_TRUE(server.Init());
  RawPeer peer = server.Connect();
  ASSERT_TRUE(peer.SendFrame(Request({"start", 1})));
  EXPECT_TRUE(journal.WaitForSize(1));
  EXPECT_EQ(journal.lines(), Lines{"refused"});
}

TEST_P(ServerLifecycle, AHandlerMayDestroyItsServer) {
  WarmUp(GetParam());
  TestServer server(GetParam());
  const Resources before = CountResources();
  Deletions deletions;
  Event returned;
  server.On(
      "destroy",
      [&](int, MIVOParams*, MIVOParams*) {
        DestroyServer(server.Release());
        EXPECT_EQ(deletions.count, 0);
        returned.Signal();
      },
      &deletions);
  ASSERT_TRUE(server.Init());
  {
    RawPeer peer = server.Connect();
    ASSERT_TRUE(peer.SendFrame(Request({"destroy", 1})));
    ASSERT_TRUE(returned.WaitFor());
    // The reply may still get through, or not.
    EXPECT_TRUE(Eventually([&] { return peer.ReadEof(std::chrono::milliseconds(0)) || !peer.ReadFrame(); }));
  }
  EXPECT_TRUE(Eventually([&] { return deletions.count == 1; }));
  ExpectSameResources(before);
}

TEST_P(ServerLifecycle, ANoticeMayDestroyItsServer) {
  for (const char* notice : {"s_c_connect", "s_c_closed"}) {
    SCOPED_TRACE(notice);
    WarmUp(GetParam());
    TestServer server(GetParam());
    const Resources before = CountResources();
    Deletions deletions;
    server.On(
        notice,
        [&](int, MIVOParams*, MIVOParams*) {
          if (IServer* const released = server.Release()) DestroyServer(released);
          EXPECT_EQ(deletions.count, 0);
        },
        &deletions);
    ASSERT_TRUE(server.Init());
    {
      RawPeer peer = server.Connect();
      peer.HalfClose();
      EXPECT_TRUE(peer.ReadEof());
    }
    EXPECT_TRUE(Eventually([&] { return deletions.count == 1; }));
    ExpectSameResources(before);
  }
}

TEST_P(ServerLifecycle, TheProgramMayEndWithAServerRunning) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  EXPECT_EXIT(
      {
        // Never destroyed, and no leak: it stays reachable.
        static TestServer* server = nullptr;
        server = new TestServer(GetParam());
        server->On("name", [](int, MIVOParams*, MIVOParams*) {});
        if (!server->Init()) std::exit(1);
        RawPeer peer = server->Connect();
        if (!peer.Exchange(Request({"name", 1})).has_value()) std::exit(2);
        std::exit(0);
      },
      testing::ExitedWithCode(0), "");
}

TEST_P(ServerLifecycle, CallsFromSeveralThreadsMeetACloseWithoutHarm) {
  for (int round = 0; round < 5; ++round) {
    TestServer server(GetParam());
    Log(server.get(), "", 0);
    server.On("name", [](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(1); });
    ASSERT_TRUE(server.Init());
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    Event working;
    for (int i = 0; i < 3; ++i) {
      threads.emplace_back([&] {
        while (!stop) {
          server->PostMsg(1, "name", nullptr, 0);
          server->GetClientCount();
          server->GetPort();
          server->SetTimeoutStep(50);
          server->ClearRetvalMem();
          working.Signal();
        }
      });
    }
    threads.emplace_back([&] {
      while (!stop) {
        RawPeer peer = RawPeer::ConnectTo(server.address(), std::chrono::milliseconds(0));
        if (peer.connected()) peer.SendFrame(Request({"name", 1}));
        working.Signal();
      }
    });
    ASSERT_TRUE(working.WaitFor(50));
    StdoutCapture quiet;
    EXPECT_TRUE(server->close());
    stop = true;
    for (std::thread& thread : threads)
      thread.join();
  }
}

// --- The shape of the interface

// Pointers to virtual members hold the place of the function in the virtual table.
template <typename Member>
std::size_t SlotOf(Member member) {
  std::uintptr_t place = 0;
  std::memcpy(&place, &member, sizeof place);
  return (place - 1) / sizeof(void*);
}

TEST(ServerInterface, OperationsHaveTheirPlacesAndTheDestructorsTheLastTwo) {
  std::size_t slot = 0;
  EXPECT_EQ(SlotOf(&IServer::StartMIVOServer), slot++);
  EXPECT_EQ(SlotOf(&IServer::InitMIVOServer), slot++);
  EXPECT_EQ(SlotOf(&IServer::StartMIVOServerTcp4), slot++);
  EXPECT_EQ(SlotOf(&IServer::StartMIVOServerTcp6), slot++);
  EXPECT_EQ(SlotOf(&IServer::InitMIVOServerTcp4), slot++);
  EXPECT_EQ(SlotOf(&IServer::InitMIVOServerTcp6), slot++);
  EXPECT_EQ(SlotOf(&IServer::run), slot++);
  EXPECT_EQ(SlotOf(&IServer::SetTimeoutStep), slot++);
  EXPECT_EQ(SlotOf(&IServer::isok), slot++);
  EXPECT_EQ(SlotOf(&IServer::close), slot++);
  EXPECT_EQ(SlotOf(&IServer::closeasync), slot++);
  EXPECT_EQ(SlotOf(&IServer::SendMsg), slot++);
  EXPECT_EQ(SlotOf(&IServer::PostMsg), slot++);
  EXPECT_EQ(SlotOf(&IServer::log), slot++);
  EXPECT_EQ(SlotOf(&IServer::method), slot++);
  EXPECT_EQ(SlotOf(&IServer::methodall), slot++);
  EXPECT_EQ(SlotOf(&IServer::GetPort), slot++);
  EXPECT_EQ(SlotOf(&IServer::GetClientCount), slot++);
  EXPECT_EQ(SlotOf(&IServer::isthread), slot++);
  EXPECT_EQ(SlotOf(&IServer::SetCustomReleaseEvent), slot++);
  EXPECT_EQ(SlotOf(&IServer::SetBigfileBufferSize), slot++);
  EXPECT_EQ(SlotOf(&IServer::ClearRetvalMem), slot++);
  EXPECT_EQ(slot, 22u);
  struct Longer : IServer {
    virtual void After() = 0;
  };
  EXPECT_EQ(SlotOf(&Longer::After), 24u);
}

TEST(ServerInterface, HandlersHaveTheirOperationBehindTheDestructors) {
  EXPECT_EQ(SlotOf(&IServerMethod::OnCall), 2u);
  EXPECT_EQ(SlotOf(&IMethodAll::OnCall), 2u);
}

}  // namespace
