// What the plain TCP server means for the process it lives in. Each part is played by a process of its own.
#include <mivo/tcpserver.h>

#include "support/child_program.h"
#include "tcpserver_fixture.h"

#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <link.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <system_error>
#include <thread>
#include <type_traits>

namespace {

using mivo_test::ChildProgram;
using mivo_test::Eventually;
using mivo_test::PortOf;
using mivo_test::RawPeer;
using mivo_test::Role;
using mivo_test::StartRole;
using mivo_test::Transport;

constexpr int kFailedWrite = 255;

std::string ReadLine(ChildProgram& program) {
  std::string line;
  while (const std::optional<std::string> byte = program.io().ReadBytes(1)) {
    if (*byte == "\n") return line;
    line += *byte;
  }
  return line + " (end of output)";
}

void PrintLine(const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

RawPeer Connect(const std::string& port) {
  return RawPeer::ConnectTo({Transport::Tcp4, "127.0.0.1", port});
}

// ---- Writing to a peer that has gone

// A server that says on which port it listens, and for every line on standard input writes to its newest client without
// having read from it: it does not know whether the peer is still there.
struct BlindWriter {
  static inline CTcpServer* server = nullptr;
  static inline int client = 0;

  static void OnConnect(int id) {
    client = id;
    // Not to notice the end of the connection before the write does.
    uv_idle_t* const idle = new uv_idle_t;
    uv_idle_init(server->loop, idle);
    uv_idle_start(idle, [](uv_idle_t* handle) {
      uv_read_stop(reinterpret_cast<uv_stream_t*>(server->clients.at(client)->handle));
      PrintLine("connected");
      uv_close(reinterpret_cast<uv_handle_t*>(handle),
               [](uv_handle_t* closed) { delete reinterpret_cast<uv_idle_t*>(closed); });
    });
  }

  static void WatchInput(uv_loop_t* loop) {
    static uv_poll_t input;
    uv_poll_init(loop, &input, STDIN_FILENO);
    uv_poll_start(&input, UV_READABLE, [](uv_poll_t*, int, int) {
      char byte = 0;
      if (read(STDIN_FILENO, &byte, 1) != 1) _exit(3);
      server->Write(client, "is anybody there?", 17);
    });
  }
};

std::atomic<bool> exiting{false};

// Ends the process with a status of its own when the loop is turned on the way out.
void WatchForTurnsAtExit(uv_loop_t* loop) {
  std::atexit([] { exiting = true; });  // runs before the destructors of what is there already
  static uv_prepare_t each_turn;
  uv_prepare_init(loop, &each_turn);
  uv_prepare_start(&each_turn, [](uv_prepare_t*) {
    if (exiting) _exit(9);
  });
}

int PlayBlindWriter(CTcpServer& server, bool own_run) {
  BlindWriter::server = &server;
  WatchForTurnsAtExit(server.loop);
  if (!server.Init() || !server.BindTcp4("127.0.0.1", 0) || !server.Listen(16)) return 2;
  server.SetConnectCallback(BlindWriter::OnConnect);
  BlindWriter::WatchInput(server.loop);
  PrintLine(std::to_string(PortOf(server)));
  if (own_run) {
    server.Run(UV_RUN_DEFAULT);
  } else {
    uv_run(server.loop, UV_RUN_DEFAULT);
  }
  return 4;
}

const Role kBlindWriter("blind writer", [](const std::string&) {
  static uv_loop_t loop;
  uv_loop_init(&loop);
  // Not destroyed: what the process leaves behind is not the subject.
  return PlayBlindWriter(*new CTcpServer(&loop), true);
});

const Role kStaticBlindWriter("static blind writer", [](const std::string&) {
  static CTcpServer server(uv_default_loop());
  return PlayBlindWriter(server, true);
});

const Role kBlindWriterInALoopOfItsOwn("blind writer in a loop of its own", [](const std::string&) {
  static CTcpServer server(uv_default_loop());
  return PlayBlindWriter(server, false);
});

enum class Leaving { kReset, kInOrder };

void ExpectAFailedWriteEndsTheProcess(const std::string& role, Leaving leaving) {
  ChildProgram writer = StartRole(role);
  const std::string port = ReadLine(writer);
  // With linger=0 closing sends a reset.
  ChildProgram socat({"socat", "-t0", "-", "TCP4:127.0.0.1:" + port + (leaving == Leaving::kReset ? ",linger=0" : "")});
  ASSERT_EQ(ReadLine(writer), "connected");
  ASSERT_TRUE(writer.io().SendBytes("1"));
  EXPECT_EQ(socat.io().ReadBytes(17), "is anybody there?");
  socat.io().HalfClose();
  ASSERT_TRUE(socat.Wait().has_value());
  // After an orderly end the first write is still taken and answered by a reset; one that comes after the reset is a
  // broken pipe, for which the system has a signal too.
  std::optional<int> status;
  Eventually([&] {
    writer.io().SendBytes("2");
    status = writer.Wait(std::chrono::milliseconds(20));
    return status.has_value();
  });
  EXPECT_EQ(status, kFailedWrite);
}

TEST(TcpServerProcess, EndsWhenAWriteToAPeerThatResetFails) {
  ExpectAFailedWriteEndsTheProcess("blind writer", Leaving::kReset);
}

TEST(TcpServerProcess, EndsByItsStatusAndNotBySigpipe) {
  ExpectAFailedWriteEndsTheProcess("blind writer", Leaving::kInOrder);
}

TEST(TcpServerProcess, EndsOfAFailedWriteWithAServerOfStaticStorage) {
  ExpectAFailedWriteEndsTheProcess("static blind writer", Leaving::kReset);
}

TEST(TcpServerProcess, EndsOfAFailedWriteInALoopThatTheApplicationTurns) {
  ExpectAFailedWriteEndsTheProcess("blind writer in a loop of its own", Leaving::kInOrder);
}

// Closing a client whose message is not through yet cuts the message off, and that is a failed write.
const Role kCutsAMessageOff("cuts a message off", [](const std::string& how) {
  static CTcpServer server(uv_default_loop());
  static bool all;
  all = how == "all";
  server.SetConnectCallback([](int id) {
    const std::string text(24 * 1024 * 1024, 'x');
    server.Write(id, text.data(), static_cast<int>(text.size()));
    if (all) {
      server.CloseAll();
    } else {
      server.CloseClient(id);
    }
  });
  if (!server.Init() || !server.BindTcp4("127.0.0.1", 0) || !server.Listen(16)) return 2;
  PrintLine(std::to_string(PortOf(server)));
  server.Run(UV_RUN_DEFAULT);
  return 4;
});

TEST(TcpServerProcess, EndsWhenAMessageIsCutOffByClosingItsClient) {
  for (const char* const how : {"one", "all"}) {
    ChildProgram writer = StartRole("cuts a message off", how);
    const RawPeer peer = Connect(ReadLine(writer));
    EXPECT_EQ(writer.Wait(), kFailedWrite);
  }
}

// At exit it is not: the process already ends.
const Role kExitsWithAMessageUnderWay("exits with a message under way", [](const std::string&) {
  static CTcpServer server(uv_default_loop());
  server.SetConnectCallback([](int id) {
    const std::string text(24 * 1024 * 1024, 'x');
    server.Write(id, text.data(), static_cast<int>(text.size()));
    uv_stop(server.loop);
  });
  if (!server.Init() || !server.BindTcp4("127.0.0.1", 0) || !server.Listen(16)) return 2;
  PrintLine(std::to_string(PortOf(server)));
  server.Run(UV_RUN_DEFAULT);
  return 0;
});

TEST(TcpServerProcess, ExitsAsItWishesWithAMessageUnderWay) {
  ChildProgram writer = StartRole("exits with a message under way");
  const RawPeer peer = Connect(ReadLine(writer));
  EXPECT_EQ(writer.Wait(), 0);
}

// An application may leave from wherever it is. The loop is then left as it is, down to the listening socket.
int listening_descriptor = -1;

void ExpectToBeLeftListening() {
  std::atexit([] {  // runs after the destructors of what is not there yet
    if (fcntl(listening_descriptor, F_GETFD) < 0) _exit(9);
  });
}

bool ListenForExit(CTcpServer& server) {
  WatchForTurnsAtExit(server.loop);
  return server.Init() && server.BindTcp4("127.0.0.1", 0) && server.Listen(16) &&
         uv_fileno(reinterpret_cast<uv_handle_t*>(&server.listener), &listening_descriptor) == 0;
}

const Role kExitsInACallback("exits in a callback", [](const std::string&) {
  ExpectToBeLeftListening();
  static CTcpServer server(uv_default_loop());
  server.SetConnectCallback([](int) { std::exit(7); });
  if (!ListenForExit(server)) return 2;
  PrintLine(std::to_string(PortOf(server)));
  server.Run(UV_RUN_DEFAULT);
  return 4;
});

TEST(TcpServerProcess, MayExitInACallback) {
  ChildProgram leaver = StartRole("exits in a callback");
  const RawPeer peer = Connect(ReadLine(leaver));
  EXPECT_EQ(leaver.Wait(), 7);
}

const Role kExitsBesideTheLoop("exits beside the loop", [](const std::string&) {
  ExpectToBeLeftListening();
  static CTcpServer server(uv_default_loop());
  static std::atomic<bool> turned{false};
  uv_idle_t idle;
  uv_idle_init(server.loop, &idle);
  uv_idle_start(&idle, [](uv_idle_t* handle) {
    uv_close(reinterpret_cast<uv_handle_t*>(handle), [](uv_handle_t*) { turned = true; });
  });
  if (!ListenForExit(server)) return 2;
  std::thread([] { server.Run(UV_RUN_DEFAULT); }).detach();
  return Eventually([] { return turned.load(); }) ? 7 : 3;
});

TEST(TcpServerProcess, MayExitWhileAnotherThreadWaitsForClients) {
  EXPECT_EQ(StartRole("exits beside the loop").Wait(), 7);
}

// ---- Signals

TEST(TcpServerProcess, BlocksSigpipeOnlyWhileItRuns) {
  static bool blocked_inside;
  const auto is_blocked = [] {
    sigset_t mask;
    sigemptyset(&mask);
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    return sigismember(&mask, SIGPIPE) == 1;
  };
  static bool (*ask)() = is_blocked;
  struct sigaction before = {};
  sigaction(SIGPIPE, nullptr, &before);

  uv_loop_t loop;
  ASSERT_EQ(uv_loop_init(&loop), 0);
  uv_idle_t idle;
  uv_idle_init(&loop, &idle);
  uv_idle_start(&idle, [](uv_idle_t* handle) {
    blocked_inside = ask();
    uv_close(reinterpret_cast<uv_handle_t*>(handle), nullptr);
  });
  CTcpServer server(&loop);
  ASSERT_FALSE(is_blocked());
  EXPECT_TRUE(server.Run(UV_RUN_DEFAULT));
  EXPECT_TRUE(blocked_inside);
  EXPECT_FALSE(is_blocked());
  struct sigaction after = {};
  sigaction(SIGPIPE, nullptr, &after);
  EXPECT_EQ(before.sa_handler, after.sa_handler);
  EXPECT_EQ(uv_loop_close(&loop), 0);
}

// ---- The process-wide number and what loading does

const Role kNumbersClients("numbers clients", [](const std::string&) {
  uv_loop_t loop;
  uv_loop_init(&loop);
  {
    CTcpServer one(&loop);
    CTcpServer two(&loop);
    for (CTcpServer* const server : {&one, &two}) {
      if (!server->Init() || !server->BindTcp4("127.0.0.1", 0) || !server->Listen(16)) return 2;
      server->SetConnectCallback([](int id) { PrintLine(std::to_string(id)); });
    }
    RawPeer peers[4];
    for (int i = 0; i < 4; ++i) {
      CTcpServer& server = i % 2 == 0 ? one : two;
      peers[i] = Connect(std::to_string(PortOf(server)));
      const std::size_t before = server.clients.size();
      while (server.clients.size() == before)
        server.Run(UV_RUN_ONCE);
    }
    PrintLine(std::to_string(CTcpServer::NextClientId()));
  }
  return uv_loop_close(&loop) == 0 ? 0 : 3;
});

TEST(TcpServerProcess, CountsItsClientsFromOneOverAllServers) {
  ChildProgram program = StartRole("numbers clients");
  EXPECT_EQ(program.ReadOutput(), "1\n2\n3\n4\n5\n");
  EXPECT_EQ(program.Wait(), 0);
}

// The library is loaded as a dependency of this program, and nothing of it is called. Roles are played before main, and
// the process exits the ordinary way.
const Role kDoesNothing("does nothing", [](const std::string&) {
  int loops = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    if (std::filesystem::read_symlink(entry, error).string().find("eventpoll") != std::string::npos) ++loops;
  }
  return loops;
});

TEST(TcpServerProcess, IsSilentAndCleanWhenNobodyUsesTheLibrary) {
  ChildProgram program = StartRole("does nothing");
  EXPECT_EQ(program.ReadOutput(), "");
  EXPECT_EQ(program.Wait(), 0) << "a loop was opened, or exiting failed";
}

// ---- At the limit of descriptors

constexpr int kFreeDescriptors = 5;

const Role kFewDescriptors("few descriptors", [](const std::string&) {
  uv_loop_t loop;
  uv_loop_init(&loop);
  CTcpServer server(&loop);
  if (!server.Init() || !server.BindTcp4("127.0.0.1", 0) || !server.Listen(64)) return 2;
  static CTcpServer* serving = &server;
  server.SetConnectCallback([](int id) {
    serving->SetRecvCallback(id,
                             [](int client, const char* bytes, int count) { serving->Write(client, bytes, count); });
  });
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = static_cast<rlim_t>(dup(STDIN_FILENO) + kFreeDescriptors);
  setrlimit(RLIMIT_NOFILE, &limit);
  PrintLine(std::to_string(PortOf(server)));
  server.Run(UV_RUN_DEFAULT);
  return 4;
});

bool IsEchoed(RawPeer& peer, const std::string& text) {
  return peer.SendBytes(text) && peer.ReadBytes(text.size()) == text;
}

TEST(TcpServerProcess, RecoversFromHavingNoDescriptorLeft) {
  ChildProgram server = StartRole("few descriptors");
  const std::string port = ReadLine(server);
  std::vector<RawPeer> served;
  bool refused = false;
  while (!refused && served.size() <= kFreeDescriptors) {
    RawPeer peer = Connect(port);
    ASSERT_TRUE(peer.connected());
    if (IsEchoed(peer, "x")) {
      served.push_back(std::move(peer));
    } else {
      refused = true;
    }
  }
  EXPECT_TRUE(refused);
  ASSERT_FALSE(served.empty());
  EXPECT_TRUE(IsEchoed(served.front(), "still served"));
  served.clear();
  EXPECT_TRUE(Eventually([&] {
    RawPeer peer = Connect(port);
    return IsEchoed(peer, "served again");
  }));
}

// ---- The classes as other programs see them

// The number of virtual functions of an object's class, read from the symbol of its table.
template <class Object>
std::size_t VirtualSlots(const Object& object) {
  const void* const table = *reinterpret_cast<const void* const*>(&object);
  Dl_info info = {};
  void* symbol = nullptr;
  if (dladdr1(table, &info, &symbol, RTLD_DL_SYMENT) == 0 || symbol == nullptr) return 0;
  return static_cast<const ElfW(Sym)*>(symbol)->st_size / sizeof(void*) - 2;  // without offset and type
}

TEST(TcpServerProcess, SeesTwoDestructorsAndNoOtherVirtualFunction) {
  const CTcpServer server(nullptr);
  const clientdata client;
  EXPECT_EQ(VirtualSlots(server), 2u);
  EXPECT_EQ(VirtualSlots(client), 2u);
  static_assert(std::has_virtual_destructor_v<CTcpServer> && std::has_virtual_destructor_v<clientdata>);
}

}  // namespace
