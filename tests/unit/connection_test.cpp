#include "transport/connection.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <uv.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/sigpipe_guard.h"
#include "support/golden.h"
#include "support/stdout_capture.h"
#include "support/uv_faults.h"
#include "unit/payload.h"
#include "unit/stream_pair.h"
#include "unit/test_loop.h"

namespace mivo {
namespace {

using mivo_test::Fault;
using mivo_test::Framed;
using mivo_test::FromHex;
using mivo_test::ScopedFault;
using mivo_test::StdoutCapture;
using mivo_test::StreamPair;
using Strings = std::vector<std::string>;

// Writes down what it is told; does what the test has it do.
class Journal : public Connection::Owner {
 public:
  void OnRead(Connection&) override { ++reads; }
  void OnPayload(Connection& connection, std::string_view payload) override {
    payloads.emplace_back(payload);
    if (on_payload) on_payload(connection);
  }
  void OnEnd(Connection& connection, int status) override {
    ends.push_back(status);
    if (on_end) on_end(connection);
    connection.Close();
  }
  void OnFrameDropped(Connection&) override { ++dropped; }

  int reads = 0;
  Strings payloads;
  std::vector<int> ends;
  int dropped = 0;
  std::function<void(Connection&)> on_payload;
  std::function<void(Connection&)> on_end;
};

// A connection over one end of a pair.
struct Peers {
  explicit Peers(StreamPair ends = StreamPair::Local(), bool is_tcp = false) : pair(std::move(ends)) {
    connection = std::make_shared<Connection>(loop, journal, 42);
    if (is_tcp) {
      EXPECT_EQ(connection->OpenTcp(), 0);
      EXPECT_EQ(uv_tcp_open(connection->tcp(), pair.TakeOurs()), 0);
    } else {
      EXPECT_EQ(connection->OpenLocal(), 0);
      EXPECT_EQ(uv_pipe_open(connection->pipe(), pair.TakeOurs()), 0);
    }
    EXPECT_EQ(connection->StartReading(), 0);
  }
  ~Peers() {
    if (connection) connection->Close();
  }
  Peers(const Peers&) = delete;
  Peers& operator=(const Peers&) = delete;

  // One turn of the loop, whatever it brings.
  void Turn() { uv_run(loop.uv(), UV_RUN_NOWAIT); }

  std::string ReadAll(std::size_t size) {
    std::string bytes;
    loop.RunUntil([&] {
      bytes += pair.ReadSome();
      return bytes.size() >= size;
    });
    return bytes;
  }

  const SigpipeGuard guard;
  TestLoop loop;
  StreamPair pair;
  Journal journal;
  std::shared_ptr<Connection> connection;
};

TEST(Connection, KeepsTheIdItWasGiven) {
  const Peers peers;
  EXPECT_EQ(peers.connection->id(), 42);
  EXPECT_FALSE(peers.connection->is_closed());
}

TEST(Connection, HandsOnThePayloadsOfItsStream) {
  Peers peers;
  peers.pair.Write(Framed("one") + Framed("two") + Framed("three").substr(0, 5));
  EXPECT_TRUE(peers.loop.RunUntil([&] { return peers.journal.payloads.size() == 2; }));
  peers.pair.Write(Framed("three").substr(5));
  EXPECT_TRUE(peers.loop.RunUntil([&] { return peers.journal.payloads.size() == 3; }));
  EXPECT_EQ(peers.journal.payloads, (Strings{"one", "two", "three"}));
  EXPECT_GE(peers.journal.reads, 2);
  EXPECT_TRUE(peers.journal.ends.empty());
}

TEST(Connection, ReadsAFrameLargerThanItsBuffer) {
  Peers peers;
  const std::string large(100000, 'x');
  const std::string frame = Framed(large);
  peers.pair.Write(frame.substr(0, 50000));
  EXPECT_TRUE(peers.loop.RunUntil([&] { return peers.journal.reads > 0; }));
  peers.pair.Write(frame.substr(50000));
  EXPECT_TRUE(peers.loop.RunUntil([&] { return !peers.journal.payloads.empty(); }));
  EXPECT_TRUE(peers.journal.payloads == Strings{large});
}

TEST(Connection, KeepsWhatIsPendingApartFromOtherConnectionsOfTheLoop) {
  Peers peers;
  Journal other_journal;
  StreamPair other_pair = StreamPair::Local();
  const auto other = std::make_shared<Connection>(peers.loop, other_journal, 43);
  ASSERT_EQ(other->OpenLocal(), 0);
  ASSERT_EQ(uv_pipe_open(other->pipe(), other_pair.TakeOurs()), 0);
  ASSERT_EQ(other->StartReading(), 0);

  const std::string one = Framed("one");
  const std::string two = Framed("two");
  peers.pair.Write(one.substr(0, 5));
  other_pair.Write(two.substr(0, 6));
  EXPECT_TRUE(peers.loop.RunUntil([&] { return peers.journal.reads == 1 && other_journal.reads == 1; }));
  peers.pair.Write(one.substr(5));
  other_pair.Write(two.substr(6));
  EXPECT_TRUE(peers.loop.RunUntil([&] { return peers.journal.reads == 2 && other_journal.reads == 2; }));
  EXPECT_EQ(peers.journal.payloads, Strings{"one"});
  EXPECT_EQ(other_journal.payloads, Strings{"two"});
  other->Close();
}

TEST(Connection, TellsOfTheEndOnceAndAfterThePayloads) {
  Peers peers;
  peers.pair.Write(Framed("last words"));
  peers.pair.ClosePeer();
  std::size_t payloads_at_end = 0;
  peers.journal.on_end = [&](Connection&) { payloads_at_end = peers.journal.payloads.size(); };
  EXPECT_TRUE(peers.loop.RunUntil([&] { return !peers.journal.ends.empty(); }));
  EXPECT_EQ(peers.journal.ends, std::vector<int>{UV_EOF});
  EXPECT_EQ(payloads_at_end, 1U);
  EXPECT_GE(peers.journal.reads, 2);
  EXPECT_TRUE(peers.connection->is_closed());
}

TEST(Connection, TellsOfAnEndInsideAFrame) {
  Peers peers;
  peers.pair.Write(Framed("cut off").substr(0, 6));
  peers.pair.ClosePeer();
  EXPECT_TRUE(peers.loop.RunUntil([&] { return !peers.journal.ends.empty(); }));
  EXPECT_EQ(peers.journal.ends, std::vector<int>{UV_EOF});
  EXPECT_TRUE(peers.journal.payloads.empty());
}

TEST(Connection, TellsOfAStreamThatFailed) {
  Peers peers;
  peers.connection->Send(Frame("never read"));
  peers.connection->Flush();
  peers.pair.ClosePeer();
  EXPECT_TRUE(peers.loop.RunUntil([&] { return !peers.journal.ends.empty(); }));
  EXPECT_EQ(peers.journal.ends, std::vector<int>{UV_ECONNRESET});
}

TEST(Connection, TellsOfAStreamThatMakesNoSense) {
  Peers peers;
  peers.pair.Write(Framed("good") + FromHex("FF FF FF FF") + Framed("lost"));
  EXPECT_TRUE(peers.loop.RunUntil([&] { return !peers.journal.ends.empty(); }));
  EXPECT_EQ(peers.journal.payloads, Strings{"good"});
  EXPECT_EQ(peers.journal.ends, std::vector<int>{0});
  EXPECT_TRUE(peers.connection->is_closed());
}

TEST(Connection, ReadsNothingBehindNonsenseThoughItsOwnerLeavesItOpen) {
  class Lenient : public Journal {
   public:
    void OnEnd(Connection&, int status) override { ends.push_back(status); }
  };
  TestLoop loop;
  Lenient journal;
  StreamPair pair = StreamPair::Local();
  const auto connection = std::make_shared<Connection>(loop, journal, 1);
  ASSERT_EQ(connection->OpenLocal(), 0);
  ASSERT_EQ(uv_pipe_open(connection->pipe(), pair.TakeOurs()), 0);
  ASSERT_EQ(connection->StartReading(), 0);
  pair.Write(FromHex("00 00 00 80"));
  EXPECT_TRUE(loop.RunUntil([&] { return !journal.ends.empty(); }));
  pair.Write(Framed("lost"));
  pair.ClosePeer();
  uv_run(loop.uv(), UV_RUN_NOWAIT);
  EXPECT_EQ(journal.ends, std::vector<int>{0});
  EXPECT_TRUE(journal.payloads.empty());
  connection->Close();
}

TEST(Connection, DropsTheFramesBehindThePayloadThatClosesIt) {
  Peers peers;
  peers.journal.on_payload = [](Connection& connection) { connection.Close(); };
  peers.pair.Write(Framed("closes") + Framed("behind") + FromHex("FF FF FF FF"));
  peers.loop.Run();
  EXPECT_EQ(peers.journal.payloads, Strings{"closes"});
  EXPECT_TRUE(peers.journal.ends.empty());
}

TEST(Connection, MayLoseItsLastReferenceWhileItHandsOn) {
  Peers peers;
  const std::weak_ptr<Connection> watched = peers.connection;
  peers.journal.on_payload = [&](Connection& connection) {
    connection.Close();
    peers.connection.reset();
  };
  peers.pair.Write(Framed("ends it") + Framed("behind"));
  peers.loop.Run();
  EXPECT_TRUE(watched.expired());
  EXPECT_EQ(peers.journal.payloads, Strings{"ends it"});
}

TEST(Connection, MayLoseItsLastReferenceAtItsEnd) {
  Peers peers;
  const std::weak_ptr<Connection> watched = peers.connection;
  peers.journal.on_end = [&](Connection&) { peers.connection.reset(); };
  peers.pair.ClosePeer();
  peers.loop.Run();
  EXPECT_TRUE(watched.expired());
  EXPECT_EQ(peers.journal.ends, std::vector<int>{UV_EOF});
}

TEST(Connection, EndsItsStreamWhenTheLastReferenceGoes) {
  Peers peers;
  peers.connection.reset();
  peers.loop.Run();
  peers.pair.ReadSome();
  EXPECT_TRUE(peers.pair.has_ended());
}

TEST(Connection, WritesWhatATurnHasCollectedInOneGo) {
  Peers peers;
  const ScopedFault count_only(Fault::kWrite, 1, 0, 0);
  peers.journal.on_payload = [](Connection& connection) {
    connection.Send(Frame("one"));
    connection.Send(Frame("two"));
  };
  peers.pair.Write(Framed("a") + Framed("b"));
  const std::string expected = Framed("one") + Framed("two");
  EXPECT_EQ(peers.ReadAll(2 * expected.size()), expected + expected);
  EXPECT_EQ(count_only.calls(), 1);
}

TEST(Connection, WritesAgainInTheNextTurn) {
  Peers peers;
  for (int round = 0; round < 3; ++round) {
    peers.connection->Send(Frame("frame"));
    EXPECT_EQ(peers.ReadAll(9), Framed("frame")) << round;
  }
}

TEST(Connection, WritesAtOnceWhenFlushed) {
  Peers peers;
  peers.connection->Send(Frame("one"));
  EXPECT_EQ(peers.pair.ReadSome(), "");
  peers.connection->Flush();
  EXPECT_EQ(peers.pair.ReadSome(), Framed("one"));
  // Nothing is left for the end of the turn.
  peers.connection->Flush();
  peers.Turn();
  EXPECT_EQ(peers.pair.ReadSome(), "");
}

TEST(Connection, SendsWhatComesBehindAFlushInTheSameTurn) {
  Peers peers;
  peers.connection->Send(Frame("one"));
  peers.connection->Flush();
  peers.connection->Send(Frame("two"));
  peers.Turn();
  EXPECT_EQ(peers.ReadAll(14), Framed("one") + Framed("two"));
}

TEST(Connection, WritesWhatWasSentBeforeItCloses) {
  Peers peers;
  peers.connection->Send(Frame("farewell"));
  peers.connection->Close();
  EXPECT_TRUE(peers.connection->is_closed());
  peers.connection->Close();
  EXPECT_EQ(peers.pair.ReadSome(), Framed("farewell"));
  peers.loop.Run();
  peers.pair.ReadSome();
  EXPECT_TRUE(peers.pair.has_ended());
}

TEST(Connection, DropsWhatIsSentAfterItsCloseAndTellsItsOwner) {
  Peers peers;
  const StdoutCapture out;
  peers.connection->Close();
  peers.connection->Send(Frame("too late"));
  peers.connection->Send(Frame("too late again"));
  peers.connection->Flush();
  EXPECT_EQ(peers.journal.dropped, 2);
  peers.loop.Run();
  EXPECT_EQ(peers.pair.ReadSome(), "");
  EXPECT_EQ(out.Text(), "");
}

TEST(Connection, TellsItsOwnerOfEachFrameThatCouldNotBeWrittenAndStaysOpen) {
  Peers peers;
  const StdoutCapture out;
  {
    const ScopedFault fault(Fault::kWrite, 1, 4, UV_ENOMEM);
    peers.connection->Send(Frame("a"));
    peers.connection->Send(Frame("b"));
    peers.connection->Flush();
  }
  EXPECT_EQ(peers.journal.dropped, 2);
  EXPECT_EQ(out.Text(), "write error\nwrite error\n");
  EXPECT_FALSE(peers.connection->is_closed());
  peers.connection->Send(Frame("next"));
  EXPECT_EQ(peers.ReadAll(8), Framed("next"));
}

TEST(Connection, SurvivesAPeerThatHasGoneWhileItWrites) {
  Peers peers;
  const StdoutCapture out;
  peers.pair.ClosePeer();
  peers.connection->Send(Frame("for nobody"));
  peers.loop.Run();
  EXPECT_EQ(peers.journal.ends.size(), 1U);
  EXPECT_EQ(out.Count("Write error: "), 1);
}

TEST(Connection, IsKeptByAFrameUntilTheEndOfTheTurn) {
  Peers peers;
  peers.connection->Send(Frame("last"));
  peers.connection.reset();
  EXPECT_EQ(peers.ReadAll(8), Framed("last"));
}

TEST(Connection, DoesNotCollectSmallMessagesOverTcp) {
  Peers peers(StreamPair::Tcp(), true);
  uv_os_fd_t descriptor = -1;
  ASSERT_EQ(uv_fileno(reinterpret_cast<const uv_handle_t*>(peers.connection->stream()), &descriptor), 0);
  int no_delay = 0;
  socklen_t size = sizeof no_delay;
  ASSERT_EQ(getsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &no_delay, &size), 0);
  EXPECT_EQ(no_delay, 1);
}

TEST(Connection, CarriesTheSameBytesOverTcp) {
  Peers peers(StreamPair::Tcp(), true);
  peers.pair.Write(Framed("in"));
  EXPECT_TRUE(peers.loop.RunUntil([&] { return !peers.journal.payloads.empty(); }));
  EXPECT_EQ(peers.journal.payloads, Strings{"in"});
  peers.connection->Send(Frame("out"));
  EXPECT_EQ(peers.ReadAll(7), Framed("out"));
}

TEST(Connection, IsClosedWhenItsHandleCannotBeMade) {
  TestLoop loop;
  Journal journal;
  const auto connection = std::make_shared<Connection>(loop, journal, 1);
  EXPECT_TRUE(connection->is_closed());
  {
    const ScopedFault fault(Fault::kPipeInit, 1, 1, UV_EMFILE);
    EXPECT_EQ(connection->OpenLocal(), UV_EMFILE);
  }
  {
    const ScopedFault fault(Fault::kTcpInit, 1, 1, UV_EMFILE);
    EXPECT_EQ(connection->OpenTcp(), UV_EMFILE);
  }
  EXPECT_TRUE(connection->is_closed());
  connection->Close();
}

TEST(Connection, SaysWhatLibuvSaysWhenItCannotRead) {
  TestLoop loop;
  Journal journal;
  const auto connection = std::make_shared<Connection>(loop, journal, 1);
  ASSERT_EQ(connection->OpenLocal(), 0);
  const ScopedFault fault(Fault::kReadStart, 1, 1, UV_ENOTCONN);
  EXPECT_EQ(connection->StartReading(), UV_ENOTCONN);
  connection->Close();
}

}  // namespace
}  // namespace mivo
