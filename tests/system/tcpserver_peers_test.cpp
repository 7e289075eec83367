// Programs that others wrote, talking to the plain TCP server.
#include "tcpserver_fixture.h"

#include "support/child_program.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>

namespace {

using mivo_test::ChildProgram;
using mivo_test::Eventually;
using mivo_test::RawPeer;
using mivo_test::ServerThread;
using mivo_test::Transport;

// Sends back what comes, however fast it comes: what arrives while a message is under way waits its turn.
// One at a time; its callbacks know it through a static pointer. Everything but the constructor on the loop's thread.
class Echo {
 public:
  explicit Echo(Transport transport) : thread_(transport, OnConnect) {
    echo_ = this;
    EXPECT_TRUE(thread_.WaitUntilListening());
    thread_.OnLoop([this] {
      uv_check_init(thread_.server().loop, &each_turn_);
      uv_check_start(&each_turn_, [](uv_check_t*) { echo_->SendWhatWaits(); });
    });
  }

  ~Echo() {
    thread_.OnLoop([this] { uv_close(reinterpret_cast<uv_handle_t*>(&each_turn_), nullptr); });
    thread_.Stop();
    echo_ = nullptr;
  }

  std::string port() const { return std::to_string(thread_.port()); }
  ServerThread& thread() { return thread_; }

  std::size_t ClientCount() {
    std::size_t count = 0;
    thread_.OnLoop([&] { count = thread_.server().clients.size(); });
    return count;
  }

 private:
  static void OnConnect(int id) { echo_->thread_.server().SetRecvCallback(id, OnReceive); }

  static void OnReceive(int id, const char* bytes, int count) {
    echo_->waiting_[id].append(bytes, static_cast<std::size_t>(count));
    echo_->SendWhatWaits();
  }

  void SendWhatWaits() {
    CTcpServer& server = thread_.server();
    for (auto entry = waiting_.begin(); entry != waiting_.end();) {
      const auto client = server.clients.find(entry->first);
      if (client != server.clients.end()) {
        if (uv_stream_get_write_queue_size(reinterpret_cast<uv_stream_t*>(client->second->handle)) > 0) {
          ++entry;
          continue;
        }
        server.Write(entry->first, entry->second.data(), static_cast<int>(entry->second.size()));
      }
      entry = waiting_.erase(entry);
    }
  }

  static inline Echo* echo_ = nullptr;
  std::map<int, std::string> waiting_;
  uv_check_t each_turn_ = {};
  ServerThread thread_;
};

// The same sequence of bytes for sender and reader, so that neither has to keep it.
class Sequence {
 public:
  std::string Next(std::size_t count) {
    std::string bytes(count, '\0');
    for (char& byte : bytes) {
      state_ = state_ * 6364136223846793005U + 1442695040888963407U;
      byte = static_cast<char>(state_ >> 56);
    }
    return bytes;
  }

 private:
  std::uint64_t state_ = 42;
};

TEST(TcpServerPeers, ServesNetcatOverIpv4) {
  Echo echo(Transport::Tcp4);
  ChildProgram nc({"nc", "-4", "127.0.0.1", echo.port()});
  ASSERT_TRUE(nc.io().SendBytes("over four\n"));
  EXPECT_EQ(nc.io().ReadBytes(10), "over four\n");
  EXPECT_TRUE(echo.thread().serving());
}

TEST(TcpServerPeers, ServesNetcatOverIpv6) {
  Echo echo(Transport::Tcp6);
  ChildProgram nc({"nc", "-6", "::1", echo.port()});
  ASSERT_TRUE(nc.io().SendBytes("over six\n"));
  EXPECT_EQ(nc.io().ReadBytes(9), "over six\n");
}

TEST(TcpServerPeers, ServesUntilAllIsClosed) {
  ServerThread thread(Transport::Tcp4, [](int) {});
  ASSERT_TRUE(thread.WaitUntilListening());
  ChildProgram socat({"socat", "-t0", "-", "TCP4:127.0.0.1:" + std::to_string(thread.port())});
  EXPECT_TRUE(Eventually([&] {
    bool connected = false;
    thread.OnLoop([&] { connected = thread.server().clients.size() == 1; });
    return connected;
  }));
  EXPECT_TRUE(thread.serving());
  EXPECT_TRUE(thread.Stop()) << "the result of the start";
  EXPECT_FALSE(thread.server().initialised);
  // Ends by itself when its peer does.
  EXPECT_TRUE(socat.io().ReadEof());
  EXPECT_EQ(socat.Wait(), 0);
}

TEST(TcpServerPeers, ForgetsANetcatThatHasGone) {
  Echo echo(Transport::Tcp4);
  ChildProgram nc({"nc", "-N", "127.0.0.1", echo.port()});
  ASSERT_TRUE(nc.io().SendBytes("bye"));
  EXPECT_EQ(nc.io().ReadBytes(3), "bye");
  EXPECT_EQ(echo.ClientCount(), 1u);
  nc.io().HalfClose();
  EXPECT_EQ(nc.Wait(), 0);
  EXPECT_TRUE(Eventually([&] { return echo.ClientCount() == 0; }));
}

TEST(TcpServerPeers, EchoesAHundredMebibytesThroughSocat) {
  constexpr std::size_t kChunk = 1024 * 1024;
  constexpr int kChunks = 100;
  Echo echo(Transport::Tcp4);
  ChildProgram socat({"socat", "-", "TCP4:127.0.0.1:" + echo.port()});
  std::thread sender([&] {
    Sequence sequence;
    for (int sent = 0; sent < kChunks; ++sent) {
      if (!socat.io().SendBytes(sequence.Next(kChunk))) return;
    }
  });
  Sequence expected;
  int equal = 0;
  while (equal < kChunks && socat.io().ReadBytes(kChunk) == expected.Next(kChunk))
    ++equal;
  EXPECT_EQ(equal, kChunks);
  if (equal < kChunks) echo.thread().OnLoop([&] { echo.thread().server().CloseAll(); });
  sender.join();
}

TEST(TcpServerPeers, ServesTwoHundredNetcatsAtOnce) {
  constexpr std::size_t kClients = 200;
  Echo echo(Transport::Tcp4);
  std::vector<std::unique_ptr<ChildProgram>> netcats;
  for (std::size_t i = 0; i < kClients; ++i)
    netcats.push_back(std::make_unique<ChildProgram>(std::vector<std::string>{"nc", "127.0.0.1", echo.port()}));
  EXPECT_TRUE(Eventually([&] { return echo.ClientCount() == kClients; }));

  const auto line = [](std::size_t i) { return "client number " + std::to_string(1000 + i) + "\n"; };
  for (int round = 0; round < 3; ++round) {
    for (std::size_t i = 0; i < kClients; ++i)
      EXPECT_TRUE(netcats[i]->io().SendBytes(line(i)));
    for (std::size_t i = 0; i < kClients; ++i)
      EXPECT_EQ(netcats[i]->io().ReadBytes(line(i).size()), line(i));
  }
  EXPECT_EQ(echo.ClientCount(), kClients);
  netcats.clear();
  EXPECT_TRUE(Eventually([&] { return echo.ClientCount() == 0; }));
}

TEST(TcpServerPeers, SurvivesSocatsThatReset) {
  Echo echo(Transport::Tcp4);
  ChildProgram stays({"nc", "127.0.0.1", echo.port()});
  ASSERT_TRUE(stays.io().SendBytes("1"));
  ASSERT_EQ(stays.io().ReadBytes(1), "1");
  for (int round = 0; round < 5; ++round) {
    // With linger=0 closing sends a reset.
    ChildProgram socat({"socat", "-t0", "-", "TCP4:127.0.0.1:" + echo.port() + ",linger=0"});
    ASSERT_TRUE(socat.io().SendBytes("x"));
    ASSERT_EQ(socat.io().ReadBytes(1), "x");
    socat.io().HalfClose();
    ASSERT_TRUE(socat.Wait().has_value());
    EXPECT_TRUE(Eventually([&] { return echo.ClientCount() == 1; }));
  }
  ASSERT_TRUE(stays.io().SendBytes("2"));
  EXPECT_EQ(stays.io().ReadBytes(1), "2");
}

TEST(TcpServerPeers, ListensOnEveryAddressOfBothFamilies) {
  static CTcpServer* serving = nullptr;
  uv_loop_t loop;
  ASSERT_EQ(uv_loop_init(&loop), 0);
  {
    CTcpServer server(&loop);
    serving = &server;
    ASSERT_TRUE(server.Init() && server.BindTcp6("::", 0) && server.Listen(16));
    server.SetConnectCallback([](int id) { serving->Write(id, "hello", 5); });
    const std::string port = std::to_string(mivo_test::PortOf(server));
    for (const char* const address : {"127.0.0.1", "::1"}) {
      ChildProgram nc({"nc", address, port});
      EXPECT_TRUE(Eventually([&] {
        server.Run(UV_RUN_NOWAIT);
        return nc.io().WaitReadable(std::chrono::milliseconds(0));
      }));
      EXPECT_EQ(nc.io().ReadBytes(5), "hello");
    }
  }
  EXPECT_EQ(uv_loop_close(&loop), 0);
}

}  // namespace
