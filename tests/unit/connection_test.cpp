#include "transport/connection.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <uv.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "base/clock.h"
#include "support/background.h"
#include "support/golden.h"
#include "support/sanitizers.h"
#include "support/stdout_capture.h"
#include "support/thread_state.h"
#include "support/uv_faults.h"
#include "unit/connection_fixture.h"
#include "unit/pool_fixture.h"

namespace mivo {
namespace {

using mivo_test::Event;
using mivo_test::Eventually;
using mivo_test::Fault;
using mivo_test::Framed;
using mivo_test::FromHex;
using mivo_test::ScopedFault;
using mivo_test::StdoutCapture;
using mivo_test::StreamPair;

// How long nothing must happen where nothing may.
constexpr std::chrono::milliseconds kAWhile{50};

TEST(Connection, KeepsTheIdItWasGiven) {
  const Peers peers;
  EXPECT_EQ(peers.connection->id(), 42);
  EXPECT_FALSE(peers.connection->is_closed());
}

TEST(Connection, HandsOnThePayloadsOfItsStream) {
  Peers peers;
  peers.pair.Write(Framed("one") + Framed("two") + Framed("three").substr(0, 5));
  EXPECT_TRUE(peers.journal.WaitForPayloads(2));
  peers.pair.Write(Framed("three").substr(5));
  EXPECT_TRUE(peers.journal.WaitForPayloads(3));
  EXPECT_EQ(peers.journal.payloads(), (Strings{"one", "two", "three"}));
  // The first read, before any payload, and once.
  EXPECT_EQ(peers.journal.first_reads(), std::vector<int>{0});
  EXPECT_TRUE(peers.journal.ends().empty());
}

TEST(Connection, ReadsNothingBeforeItIsToldTo) {
  Peers peers(StreamPair::Local(), false);
  peers.pair.Write(Framed("early"));
  EXPECT_FALSE(peers.journal.WaitForPayloads(1, kAWhile));
  // It can be sent to.
  EXPECT_TRUE(peers.connection->Send(Frame("out")));
  EXPECT_EQ(peers.pair.ReadSome(), Framed("out"));
  peers.connection->StartReading();
  EXPECT_TRUE(peers.journal.WaitForPayloads(1));
}

TEST(Connection, FindsAnEndThatCameBeforeItReads) {
  Peers peers(StreamPair::Local(), false);
  peers.pair.Write(Framed("early"));
  peers.pair.ClosePeer();
  EXPECT_FALSE(peers.journal.WaitForPayloads(1, kAWhile));
  peers.connection->StartReading();
  EXPECT_TRUE(peers.journal.WaitForEnd());
  EXPECT_EQ(peers.journal.payloads(), Strings{"early"});
}

TEST(Connection, ReadsAFrameLargerThanItsBuffer) {
  Peers peers;
  const std::string large(100000, 'x');
  const std::string frame = Framed(large);
  peers.pair.Write(frame.substr(0, 50000));
  EXPECT_TRUE(Eventually([&] { return !peers.journal.first_reads().empty(); }));
  peers.pair.Write(frame.substr(50000));
  EXPECT_TRUE(peers.journal.WaitForPayloads(1));
  EXPECT_TRUE(peers.journal.payloads() == Strings{large});
}

TEST(Connection, TakesChunksThatLookLikeFramesInTheMiddleOfOneForWhatTheyAre) {
  Peers peers;
  const std::string inner = Framed("no message");
  const std::string outer = Framed("a" + inner + "b");
  for (const std::string& chunk : {outer.substr(0, 5), inner, outer.substr(5 + inner.size())}) {
    peers.pair.Write(chunk);
    EXPECT_TRUE(Eventually([&] { return peers.pair.IsTaken(); }));
  }
  EXPECT_TRUE(peers.journal.WaitForPayloads(1));
  EXPECT_EQ(peers.journal.payloads(), Strings{"a" + inner + "b"});
}

TEST(Connection, KeepsWhatIsPendingApartFromOtherConnections) {
  Peers peers;
  Peers others;
  const std::string one = Framed("one");
  const std::string two = Framed("two");
  peers.pair.Write(one.substr(0, 5));
  others.pair.Write(two.substr(0, 6));
  EXPECT_TRUE(Eventually([&] { return peers.pair.IsTaken() && others.pair.IsTaken(); }));
  peers.pair.Write(one.substr(5));
  others.pair.Write(two.substr(6));
  EXPECT_TRUE(peers.journal.WaitForPayloads(1));
  EXPECT_TRUE(others.journal.WaitForPayloads(1));
  EXPECT_EQ(peers.journal.payloads(), Strings{"one"});
  EXPECT_EQ(others.journal.payloads(), Strings{"two"});
}

TEST(Connection, HasTheJobsOfItsPayloadsRun) {
  Peers peers(StreamPair::Local(), false);
  std::atomic<int> ran{0};
  peers.journal.on_payload = [&](Connection&, std::string_view, Jobs& jobs) {
    jobs.Push(MakeJob(peers.jobs, [&ran] { ++ran; }));
  };
  peers.connection->StartReading();
  peers.pair.Write(Framed("one") + Framed("two"));
  EXPECT_TRUE(Eventually([&] { return ran == 2; }));
}

TEST(Connection, TellsOfTheEndOnceAndAfterThePayloads) {
  Peers peers;
  peers.pair.Write(Framed("last words"));
  peers.pair.ClosePeer();
  EXPECT_TRUE(peers.journal.WaitForEnd());
  EXPECT_EQ(peers.journal.payloads(), Strings{"last words"});
  EXPECT_EQ(peers.journal.first_reads(), std::vector<int>{0});
  // To close it is for the owner.
  EXPECT_FALSE(peers.connection->is_closed());
  peers.connection->Close();
  EXPECT_EQ(peers.journal.ends(), std::vector<int>{Connection::kPeerLeft});
}

TEST(Connection, TellsOfTheFirstReadThoughItFindsTheEnd) {
  Peers peers;
  peers.pair.ClosePeer();
  EXPECT_TRUE(peers.journal.WaitForEnd());
  EXPECT_EQ(peers.journal.first_reads(), std::vector<int>{0});
}

TEST(Connection, TellsOfAnEndInsideAFrame) {
  Peers peers;
  peers.pair.Write(Framed("cut off").substr(0, 6));
  peers.pair.ClosePeer();
  EXPECT_TRUE(peers.journal.WaitForEnd());
  EXPECT_EQ(peers.journal.ends(), std::vector<int>{Connection::kPeerLeft});
  EXPECT_TRUE(peers.journal.payloads().empty());
}

TEST(Connection, TellsOfAStreamThatFailed) {
  Peers peers;
  EXPECT_TRUE(peers.connection->Send(Frame("never read")));
  peers.pair.ClosePeer();
  EXPECT_TRUE(peers.journal.WaitForEnd());
  EXPECT_EQ(peers.journal.ends(), std::vector<int>{-ECONNRESET});
}

TEST(Connection, TellsOfAStreamThatMakesNoSenseAndReadsNothingBehindIt) {
  Peers peers;
  peers.pair.Write(Framed("good") + FromHex("FF FF FF FF") + Framed("lost"));
  EXPECT_TRUE(peers.journal.WaitForEnd());
  peers.pair.Write(Framed("lost"));
  peers.pair.ClosePeer();
  EXPECT_FALSE(peers.journal.WaitForPayloads(2, kAWhile));
  peers.connection->Close();
  EXPECT_EQ(peers.journal.payloads(), Strings{"good"});
  EXPECT_EQ(peers.journal.ends(), std::vector<int>{0});
}

TEST(Connection, IsNotWokenByAnEndThatItHasFound) {
  Peers peers;
  peers.pair.ClosePeer();
  EXPECT_TRUE(peers.journal.WaitForEnd());
  // The owner takes its time. Meanwhile the kernel would go on telling of the end.
  Peers others;
  others.pair.Write(Framed("x"));
  EXPECT_TRUE(others.journal.WaitForPayloads(1));
  EXPECT_TRUE(mivo_test::WaitUntilAsleep(others.journal.last_thread()));
}

TEST(Connection, EndsItsStreamWhenTheLastReferenceGoes) {
  Peers peers;
  peers.connection.reset();
  EXPECT_TRUE(peers.PeerFindsTheEnd());
  EXPECT_TRUE(peers.journal.ends().empty());
}

TEST(Connection, SendsAtOnce) {
  Peers peers;
  for (int round = 0; round < 3; ++round) {
    EXPECT_TRUE(peers.connection->Send(Frame("frame")));
    EXPECT_EQ(peers.pair.ReadSome(), Framed("frame")) << round;
  }
}

TEST(Connection, SendsWhatDoesNotFitWhenThereIsRoom) {
  Peers peers;
  const std::string large(5000000, 'x');
  EXPECT_TRUE(peers.connection->Send(Frame(large)));
  EXPECT_TRUE(peers.connection->Send(Frame("tail")));
  const std::string expected = Framed(large) + Framed("tail");
  EXPECT_TRUE(peers.ReadAll(expected.size()) == expected);
}

TEST(Connection, SendsWhatDoesNotFitThoughItDoesNotRead) {
  Peers peers(StreamPair::Local(), false);
  const std::string large(1000000, 'x');
  EXPECT_TRUE(peers.connection->Send(Frame(large)));
  EXPECT_TRUE(peers.ReadAll(large.size() + 4) == Framed(large));
}

TEST(Connection, DrainsBeforeItCloses) {
  Peers peers;
  const std::string large(3000000, 'x');
  EXPECT_TRUE(peers.connection->Send(Frame(large)));
  mivo_test::Background<std::string> reader([&] { return peers.ReadAll(large.size() + 4); });
  peers.connection->Drain(NowMs() + mivo_test::kPatience.count());
  peers.connection->Close();
  EXPECT_TRUE(reader.Get() == Framed(large));
  EXPECT_TRUE(peers.PeerFindsTheEnd());
}

TEST(Connection, HasWrittenWhatWasSentBeforeItCloses) {
  Peers peers;
  EXPECT_TRUE(peers.connection->Send(Frame("farewell")));
  peers.connection->Close();
  EXPECT_TRUE(peers.connection->is_closed());
  peers.connection->Close();
  EXPECT_EQ(peers.pair.ReadSome(), Framed("farewell"));
  EXPECT_TRUE(peers.PeerFindsTheEnd());
}

TEST(Connection, DropsWhatIsSentAfterItsCloseAndTellsItsOwner) {
  Peers peers;
  const StdoutCapture out;
  peers.connection->Close();
  EXPECT_FALSE(peers.connection->Send(Frame("too late")));
  EXPECT_FALSE(peers.connection->Send(Frame("too late again")));
  EXPECT_EQ(peers.journal.dropped(), 2U);
  EXPECT_EQ(peers.pair.ReadSome(), "");
  EXPECT_EQ(out.Text(), "");
}

TEST(Connection, TellsItsOwnerOfEachFrameThatCouldNotBeWrittenAndStaysOpen) {
  Peers peers;
  const StdoutCapture out;
  {
    const ScopedFault fault(Fault::kSendCall, 1, 8, -ENOMEM);
    EXPECT_FALSE(peers.connection->Send(Frame("a")));
    EXPECT_FALSE(peers.connection->Send(Frame("b")));
  }
  EXPECT_EQ(peers.journal.dropped(), 2U);
  EXPECT_EQ(out.Text(), "write error\nwrite error\n");
  EXPECT_FALSE(peers.connection->is_closed());
  EXPECT_TRUE(peers.connection->Send(Frame("next")));
  EXPECT_EQ(peers.pair.ReadSome(), Framed("next"));
}

TEST(Connection, ReportsWhatCannotEvenBeSent) {
  Peers peers;
  const StdoutCapture out;
  peers.connection->Drop();
  EXPECT_EQ(peers.journal.dropped(), 1U);
  EXPECT_EQ(out.Text(), "write error\n");
  peers.connection->Close();
  peers.connection->Drop();
  EXPECT_EQ(peers.journal.dropped(), 2U);
  EXPECT_EQ(out.Text(), "write error\n");
}

TEST(Connection, SurvivesAPeerThatHasGoneWhileItWrites) {
  Peers peers;
  const StdoutCapture out;
  peers.pair.ClosePeer();
  EXPECT_TRUE(peers.connection->Send(Frame("for nobody")));
  EXPECT_TRUE(peers.journal.WaitForEnd());
  EXPECT_EQ(peers.journal.ends().size(), 1U);
  EXPECT_EQ(out.Count("Write error: "), 1);
  EXPECT_EQ(out.Count("\n"), 1);
}

TEST(Connection, CarriesTheSameBytesOverTcp) {
  Peers peers(StreamPair::Tcp());
  peers.pair.Write(Framed("in"));
  EXPECT_TRUE(peers.journal.WaitForPayloads(1));
  EXPECT_EQ(peers.journal.payloads(), Strings{"in"});
  EXPECT_TRUE(peers.connection->Send(Frame("out")));
  EXPECT_EQ(peers.ReadAll(7), Framed("out"));
}

TEST(Connection, IsClosedWhenThePoolCannotWatchIt) {
  ConnectionJournal journal;
  JobGroup jobs;
  StreamPair pair = StreamPair::Local();
  const auto connection = std::make_shared<Connection>(journal, jobs, 1);
  EXPECT_TRUE(connection->is_closed());
  EXPECT_FALSE(connection->Send(Frame("early")));
  {
    const ScopedFault fault(Fault::kWatchCall, 1, 1, -ENOSPC);
    EXPECT_EQ(connection->Open(pair.TakeOurs()), -ENOSPC);
  }
  EXPECT_TRUE(connection->is_closed());
  EXPECT_FALSE(connection->Send(Frame("late")));
  EXPECT_EQ(pair.ReadSome(), "");
  EXPECT_TRUE(pair.has_ended());
  connection->Close();
}

TEST(Connection, TellsItsOwnerOfNothingMoreWhileItCloses) {
  Peers peers(StreamPair::Local(), false);
  Event is_inside;
  peers.journal.on_payload = [&](Connection& connection, std::string_view, Jobs&) {
    is_inside.Signal();
    EXPECT_TRUE(Eventually([&] { return connection.is_closed(); }));
  };
  peers.connection->StartReading();
  peers.pair.Write(Framed("first") + Framed("behind") + FromHex("FF FF FF FF"));
  EXPECT_TRUE(is_inside.WaitFor());
  // Waits for the one who reads.
  peers.connection->Close();
  EXPECT_EQ(peers.journal.payloads(), Strings{"first"});
  EXPECT_TRUE(peers.journal.ends().empty());
}

TEST(Connection, EndsWithALineWithoutMemoryForWhatHasCome) {
  Peers peers(StreamPair::Local(), false);
  const StdoutCapture out;
  peers.journal.on_payload = [](Connection&, std::string_view payload, Jobs&) {
    if (payload == "too large") throw std::bad_alloc();
  };
  peers.connection->StartReading();
  peers.pair.Write(Framed("fits") + Framed("too large") + Framed("behind"));
  EXPECT_TRUE(peers.journal.WaitForEnd());
  EXPECT_EQ(peers.journal.payloads(), (Strings{"fits", "too large"}));
  EXPECT_EQ(peers.journal.ends(), std::vector<int>{0});
  EXPECT_EQ(out.Text(), "out of memory: connection 42 ends\n");
  EXPECT_TRUE(peers.PeerFindsTheEnd());
}

TEST(Connection, EndsForWantOfMemoryElsewhereAndTheReaderFindsIt) {
  Peers peers;
  const StdoutCapture out;
  peers.connection->EndForWantOfMemory();
  EXPECT_TRUE(peers.journal.WaitForEnd());
  EXPECT_EQ(peers.journal.ends().size(), 1U);
  EXPECT_EQ(out.Text(), "out of memory: connection 42 ends\n");
  // The owner is about to close it: nobody is told of what comes now.
  EXPECT_TRUE(peers.connection->Send(Frame("late")));
  EXPECT_EQ(out.Count("\n"), 1);
}

TEST(Connection, SaysOfItsPeerWhatASecondAllowsAndCountsTheRest) {
  const StdoutCapture out;
  constexpr int kLines = LineBudget::kLinesASecond + 500;
  {
    Peers peers;
    for (int i = 0; i < kLines; ++i)
      peers.connection->SayOfPeer("line\n");
    EXPECT_GE(out.Count("line\n"), LineBudget::kLinesASecond);
  }
  // A busy machine may have taken more than a second for them.
  const int told = out.Count("line\n");
  EXPECT_TRUE(told == kLines || out.Contains(" suppressed\n"));
}

TEST(Connection, DoesNotReadFromAPeerForWhomTooMuchWaits) {
  Peers peers(StreamPair::Local(), false);
  peers.connection->PauseReadingWhenFull();
  peers.connection->StartReading();
  const std::string large(6000000, 'x');
  EXPECT_TRUE(peers.connection->Send(Frame(large)));
  peers.pair.Write(Framed("one more request"));
  EXPECT_FALSE(peers.journal.WaitForPayloads(1, kAWhile));
  // It is read from again when enough was taken.
  EXPECT_TRUE(peers.ReadAll(large.size() + 4) == Framed(large));
  EXPECT_TRUE(peers.journal.WaitForPayloads(1));
}

TEST(Connection, ReadsFromAFullPeerWhenItWasNotToldToPause) {
  Peers peers;
  const std::string large(6000000, 'x');
  EXPECT_TRUE(peers.connection->Send(Frame(large)));
  peers.pair.Write(Framed("one more notice"));
  EXPECT_TRUE(peers.journal.WaitForPayloads(1));
  EXPECT_TRUE(peers.ReadAll(large.size() + 4) == Framed(large));
}

TEST(Connection, FindsTheEndOfAFullPeerThatLeaves) {
  Peers peers(StreamPair::Local(), false);
  const StdoutCapture out;
  peers.connection->PauseReadingWhenFull();
  peers.connection->StartReading();
  EXPECT_TRUE(peers.connection->Send(Frame(std::string(6000000, 'x'))));
  peers.pair.ClosePeer();
  EXPECT_TRUE(peers.journal.WaitForEnd());
  EXPECT_EQ(out.Count("Write error: "), 1);
}

TEST(Connection, MayBeClosedWhileItReadsAndManySend) {
  for (int round = 0; round < 100 / mivo_test::kScaledown; ++round) {
    Peers peers;
    std::atomic<int> sent{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
      threads.emplace_back([&] {
        while (peers.connection->Send(Frame("frame")))
          ++sent;
      });
    }
    std::atomic<bool> is_over{false};
    threads.emplace_back([&] {
      while (!is_over) {
        peers.pair.ReadSome(65536);
        if (round % 2 == 0) peers.pair.TryWrite(Framed("request"));
      }
    });
    EXPECT_TRUE(Eventually([&] { return sent > 10; }));
    std::thread second([&] { peers.connection->Close(); });
    peers.connection->Close();
    second.join();
    is_over = true;
    for (std::thread& thread : threads)
      thread.join();
    EXPECT_TRUE(peers.journal.ends().empty());
  }
}

TEST(Connection, WritesNothingToAStrangerWhoGotItsNumber) {
  for (int round = 0; round < 200 / mivo_test::kScaledown; ++round) {
    Peers peers;
    std::atomic<int> sent{0};
    std::thread sender([&] {
      while (peers.connection->Send(Frame("for the peer")))
        ++sent;
    });
    EXPECT_TRUE(Eventually([&] { return sent > 0; }));
    peers.connection->Close();
    // One of these ends has the number now.
    StreamPair stranger = StreamPair::Local();
    StreamPair another = StreamPair::Local();
    sender.join();
    EXPECT_EQ(stranger.ReadSome(), "");
    EXPECT_EQ(another.ReadSome(), "");
  }
}

}  // namespace
}  // namespace mivo
