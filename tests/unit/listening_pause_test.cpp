#include "tcpserver/listening_pause.h"

#include <gtest/gtest.h>
#include <uv.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "support/teardown.h"
#include "support/uv_faults.h"
#include "unit/tcpserver_fixture.h"

namespace {

using mivo_test::ConnectPeer;
using mivo_test::CountResources;
using mivo_test::ExpectSameResources;
using mivo_test::Fault;
using mivo_test::PortOf;
using mivo_test::RawPeer;
using mivo_test::Resources;
using mivo_test::ScopedFault;

constexpr int kVeryOften = 200000;

class ListeningPause : public mivo_test::TcpServerTest {
 protected:
  void SetUp() override {
    server_.SetConnectCallback(OnConnect);
    ASSERT_TRUE(Listen());
    port_ = PortOf(server_);
  }

  // A peer that waits, and a pause that its connection has begun.
  RawPeer Begin() {
    RawPeer peer = ConnectPeer(port_);
    const ScopedFault fault(Fault::kAcceptCall, 1, kVeryOften, UV_EMFILE);
    EXPECT_TRUE(TurnUntil([&] { return fault.failures() > 0; }));
    EXPECT_EQ(fault.failures(), 2) << "with the descriptor in reserve and without, and then no more";
    return peer;
  }

  bool IsServed(RawPeer& peer) {
    const std::size_t before = counts_.size();
    return peer.SendBytes("x") && TurnUntil([&] { return counts_.size() > before; });
  }

  int port_ = 0;
};

TEST_F(ListeningPause, EndsByItself) {
  RawPeer peer = Begin();
  EXPECT_TRUE(IsServed(peer));
  EXPECT_EQ(PortOf(server_), port_);
}

TEST_F(ListeningPause, MayComeAgain) {
  for (int i = 0; i < 3; ++i) {
    RawPeer peer = Begin();
    EXPECT_TRUE(IsServed(peer));
  }
}

TEST_F(ListeningPause, LastsWhileListeningFails) {
  RawPeer peer = Begin();
  for (const Fault fault : {Fault::kTcpInit, Fault::kListen}) {
    const ScopedFault failing(fault, 1, 2, UV_EMFILE);
    EXPECT_TRUE(TurnUntil([&] { return failing.failures() == 2; }));
    EXPECT_TRUE(connected_.empty());
    EXPECT_TRUE(server_.initialised);
  }
  EXPECT_TRUE(IsServed(peer));
}

TEST_F(ListeningPause, KeepsTheLoopAliveAsListeningDoes) {
  RawPeer peer = Begin();
  server_.Run(UV_RUN_NOWAIT);
  EXPECT_NE(uv_loop_alive(&loop_), 0);
  server_.CloseAll();
  EXPECT_TRUE(server_.Run(UV_RUN_DEFAULT));
  EXPECT_EQ(uv_loop_alive(&loop_), 0);
  EXPECT_TRUE(peer.ReadEof());
}

TEST_F(ListeningPause, KeepsNoLoopAliveThatListeningDoesNot) {
  // A loop that is not alive is not turned.
  uv_idle_t other;
  uv_idle_init(&loop_, &other);
  uv_idle_start(&other, [](uv_idle_t*) {});
  const auto is_alive_without_other = [&] {
    uv_unref(reinterpret_cast<uv_handle_t*>(&other));
    const bool is_alive = uv_loop_alive(&loop_) != 0;
    uv_ref(reinterpret_cast<uv_handle_t*>(&other));
    return is_alive;
  };
  uv_unref(reinterpret_cast<uv_handle_t*>(&server_.listener));
  EXPECT_FALSE(is_alive_without_other());
  RawPeer peer = Begin();
  server_.Run(UV_RUN_NOWAIT);
  EXPECT_FALSE(is_alive_without_other());
  EXPECT_TRUE(TurnUntil([&] { return !connected_.empty(); }));
  EXPECT_TRUE(server_.CloseClient(connected_.back()));
  server_.Run(UV_RUN_NOWAIT);
  EXPECT_FALSE(is_alive_without_other());
  uv_close(reinterpret_cast<uv_handle_t*>(&other), nullptr);
  server_.Run(UV_RUN_NOWAIT);
}

TEST_F(ListeningPause, KeepsTheOptionsOfTheSocket) {
  ASSERT_TRUE(server_.SetNoDelay(true));
  RawPeer peer = Begin();
  EXPECT_TRUE(IsServed(peer));
  uv_os_fd_t descriptor = -1;
  ASSERT_EQ(uv_fileno(reinterpret_cast<uv_handle_t*>(&server_.listener), &descriptor), 0);
  int no_delay = 0;
  socklen_t size = sizeof no_delay;
  ASSERT_EQ(getsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &no_delay, &size), 0);
  EXPECT_NE(no_delay, 0);
}

TEST_F(ListeningPause, IsNoObstacleToAnotherStart) {
  RawPeer peer = Begin();
  server_.CloseAll();
  EXPECT_TRUE(peer.ReadEof()) << "nobody listens any more, at once";
  ASSERT_TRUE(Listen());
  EXPECT_FALSE(mivo::ListeningPause::HasTimer(&server_));
  port_ = PortOf(server_);
  RawPeer second = Begin();
  EXPECT_TRUE(IsServed(second));
  server_.CloseAll();
  ASSERT_TRUE(Listen());
  auto [third, id] = Connect();
  EXPECT_TRUE(IsServed(third));
}

TEST_F(ListeningPause, LeavesNothingBehindWhereTheServerEnds) {
  // The fixture sees to the loop.
  const Resources before = CountResources();
  {
    CTcpServer other(&loop_);
    ASSERT_TRUE(other.Init() && other.BindTcp4("127.0.0.1", 0) && other.Listen(16));
    RawPeer peer = ConnectPeer(PortOf(other));
    const ScopedFault fault(Fault::kAcceptCall, 1, kVeryOften, UV_EMFILE);
    EXPECT_TRUE(TurnUntil([&] { return fault.failures() > 0; }));
  }
  ExpectSameResources(before);
}

TEST_F(ListeningPause, IsNotForOtherErrors) {
  RawPeer peer = ConnectPeer(port_);
  const ScopedFault fault(Fault::kListenerError, 1, 1, UV_EPROTO);
  ASSERT_TRUE(TurnUntil([&] { return !connected_.empty(); }));
  EXPECT_FALSE(mivo::ListeningPause::HasTimer(&server_));
  EXPECT_EQ(fault.failures(), 1);
}

}  // namespace
