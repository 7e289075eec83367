// What servers do when the process has no descriptor left for a connection.
#include <mivo/mivo.h>
#include <mivo/tcpserver.h>

#include "support/child_program.h"
#include "support/stdout_capture.h"
#include "support/teardown.h"
#include "support/test_server.h"
#include "support/uv_faults.h"
#include "tcpserver_fixture.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <uv.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace mivo_test;

namespace {

constexpr char kLine[] = "New client connection error...\n";
// More than any test waits for; an end, in case nobody stops asking.
constexpr int kVeryOften = 200000;

void LogNothing(IServer* server) {
  std::string text;
  server->log(text.data(), 0);
}

class Shortage : public testing::TestWithParam<Transport> {};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, Shortage, kEveryTransport, TransportName);

// Between two attempts the server waits.
void ExpectFewAttempts(const ScopedFault& fault, const Stopwatch& watch) {
  EXPECT_LE(fault.failures(), 2 + watch.ElapsedMs() / 50);
}

// It has tried again by itself.
bool HasTried(const ScopedFault& fault, int times) {
  return Eventually([&] { return fault.failures() >= times; });
}

TEST_P(Shortage, OnlyHoldsUpNewcomers) {
  TestServer server(GetParam());
  LogNothing(server.get());
  ASSERT_TRUE(server.Init());
  const int port = server->GetPort();
  RawPeer early = server.Connect();
  ASSERT_TRUE(early.AnswersInOrder());
  const Resources before = CountResources();
  {
    StdoutCapture output;
    const Stopwatch watch;
    RawPeer waiting;
    {
      const ScopedFault fault(Fault::kAcceptCall, 1, kVeryOften, UV_EMFILE);
      waiting = server.Connect();
      ASSERT_TRUE(waiting.connected());
      ASSERT_TRUE(HasTried(fault, 3));
      EXPECT_TRUE(early.AnswersInOrder());
      EXPECT_TRUE(server->isok());
      EXPECT_EQ(server->GetPort(), port);
      ExpectFewAttempts(fault, watch);
    }
    EXPECT_TRUE(waiting.AnswersInOrder()) << "who waited is served";
    RawPeer late = server.Connect();
    EXPECT_TRUE(late.AnswersInOrder());
    EXPECT_TRUE(early.AnswersInOrder());
    EXPECT_EQ(output.Text(), kLine) << "once, however often it tries";
  }
  ExpectSameResources(before);
}

TEST_P(Shortage, OfTheWholeSystemOrOfMemoryIsMetInTheSameWay) {
  for (const int error : {UV_ENFILE, UV_ENOMEM, UV_ENOBUFS}) {
    TestServer server(GetParam());
    LogNothing(server.get());
    ASSERT_TRUE(server.Init());
    StdoutCapture output;
    const Stopwatch watch;
    RawPeer waiting;
    {
      const ScopedFault fault(Fault::kAcceptCall, 1, kVeryOften, error);
      waiting = server.Connect();
      ASSERT_TRUE(HasTried(fault, 2));
      ExpectFewAttempts(fault, watch);
    }
    EXPECT_TRUE(waiting.AnswersInOrder());
    EXPECT_EQ(output.Text(), kLine);
  }
}

TEST_P(Shortage, IsNoObstacleToAnEnd) {
  struct End {
    const char* name;
    void (*run)(TestServer& server);
  };
  const End ends[] = {
      {"close", [](TestServer& server) { EXPECT_TRUE(server->close()); }},
      {"closeasync",
       [](TestServer& server) {
         EXPECT_TRUE(server->closeasync());
         EXPECT_TRUE(Eventually([&] { return !server->isok(); }));
       }},
      {"destroy", [](TestServer& server) { server.Destroy(); }},
  };
  for (const End& end : ends) {
    for (const int attempts : {1, 2}) {
      TestServer server(GetParam());
      LogNothing(server.get());
      ASSERT_TRUE(server.Init());
      StdoutCapture output;
      const Stopwatch watch;
      const ScopedFault fault(Fault::kAcceptCall, 1, kVeryOften, UV_EMFILE);
      RawPeer waiting = server.Connect();
      ASSERT_TRUE(HasTried(fault, attempts)) << end.name;
      end.run(server);
      EXPECT_TRUE(waiting.ReadEof()) << end.name;
      ExpectFewAttempts(fault, watch);
    }
  }
}

TEST_P(Shortage, MayBeAnsweredByAClose) {
  IServer* closing = nullptr;
  // A sink stays the application's.
  LambdaMethod sink([&closing](int, MIVOParams* text, MIVOParams*) {
    if (text->GetValue(0)->GetString() == std::string(kLine)) closing->close();
  });
  TestServer server(GetParam());
  closing = server.get();
  LogNothing(server.get());
  server->method("s_c_log", &sink);
  ASSERT_TRUE(server.Init());
  const ScopedFault fault(Fault::kAcceptCall, 1, kVeryOften, UV_EMFILE);
  RawPeer waiting = server.Connect();
  EXPECT_TRUE(Eventually([&] { return !server->isok(); }));
  EXPECT_TRUE(waiting.ReadEof());
}

TEST_P(Shortage, IsReportedAgainWhenItComesAgain) {
  TestServer server(GetParam());
  LogNothing(server.get());
  ASSERT_TRUE(server.Init());
  StdoutCapture output;
  for (int times = 1; times <= 3; ++times) {
    RawPeer waiting;
    {
      const ScopedFault fault(Fault::kAcceptCall, 1, kVeryOften, UV_EMFILE);
      waiting = server.Connect();
      ASSERT_TRUE(output.WaitFor(kLine, times));
    }
    ASSERT_TRUE(waiting.AnswersInOrder());
    EXPECT_EQ(output.Count(kLine), times);
  }
}

TEST(ShortageOnALocalSocket, LeavesTheFileAsItWas) {
  TestServer server(Transport::Local);
  LogNothing(server.get());
  ASSERT_TRUE(server.Init());
  const std::string path = SocketPath(server.address().name);
  struct stat before {};
  ASSERT_EQ(stat(path.c_str(), &before), 0);
  StdoutCapture output;
  {
    const ScopedFault fault(Fault::kAcceptCall, 1, kVeryOften, UV_EMFILE);
    RawPeer waiting = server.Connect();
    ASSERT_TRUE(HasTried(fault, 2));
  }
  RawPeer late = server.Connect();
  EXPECT_TRUE(late.AnswersInOrder());
  struct stat after {};
  ASSERT_EQ(stat(path.c_str(), &after), 0);
  EXPECT_EQ(after.st_ino, before.st_ino);
  EXPECT_EQ(after.st_mode, before.st_mode);
  EXPECT_EQ(after.st_uid, before.st_uid);
}

TEST(ShortageOnALocalSocket, DoesNotTakeTheNameBackFromAnother) {
  TestServer server(Transport::Local);
  LogNothing(server.get());
  ASSERT_TRUE(server.Init());
  TestServer successor(server.address());
  LogNothing(successor.get());
  const std::string path = SocketPath(server.address().name);
  StdoutCapture output;
  struct stat taken {};
  {
    const ScopedFault fault(Fault::kAcceptCall, 1, kVeryOften, UV_EMFILE);
    RawPeer waiting = server.Connect();
    ASSERT_TRUE(output.WaitFor(kLine));
    ASSERT_TRUE(successor.Init());
    ASSERT_EQ(stat(path.c_str(), &taken), 0);
    ASSERT_TRUE(HasTried(fault, 3));
  }
  RawPeer late = successor.Connect();
  EXPECT_TRUE(late.AnswersInOrder());
  EXPECT_EQ(successor->GetClientCount(), 1);
  struct stat now {};
  ASSERT_EQ(stat(path.c_str(), &now), 0);
  EXPECT_EQ(now.st_ino, taken.st_ino);
}

// --- A process whose table is really full, while other threads open and close files

constexpr int kRoom = 8;

class Thief {
 public:
  Thief()
      : thread_([this] {
          while (!over_) {
            const int file = open("/dev/null", O_RDONLY | O_CLOEXEC);
            if (file < 0) continue;
            // Keeps what it has taken for a moment; nobody waits for this.
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            close(file);
          }
        }) {}
  ~Thief() {
    over_ = true;
    thread_.join();
  }

 private:
  std::atomic<bool> over_{false};
  std::thread thread_;
};

bool ReadCommand(char wanted) {
  char command = 0;
  return read(STDIN_FILENO, &command, 1) == 1 && command == wanted;
}

bool Report(const char* text) {
  return write(STDOUT_FILENO, text, 1) == 1;
}

const Role kSqueezed("squeezed server", [](const std::string& name) {
  IServer* const server = CreateServer();
  LogNothing(server);
  if (!server->InitMIVOServer(name.c_str()) || !Report("r")) return 2;
  rlimit usual{};
  getrlimit(RLIMIT_NOFILE, &usual);
  if (!ReadCommand('s')) return 3;
  {
    rlimit low = usual;
    low.rlim_cur = static_cast<rlim_t>(CountResources().descriptors + kRoom);
    setrlimit(RLIMIT_NOFILE, &low);
    const Thief one;
    const Thief other;
    if (!Report("s") || !ReadCommand('f')) return 4;
  }
  setrlimit(RLIMIT_NOFILE, &usual);
  if (!ReadCommand('e')) return 5;
  server->closeasync();
  if (!Eventually([&] { return !server->isok(); })) return 6;
  DestroyServer(server);
  // Other libraries' threads are not the subject.
  _exit(0);
});

TEST(ShortageOfARealKind, IsSurvived) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the undefined-behaviour sanitizer needs descriptors of its own, to look whether memory is there";
#endif
  const Address address = FreeAddress(Transport::Local);
  ChildProgram program = StartRole("squeezed server", address.name);
  ASSERT_EQ(program.io().ReadBytes(1), "r");
  RawPeer early = RawPeer::ConnectTo(address);
  ASSERT_TRUE(early.AnswersInOrder());
  ASSERT_TRUE(program.io().SendBytes("s"));
  ASSERT_EQ(program.io().ReadBytes(1), "s");
  for (int round = 0; round < 3; ++round) {
    std::vector<RawPeer> newcomers;
    // More than there is room for, and fewer than the backlog holds: a connect would wait for a place in it.
    for (int i = 0; i < 60; ++i) {
      newcomers.push_back(RawPeer::ConnectTo(address));
      ASSERT_TRUE(i % 10 != 0 || early.AnswersInOrder());
    }
    // The server says so.
    ASSERT_TRUE(program.io().WaitReadable());
    ASSERT_TRUE(early.AnswersInOrder());
    newcomers.clear();
    // Whoever comes behind them is served when they are through.
    ASSERT_TRUE(RawPeer::ConnectTo(address).AnswersInOrder());
    ASSERT_TRUE(early.AnswersInOrder());
  }
  ASSERT_TRUE(program.io().SendBytes("f"));
  RawPeer late = RawPeer::ConnectTo(address);
  EXPECT_TRUE(late.AnswersInOrder());
  EXPECT_TRUE(early.AnswersInOrder());
  ASSERT_TRUE(program.io().SendBytes("e"));
  EXPECT_EQ(program.Wait(), 0);
  const std::string output = program.ReadOutput();
  EXPECT_LT(output.size(), 64U * 1024U) << output.substr(0, 1000);
}

// --- The plain TCP server

class TcpServerShortage : public testing::TestWithParam<Transport> {
 protected:
  static void Echo(int id) {
    serving_->server().SetRecvCallback(
        id, [](int client, const char* bytes, int count) { serving_->server().Write(client, bytes, count); });
  }

  static RawPeer Connect() {
    return RawPeer::ConnectTo(
        {GetParam(), GetParam() == Transport::Tcp6 ? "::1" : "127.0.0.1", std::to_string(serving_->port())});
  }

  static bool IsEchoed(RawPeer& peer) { return peer.SendBytes("echo") && peer.ReadBytes(4) == "echo"; }

  void SetUp() override {
    serving_ = std::make_unique<ServerThread>(GetParam(), Echo);
    ASSERT_TRUE(serving_->WaitUntilListening());
  }
  void TearDown() override { serving_.reset(); }

  static inline std::unique_ptr<ServerThread> serving_;
};

INSTANTIATE_TEST_SUITE_P(OnTcp, TcpServerShortage, kTcpOnly, TransportName);

TEST_P(TcpServerShortage, OnlyHoldsUpNewcomers) {
  RawPeer early = Connect();
  ASSERT_TRUE(IsEchoed(early));
  const int last = CTcpServer::NextClientId();
  const Stopwatch watch;
  RawPeer waiting;
  {
    const ScopedFault fault(Fault::kAcceptCall, 1, kVeryOften, UV_EMFILE);
    waiting = Connect();
    ASSERT_TRUE(waiting.connected());
    ASSERT_TRUE(Eventually([&] { return fault.failures() >= 6; }));
    EXPECT_TRUE(IsEchoed(early));
    EXPECT_LE(fault.failures(), 4 + 2 * (watch.ElapsedMs() / 50));
  }
  EXPECT_TRUE(IsEchoed(waiting)) << "who waited is served";
  RawPeer late = Connect();
  EXPECT_TRUE(IsEchoed(late)) << "on the same port";
  EXPECT_LE(CTcpServer::NextClientId() - last, 5 + watch.ElapsedMs() / 50) << "every error uses up a number";
  EXPECT_TRUE(IsEchoed(early));
  EXPECT_TRUE(serving_->serving());
  EXPECT_TRUE(serving_->Stop());
}

TEST_P(TcpServerShortage, IsNoObstacleToAnEnd) {
  const ScopedFault fault(Fault::kAcceptCall, 1, kVeryOften, UV_EMFILE);
  RawPeer waiting = Connect();
  ASSERT_TRUE(Eventually([&] { return fault.failures() >= 2; }));
  EXPECT_TRUE(serving_->serving());
  EXPECT_TRUE(serving_->Stop()) << "the loop has run dry";
  EXPECT_TRUE(waiting.ReadEof());
}

}  // namespace
