// Starting, stopping, starting again, and everything out of order.
#include "tcpserver_fixture.h"

#include "support/stdout_capture.h"
#include "support/teardown.h"
#include "support/uv_faults.h"

#include <netinet/tcp.h>

#include <cstddef>
#include <memory>

namespace {

using mivo_test::ConnectPeer;
using mivo_test::Fault;
using mivo_test::PortOf;
using mivo_test::RawPeer;
using mivo_test::ScopedFault;

class TcpServerLifecycle : public mivo_test::TcpServerTest {};

TEST_F(TcpServerLifecycle, NeedsALoop) {
  CTcpServer server(nullptr);
  EXPECT_FALSE(server.Init());
  EXPECT_FALSE(server.StartTcp4("127.0.0.1", 0));
  EXPECT_FALSE(server.StartTcp6("::1", 0));
  EXPECT_FALSE(server.Run(UV_RUN_DEFAULT));
  EXPECT_FALSE(server.initialised);
  server.CloseAll();
}

TEST_F(TcpServerLifecycle, MayBeInitialisedTwice) {
  EXPECT_TRUE(server_.Init());
  EXPECT_TRUE(server_.initialised);
  EXPECT_EQ(server_.listener.data, &server_);
  EXPECT_TRUE(server_.BindTcp4("127.0.0.1", 0));
  const int port = PortOf(server_);
  EXPECT_TRUE(server_.Init());
  EXPECT_EQ(PortOf(server_), port) << "the second one changed something";
}

TEST_F(TcpServerLifecycle, TakesNoStepBeforeInit) {
  EXPECT_FALSE(server_.BindTcp4("127.0.0.1", 0));
  EXPECT_FALSE(server_.BindTcp6("::1", 0));
  EXPECT_FALSE(server_.Listen(128));
  EXPECT_FALSE(server_.SetNoDelay(true));
  EXPECT_FALSE(server_.SetKeepAlive(true, 60));
  server_.SetRecvCallback(1, nullptr);
  server_.Write(1, "x", 1);
  server_.CloseAll();
}

TEST_F(TcpServerLifecycle, DoesNotFindAClientBeforeInit) {
  EXPECT_FALSE(server_.CloseClient(1));
  EXPECT_EQ(server_.lastError, "can't find client 1");
}

TEST_F(TcpServerLifecycle, CanBeDestroyedAtOnce) {
  const CTcpServer on_a_loop(&loop_);
  const CTcpServer without(nullptr);
}

TEST_F(TcpServerLifecycle, CanBeDestroyedInEveryState) {
  { CTcpServer(&loop_).Init(); }
  {
    CTcpServer server(&loop_);
    ASSERT_TRUE(server.Init() && server.BindTcp4("127.0.0.1", 0));
  }
  {
    CTcpServer server(&loop_);
    ASSERT_TRUE(server.Init() && server.BindTcp4("127.0.0.1", 0) && server.Listen(128));
    const RawPeer peer = ConnectPeer(PortOf(server));
    ASSERT_TRUE(mivo_test::Eventually([&] {
      server.Run(UV_RUN_NOWAIT);
      return server.clients.size() == 1;
    }));
  }
  {
    CTcpServer server(&loop_);
    ASSERT_TRUE(server.Init());
    server.CloseAll();
  }
  EXPECT_EQ(uv_loop_alive(&loop_), 0);
}

TEST_F(TcpServerLifecycle, DoesNotTouchALoopItHasNotUsed) {
  // Filled with garbage: whoever looks into it will trip.
  alignas(uv_loop_t) unsigned char garbage[sizeof(uv_loop_t)];
  std::fill(std::begin(garbage), std::end(garbage), static_cast<unsigned char>(0xEE));
  CTcpServer server(reinterpret_cast<uv_loop_t*>(garbage));
  server.CloseAll();
  EXPECT_FALSE(server.CloseClient(1));
}

TEST_F(TcpServerLifecycle, RunsTheLoop) {
  EXPECT_TRUE(server_.Run(UV_RUN_DEFAULT)) << "nothing on the loop";
  EXPECT_TRUE(server_.Run(UV_RUN_NOWAIT)) << "nothing on the loop";
  ASSERT_TRUE(Listen());
  EXPECT_FALSE(server_.Run(UV_RUN_NOWAIT)) << "a listening socket on the loop";
}

TEST_F(TcpServerLifecycle, SetsOptionsOfTheListeningSocket) {
  ASSERT_TRUE(server_.Init());
  EXPECT_TRUE(server_.SetNoDelay(true));
  EXPECT_TRUE(server_.SetKeepAlive(true, 60));
  ASSERT_TRUE(server_.BindTcp4("127.0.0.1", 0));
  ASSERT_TRUE(server_.Listen(128));
  uv_os_fd_t listener = -1;
  uv_fileno(reinterpret_cast<uv_handle_t*>(&server_.listener), &listener);
  const auto option = [&](int level, int name) {
    int value = -1;
    socklen_t size = sizeof value;
    getsockopt(listener, level, name, &value, &size);
    return value;
  };
  EXPECT_NE(option(IPPROTO_TCP, TCP_NODELAY), 0);
  EXPECT_NE(option(SOL_SOCKET, SO_KEEPALIVE), 0);
  EXPECT_FALSE(server_.SetKeepAlive(true, 0)) << "what the system refuses is reported";
  EXPECT_TRUE(server_.SetKeepAlive(false, 0));
  EXPECT_EQ(option(SOL_SOCKET, SO_KEEPALIVE), 0);
  EXPECT_TRUE(server_.SetNoDelay(false));
  EXPECT_EQ(option(IPPROTO_TCP, TCP_NODELAY), 0);
}

TEST_F(TcpServerLifecycle, RefusesAddressesThatAreNone) {
  const mivo_test::StdoutCapture output;
  EXPECT_FALSE(server_.StartTcp4("localhost", 0));
  EXPECT_FALSE(server_.StartTcp4("", 0));
  EXPECT_FALSE(server_.StartTcp4(nullptr, 0));
  EXPECT_FALSE(server_.StartTcp4("::1", 0));
  EXPECT_FALSE(server_.StartTcp4("203.0.113.7", 0)) << "an address of another machine";
  EXPECT_FALSE(server_.StartTcp6("localhost", 0));
  EXPECT_FALSE(server_.StartTcp6(nullptr, 0));
  EXPECT_FALSE(server_.StartTcp6("127.0.0.1", 0));
  EXPECT_EQ(output.Text(), "");
}

TEST_F(TcpServerLifecycle, RefusesAPortThatIsTaken) {
  CTcpServer owner(&loop_);
  ASSERT_TRUE(owner.Init() && owner.BindTcp4("127.0.0.1", 0) && owner.Listen(128));
  const mivo_test::StdoutCapture output;
  EXPECT_FALSE(server_.StartTcp4("127.0.0.1", PortOf(owner)));
  EXPECT_EQ(output.Text(), "");
}

TEST_F(TcpServerLifecycle, StopsAtTheFirstStepThatFails) {
  for (const Fault fault : {Fault::kTcpInit, Fault::kTcpBind, Fault::kListen}) {
    const ScopedFault scoped(fault, 1, 1, UV_ENOMEM);
    EXPECT_FALSE(server_.StartTcp4("127.0.0.1", 0));
    EXPECT_EQ(scoped.failures(), 1);
  }
}

// Connects to a server once it listens, and takes it down once it has accepted; all on the loop's thread.
class Visit {
 public:
  Visit(uv_loop_t* loop, CTcpServer* server) : server_(server) {
    uv_idle_init(loop, &idle_);
    idle_.data = this;
    uv_idle_start(&idle_, [](uv_idle_t* idle) { static_cast<Visit*>(idle->data)->OnTurn(); });
  }

  RawPeer& peer() { return peer_; }

 private:
  // What an earlier start has left is closed in turns of its own, before the server listens.
  void OnTurn() {
    if (!server_->initialised) return;
    if (!peer_.connected()) peer_ = ConnectPeer(PortOf(*server_));
    if (server_->clients.empty()) return;
    server_->CloseAll();
    uv_close(reinterpret_cast<uv_handle_t*>(&idle_), nullptr);
  }

  CTcpServer* const server_;
  uv_idle_t idle_ = {};
  RawPeer peer_;
};

TEST_F(TcpServerLifecycle, CanBeStartedAfterAFailedStart) {
  ASSERT_FALSE(server_.StartTcp4("localhost", 0));
  Visit visit(&loop_, &server_);
  EXPECT_TRUE(server_.StartTcp4("127.0.0.1", 0));
  EXPECT_TRUE(visit.peer().ReadEof());
}

TEST_F(TcpServerLifecycle, CanBeStartedAgainAndAgain) {
  for (int round = 0; round < 4; ++round) {
    Visit visit(&loop_, &server_);
    EXPECT_TRUE(round % 2 == 0 ? server_.StartTcp4("127.0.0.1", 0) : server_.StartTcp6("::ffff:127.0.0.1", 0));
    EXPECT_TRUE(visit.peer().ReadEof());
  }
}

TEST_F(TcpServerLifecycle, ClosesWhatIsOpenWhenStartedAgain) {
  ASSERT_TRUE(Listen());
  auto [peer, id] = Connect();
  EXPECT_FALSE(server_.StartTcp4("localhost", 0));
  EXPECT_TRUE(server_.clients.empty());
  EXPECT_TRUE(peer.ReadEof());
}

TEST_F(TcpServerLifecycle, ListensAgainRightAfterCloseAll) {
  for (int round = 0; round < 3; ++round) {
    ASSERT_TRUE(Listen());
    auto [peer, id] = Connect();
    server_.Write(id, "hello", 5);
    EXPECT_EQ(Read(peer, 5), "hello");
    server_.CloseAll();
  }
}

TEST_F(TcpServerLifecycle, CannotBeStartedOnALoopThatRuns) {
  ASSERT_TRUE(Listen());
  int turns = 0;
  uv_prepare_t count;
  uv_prepare_init(&loop_, &count);
  count.data = &turns;
  uv_prepare_start(&count, [](uv_prepare_t* prepare) { ++*static_cast<int*>(prepare->data); });
  bool asked = false;
  on_receive_ = [&](int, const char*, int) {
    asked = true;
    const int turns_before = turns;
    EXPECT_FALSE(server_.StartTcp4("127.0.0.1", 0));
    EXPECT_FALSE(server_.StartTcp6("::1", 0));
    EXPECT_FALSE(server_.Run(UV_RUN_NOWAIT));
    CTcpServer other(&loop_);
    EXPECT_FALSE(other.StartTcp4("127.0.0.1", 0));
    EXPECT_FALSE(other.initialised);
    EXPECT_EQ(turns, turns_before) << "the loop was turned inside its own turn";
  };
  auto [peer, id] = Connect();
  ASSERT_TRUE(peer.SendBytes("x"));
  ASSERT_TRUE(TurnUntil([&] { return asked; }));
  server_.Write(id, "unharmed", 8);
  EXPECT_EQ(Read(peer, 8), "unharmed");
  uv_close(reinterpret_cast<uv_handle_t*>(&count), nullptr);
  server_.Run(UV_RUN_NOWAIT);  // `count` has to be closed before it goes
}

TEST_F(TcpServerLifecycle, KnowsThatTheApplicationTurnsTheLoopItself) {
  ASSERT_TRUE(Listen());
  on_receive_ = [&](int, const char*, int) {
    EXPECT_FALSE(server_.Run(UV_RUN_NOWAIT));
    server_.CloseAll();
    EXPECT_NE(server_.listener.data, nullptr) << "the loop was turned inside its own turn";
  };
  auto [peer, id] = Connect();
  ASSERT_TRUE(peer.SendBytes("x"));
  uv_run(&loop_, UV_RUN_DEFAULT);
  EXPECT_EQ(server_.listener.data, nullptr);
  EXPECT_TRUE(peer.ReadEof());

  ASSERT_TRUE(Listen());
  on_connect_ = [&](int) {
    server_.CloseAll();
    EXPECT_NE(server_.listener.data, nullptr) << "the loop was turned inside its own turn";
  };
  RawPeer next = ConnectPeer(PortOf(server_));
  uv_run(&loop_, UV_RUN_DEFAULT);
  EXPECT_TRUE(next.ReadEof());
}

TEST_F(TcpServerLifecycle, IsNotInitialisedAgainBeforeTheLoopHasTurned) {
  ASSERT_TRUE(Listen());
  bool asked = false;
  on_receive_ = [&](int, const char*, int) {
    asked = true;
    server_.CloseAll();
    EXPECT_FALSE(server_.Init());
    server_.CloseAll();
  };
  auto [peer, id] = Connect();
  ASSERT_TRUE(peer.SendBytes("x"));
  ASSERT_TRUE(TurnUntil([&] { return asked; }));
  EXPECT_TRUE(server_.Init());
}

TEST_F(TcpServerLifecycle, ServesTheOthersOnTheLoopWhileItCloses) {
  CTcpServer other(&loop_);
  ASSERT_TRUE(other.Init() && other.BindTcp4("127.0.0.1", 0) && other.Listen(128));
  ASSERT_TRUE(Listen());
  other.CloseAll();
  ASSERT_TRUE(other.Init());
  EXPECT_TRUE(server_.initialised);
  auto [peer, id] = Connect();
  server_.Write(id, "unharmed", 8);
  EXPECT_EQ(Read(peer, 8), "unharmed");
}

TEST_F(TcpServerLifecycle, LeavesTheLoopToWhoTurnsItWhenItCloses) {
  ASSERT_TRUE(Listen());
  auto [peer, id] = Connect();
  struct Closer {
    CTcpServer* server;
    int turns;
  } closer{&server_, 0};
  uv_prepare_t count;
  uv_prepare_init(&loop_, &count);
  count.data = &closer;
  uv_prepare_start(&count, [](uv_prepare_t* prepare) { ++static_cast<Closer*>(prepare->data)->turns; });
  // A callback the server knows nothing of, in a run it knows nothing of.
  uv_idle_t idle;
  uv_idle_init(&loop_, &idle);
  idle.data = &closer;
  uv_idle_start(&idle, [](uv_idle_t* handle) {
    auto* const closing = static_cast<Closer*>(handle->data);
    const int turns_before = closing->turns;
    closing->server->CloseAll();
    EXPECT_EQ(closing->turns, turns_before) << "the loop was turned inside its own turn";
    EXPECT_NE(closing->server->listener.data, nullptr);
    uv_close(reinterpret_cast<uv_handle_t*>(handle), nullptr);
  });
  uv_unref(reinterpret_cast<uv_handle_t*>(&count));
  uv_run(&loop_, UV_RUN_DEFAULT);
  EXPECT_EQ(server_.listener.data, nullptr);
  EXPECT_TRUE(peer.ReadEof());
  uv_close(reinterpret_cast<uv_handle_t*>(&count), nullptr);
  uv_run(&loop_, UV_RUN_DEFAULT);
}

// A write that cannot be finished ends the process. One that is cut off because everything is taken down must not.
TEST_F(TcpServerLifecycle, CanBeTakenDownWithAWriteUnderWay) {
  const std::string text(24 * 1024 * 1024, 'x');
  {
    ASSERT_TRUE(Listen());
    auto [peer, id] = Connect();
    server_.Write(id, text.data(), static_cast<int>(text.size()));
    ASSERT_GT(uv_stream_get_write_queue_size(reinterpret_cast<uv_stream_t*>(server_.clients.at(id)->handle)), 0u);
    server_.CloseAll();
    ASSERT_TRUE(server_.Init());
  }
  auto server = std::make_unique<CTcpServer>(&loop_);
  ASSERT_TRUE(server->Init() && server->BindTcp4("127.0.0.1", 0) && server->Listen(128));
  const RawPeer peer = ConnectPeer(PortOf(*server));
  ASSERT_TRUE(mivo_test::Eventually([&] {
    server->Run(UV_RUN_NOWAIT);
    return !server->clients.empty();
  }));
  const int id = server->clients.begin()->first;
  server->Write(id, text.data(), static_cast<int>(text.size()));
  ASSERT_TRUE(server->CloseClient(id));
  server.reset();
}

TEST_F(TcpServerLifecycle, LeavesNoDescriptorBehind) {
  // The first handle of a loop opens a descriptor that stays with the loop.
  ASSERT_TRUE(server_.Init());
  server_.CloseAll();
  const mivo_test::Resources before = mivo_test::CountResources();
  for (int round = 0; round < 5; ++round) {
    ASSERT_TRUE(Listen());
    auto [peer, id] = Connect();
    auto [gone, gone_id] = Connect();
    gone.Reset();
    ASSERT_TRUE(TurnUntil([&] { return server_.clients.size() == 1; }));
    server_.CloseAll();
    EXPECT_FALSE(server_.StartTcp4("203.0.113.7", 0));
    server_.CloseAll();
  }
  mivo_test::ExpectSameResources(before);
}

}  // namespace
