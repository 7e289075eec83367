#include "transport/door.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>
#include <uv.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/clock.h"
#include "support/background.h"
#include "support/golden.h"
#include "support/sanitizers.h"
#include "support/stdout_capture.h"
#include "support/uv_faults.h"
#include "unit/live_bytes.h"
#include "unit/payload.h"
#include "unit/stream_pair.h"

namespace mivo {
namespace {

using mivo_test::Fault;
using mivo_test::Framed;
using mivo_test::ScopedFault;
using mivo_test::StdoutCapture;
using mivo_test::StreamPair;

std::string GoneLine(int error, const std::string& count = "") {
  return std::string("Write error: ") + uv_strerror(error) + count + "\n";
}

// A door on one end of a pair; the test is the pool.
class Street : public Door::Room {
 public:
  Street() {
    // As little as the kernel allows: short writes are the rule.
    const int size = 1;
    setsockopt(descriptor_, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    door.Open(descriptor_);
  }
  ~Street() {
    door.Close();
    close(descriptor_);
  }
  Street(const Street&) = delete;
  Street& operator=(const Street&) = delete;

  void SetAwaitingRoom(bool on) override {
    EXPECT_NE(on, awaits_room) << "told of nothing new";
    awaits_room = on;
    ++times_told;
  }

  Door::Sent Send(std::string payload) { return door.Send(Frame(std::move(payload))); }

  // What the peer gets, the door writing on whenever it wishes to, until `size` bytes.
  std::string ReadAll(std::size_t size) {
    std::string bytes;
    mivo_test::Stopwatch watch;
    while (bytes.size() < size && watch.ElapsedMs() < mivo_test::kPatience.count()) {
      bytes += pair.ReadSome(65536);
      if (awaits_room) door.WriteOn();
    }
    return bytes;
  }

  // Sends frames until one does not fit. Returns what was sent.
  std::string Fill() {
    std::string sent;
    for (int i = 0; !awaits_room; ++i) {
      const std::string payload = "filling " + std::to_string(i) + std::string(3000, 'f');
      EXPECT_EQ(Send(payload), Door::Sent::kAccepted);
      sent += Framed(payload);
    }
    return sent;
  }

  int descriptor() const { return descriptor_; }

  StreamPair pair = StreamPair::Local();
  // Written under the door's lock, by any thread that sends.
  std::atomic<bool> awaits_room{false};
  std::atomic<int> times_told{0};
  Door door{*this};

 private:
  const int descriptor_ = pair.TakeOurs();
};

TEST(Door, PutsTheLengthBeforeThePayload) {
  Street street;
  EXPECT_EQ(street.Send("payload"), Door::Sent::kAccepted);
  EXPECT_EQ(street.pair.ReadSome(), mivo_test::FromHex("07 00 00 00") + "payload");
}

TEST(Door, SendsAFrameWithoutContent) {
  Street street;
  EXPECT_EQ(street.Send(""), Door::Sent::kAccepted);
  EXPECT_EQ(street.pair.ReadSome(), std::string(4, '\0'));
}

TEST(Door, SendsAFrameInOneCallAndLeavesNothingWaiting) {
  Street street;
  const ScopedFault count_only(Fault::kSendCall, 1, 0, 0);
  street.Send("one");
  street.Send("two");
  EXPECT_EQ(count_only.calls(), 2);
  EXPECT_EQ(street.door.waiting(), 0U);
  EXPECT_EQ(street.times_told, 0);
  EXPECT_EQ(street.pair.ReadSome(), Framed("one") + Framed("two"));
}

TEST(Door, KeepsWhatTheKernelDoesNotTakeAndAllThatComesBehindIt) {
  Street street;
  const StdoutCapture out;
  const std::string large(300000, 'a');
  EXPECT_EQ(street.Send(large), Door::Sent::kAccepted);
  EXPECT_TRUE(street.awaits_room);
  const std::size_t waiting = street.door.waiting();
  EXPECT_GT(waiting, 0U);
  EXPECT_LT(waiting, large.size() + 4);
  const ScopedFault count_only(Fault::kSendCall, 1, 0, 0);
  EXPECT_EQ(street.Send(""), Door::Sent::kAccepted);
  EXPECT_EQ(street.Send("behind"), Door::Sent::kAccepted);
  // They do not even try.
  EXPECT_EQ(count_only.calls(), 0);
  EXPECT_EQ(street.door.waiting(), waiting + 4 + 10);
  EXPECT_EQ(street.times_told, 1);

  const std::string expected = Framed(large) + Framed("") + Framed("behind");
  EXPECT_TRUE(street.ReadAll(expected.size()) == expected);
  EXPECT_EQ(street.door.waiting(), 0U);
  EXPECT_FALSE(street.awaits_room);
  EXPECT_EQ(street.times_told, 2);
  EXPECT_EQ(out.Text(), "");
}

TEST(Door, SendsAtOnceAgainWhenNothingWaitsAnyMore) {
  Street street;
  std::string expected = street.Fill();
  EXPECT_TRUE(street.ReadAll(expected.size()) == expected);
  EXPECT_EQ(street.Send("at once"), Door::Sent::kAccepted);
  EXPECT_EQ(street.pair.ReadSome(), Framed("at once"));
}

TEST(Door, WritesNothingOnWhereThereIsNoRoom) {
  Street street;
  const std::string sent = street.Fill();
  const std::size_t waiting = street.door.waiting();
  street.door.WriteOn();
  street.door.WriteOn();
  EXPECT_EQ(street.door.waiting(), waiting);
  EXPECT_TRUE(street.awaits_room);
  EXPECT_TRUE(street.ReadAll(sent.size()) == sent);
}

TEST(Door, WritesManySmallFramesOnInFewCalls) {
  Street street;
  std::string expected = street.Fill();
  for (int i = 0; i < 1000; ++i) {
    street.Send(std::to_string(i));
    expected += Framed(std::to_string(i));
  }
  const ScopedFault count_only(Fault::kSendCall, 1, 0, 0);
  EXPECT_TRUE(street.ReadAll(expected.size()) == expected);
  EXPECT_LT(count_only.calls(), 200);
}

TEST(Door, GoesOnAfterAnyByteOfAFrame) {
  for (std::size_t most = 1; most < 40; ++most) {
    Street street;
    const mivo_test::ScopedShortSends short_sends(most);
    for (const char* const payload : {"eightbit", "", "", "next", "one a little longer"})
      EXPECT_EQ(street.Send(payload), Door::Sent::kAccepted);
    const std::string expected =
        Framed("eightbit") + Framed("") + Framed("") + Framed("next") + Framed("one a little longer");
    EXPECT_EQ(street.ReadAll(expected.size()), expected) << most;
    EXPECT_EQ(street.door.waiting(), 0U) << most;
    EXPECT_FALSE(street.awaits_room) << most;
  }
}

TEST(Door, TriesAgainWhatTheKernelRefusesForAWantOfMemory) {
  for (int failures = 0; failures <= 3; ++failures) {
    Street street;
    const StdoutCapture out;
    const ScopedFault fault(Fault::kSendCall, 1, failures, -ENOBUFS);
    EXPECT_EQ(street.Send("payload"), Door::Sent::kAccepted) << failures;
    EXPECT_EQ(fault.calls(), failures + 1);
    EXPECT_EQ(street.pair.ReadSome(), Framed("payload")) << failures;
    EXPECT_EQ(out.Text(), "") << failures;
  }
}

TEST(Door, PausesAMillisecondBetweenTries) {
  Street street;
  const ScopedFault fault(Fault::kSendCall, 1, 3, -ENOBUFS);
  EXPECT_EQ(street.Send("payload"), Door::Sent::kAccepted);
  const auto times = fault.times();
  ASSERT_EQ(times.size(), 4U);
  for (std::size_t i = 1; i < times.size(); ++i) {
    EXPECT_GE(times[i] - times[i - 1], std::chrono::milliseconds(1)) << i;
  }
}

TEST(Door, DropsTheFrameAfterFourTriesAndSaysSo) {
  Street street;
  const StdoutCapture out;
  {
    const ScopedFault fault(Fault::kSendCall, 1, 100, -ENOMEM);
    EXPECT_EQ(street.Send("dropped"), Door::Sent::kDropped);
    EXPECT_EQ(fault.calls(), 4);
  }
  EXPECT_EQ(out.Text(), "write error\n");
  EXPECT_EQ(street.door.waiting(), 0U);
  EXPECT_EQ(street.times_told, 0);
  // The stream is as it was.
  EXPECT_EQ(street.Send("next"), Door::Sent::kAccepted);
  EXPECT_EQ(street.pair.ReadSome(), Framed("next"));
  EXPECT_EQ(out.Text(), "write error\n");
}

TEST(Door, TriesAgainOnlyWithWhatTheKernelHasNotTaken) {
  // The first write is a short one; the next, which the pool makes, is refused: the bytes wait for the one after that.
  Street street;
  const StdoutCapture out;
  const std::string sent = street.Fill();
  EXPECT_NE(street.pair.ReadSome(2000), "");
  {
    const std::size_t waiting = street.door.waiting();
    const ScopedFault fault(Fault::kSendCall, 1, 1, -ENOBUFS);
    street.door.WriteOn();
    EXPECT_EQ(fault.failures(), 1);
    EXPECT_EQ(street.door.waiting(), waiting);
    EXPECT_TRUE(street.awaits_room);
  }
  EXPECT_TRUE(street.ReadAll(sent.size() - 2000) == sent.substr(2000));
  EXPECT_EQ(out.Text(), "");
}

TEST(Door, TakesNoRoomForAnError) {
  Street street;
  const ScopedFault fault(Fault::kSendCall, 1, 1, -EAGAIN);
  EXPECT_EQ(street.Send("waits"), Door::Sent::kAccepted);
  EXPECT_EQ(fault.calls(), 1);
  EXPECT_TRUE(street.awaits_room);
  EXPECT_EQ(street.door.waiting(), 9U);
  street.door.WriteOn();
  EXPECT_EQ(street.pair.ReadSome(), Framed("waits"));
}

TEST(Door, IsNotDisturbedByASignal) {
  Street street;
  const ScopedFault fault(Fault::kSendCall, 1, 5, -EINTR);
  EXPECT_EQ(street.Send("payload"), Door::Sent::kAccepted);
  EXPECT_EQ(fault.calls(), 6);
  EXPECT_EQ(street.pair.ReadSome(), Framed("payload"));
}

TEST(Door, EndsTheStreamOfAPeerThatHasGoneAndSaysSoOnce) {
  for (const int error : {EPIPE, ECONNRESET, ENOTCONN, ETIMEDOUT, ECONNABORTED}) {
    Street street;
    const StdoutCapture out;
    const ScopedFault fault(Fault::kSendCall, 1, 1, -error);
    EXPECT_EQ(street.Send("for nobody"), Door::Sent::kAccepted) << error;
    // Not tried again, and nothing more is.
    EXPECT_EQ(street.Send("another"), Door::Sent::kAccepted) << error;
    EXPECT_EQ(fault.calls(), 1) << error;
    EXPECT_EQ(out.Text(), GoneLine(-error));
    EXPECT_EQ(street.door.waiting(), 0U);
    EXPECT_EQ(street.times_told, 0);
    // Whoever reads finds the end, here and there.
    char byte = 0;
    EXPECT_EQ(recv(street.descriptor(), &byte, 1, MSG_DONTWAIT), 0) << error;
    EXPECT_EQ(street.pair.ReadSome(), "");
    EXPECT_TRUE(street.pair.has_ended());
  }
}

TEST(Door, LeavesWhatHasArrivedToTheReaderWhenThePeerHasGone) {
  Street street;
  const StdoutCapture out;
  street.pair.Write("last words");
  street.pair.ClosePeer();
  EXPECT_EQ(street.Send("for nobody"), Door::Sent::kAccepted);
  EXPECT_EQ(out.Text(), GoneLine(UV_EPIPE));
  char bytes[16];
  EXPECT_EQ(recv(street.descriptor(), bytes, sizeof bytes, MSG_DONTWAIT), 10);
  EXPECT_EQ(recv(street.descriptor(), bytes, sizeof bytes, MSG_DONTWAIT), 0);
}

TEST(Door, CountsTheFramesThatWaitedForAPeerThatHasGone) {
  Street street;
  const StdoutCapture out;
  street.Send(std::string(300000, 'x'));
  street.Send("second");
  street.Send("third");
  street.pair.ClosePeer();
  street.door.WriteOn();
  EXPECT_EQ(out.Text(), GoneLine(UV_EPIPE, " (3 messages)"));
  EXPECT_EQ(street.door.waiting(), 0U);
  EXPECT_FALSE(street.awaits_room);
  street.door.WriteOn();
  EXPECT_EQ(street.Send("fourth"), Door::Sent::kAccepted);
  EXPECT_EQ(out.Count("\n"), 1);
}

TEST(Door, CountsNoSingleFrame) {
  Street street;
  const StdoutCapture out;
  street.Send(std::string(300000, 'x'));
  street.pair.ClosePeer();
  street.door.WriteOn();
  EXPECT_EQ(out.Text(), GoneLine(UV_EPIPE));
}

TEST(Door, IsClosedBeforeItIsOpenAndAfterItWasClosed) {
  class NoRoom : public Door::Room {
   public:
    void SetAwaitingRoom(bool) override { ADD_FAILURE(); }
  } room;
  const StdoutCapture out;
  Door unopened(room);
  EXPECT_EQ(unopened.Send(Frame("early")), Door::Sent::kClosed);
  unopened.WriteOn();
  unopened.Break();
  unopened.Drain(NowMs() + 100000);
  unopened.Close();

  Street street;
  street.door.Close();
  EXPECT_EQ(street.Send("late"), Door::Sent::kClosed);
  street.door.WriteOn();
  street.door.Break();
  street.door.Drain(NowMs() + 100000);
  street.door.Close();
  EXPECT_EQ(street.pair.ReadSome(), "");
  EXPECT_FALSE(street.pair.has_ended());
  EXPECT_EQ(out.Text(), "");
}

TEST(Door, DropsWhatStillWaitsWhenItClosesAndSaysSoOnce) {
  Street street;
  const StdoutCapture out;
  const std::size_t before = mivo_test::LiveBytes();
  street.Send(std::string(3000000, 'x'));
  street.Send("second");
  street.door.Close();
  EXPECT_EQ(out.Text(), GoneLine(UV_ECANCELED, " (2 messages)"));
  EXPECT_FALSE(street.awaits_room);
  EXPECT_EQ(street.door.waiting(), 0U);
  EXPECT_LT(mivo_test::LiveBytes(), before + 1000000);
  street.door.Close();
  EXPECT_EQ(out.Count("\n"), 1);
}

TEST(Door, BreaksWithoutAWord) {
  Street street;
  const StdoutCapture out;
  street.Send(std::string(300000, 'x'));
  street.door.Break();
  EXPECT_EQ(street.door.waiting(), 0U);
  EXPECT_EQ(street.Send("behind"), Door::Sent::kAccepted);
  char byte = 0;
  EXPECT_EQ(recv(street.descriptor(), &byte, 1, MSG_DONTWAIT), 0);
  street.door.WriteOn();
  EXPECT_FALSE(street.awaits_room);
  street.door.Close();
  EXPECT_EQ(out.Text(), "");
}

TEST(Door, DrainsToAPeerThatReads) {
  Street street;
  const std::string large(2000000, 'x');
  street.Send(large);
  street.Send("tail");
  const std::string expected = Framed(large) + Framed("tail");
  mivo_test::Background<std::string> reader([&] {
    std::string bytes;
    const mivo_test::Stopwatch watch;
    while (bytes.size() < expected.size() && watch.ElapsedMs() < mivo_test::kPatience.count())
      bytes += street.pair.ReadSome(65536);
    return bytes;
  });
  street.door.Drain(NowMs() + mivo_test::kPatience.count());
  EXPECT_EQ(street.door.waiting(), 0U);
  EXPECT_FALSE(street.awaits_room);
  EXPECT_TRUE(reader.Get() == expected);
}

TEST(Door, DrainsUntilItsTimeIsOverToAPeerThatDoesNotRead) {
  Street street;
  const StdoutCapture out;
  street.Fill();
  const std::size_t waiting = street.door.waiting();
  const mivo_test::Stopwatch watch;
  const std::int64_t begin = NowMs();
  street.door.Drain(begin + 60);
  EXPECT_GE(NowMs(), begin + 60);
  EXPECT_LT(watch.ElapsedMs(), mivo_test::kPatience.count() / 2);
  EXPECT_EQ(street.door.waiting(), waiting);
  EXPECT_TRUE(street.awaits_room);
  // A time that is over already costs nothing.
  street.door.Drain(NowMs() - 1);
  EXPECT_EQ(out.Text(), "");
}

TEST(Door, DrainsNothingWhenNothingWaits) {
  Street street;
  street.door.Drain(NowMs() + 1000000);
  street.Send("sent");
  street.door.Drain(NowMs() + 1000000);
  EXPECT_EQ(street.pair.ReadSome(), Framed("sent"));
}

TEST(Door, StopsDrainingWhenThePeerGoesOrTheDoorCloses) {
  const StdoutCapture out;
  for (const bool is_close : {false, true}) {
    Street street;
    street.Fill();
    mivo_test::Background<bool> drain([&] {
      street.door.Drain(NowMs() + 4 * mivo_test::kPatience.count());
      return true;
    });
    if (is_close) {
      street.door.Close();
      // What the owner does next.
      shutdown(street.descriptor(), SHUT_RDWR);
    } else {
      street.pair.ClosePeer();
    }
    EXPECT_TRUE(drain.WaitFor());
    EXPECT_EQ(street.door.waiting(), 0U);
  }
  EXPECT_EQ(out.Text(), GoneLine(UV_EPIPE) + GoneLine(UV_ECANCELED));
}

// Frames of many senders: thread, number, and a length that varies, filled with the thread's letter.
class ManySenders {
 public:
  static constexpr int kSenders = 4;
  static constexpr int kEach = 400 / mivo_test::kScaledown;

  static std::string PayloadOf(int sender, int number) {
    const std::size_t size = static_cast<std::size_t>((sender * 7919 + number * 104729) % 20000);
    return std::to_string(sender) + ":" + std::to_string(number) + ":" +
           std::string(size, static_cast<char>('a' + sender));
  }

  // Whether the stream has whole frames only, each sender's in their order, and all of them.
  static void Check(std::string_view stream) {
    std::vector<int> next(kSenders, 0);
    while (!stream.empty()) {
      ASSERT_GE(stream.size(), 4U);
      std::int32_t length = 0;
      std::memcpy(&length, stream.data(), 4);
      ASSERT_GE(length, 0);
      ASSERT_GE(stream.size(), 4 + static_cast<std::size_t>(length));
      const std::string_view payload = stream.substr(4, static_cast<std::size_t>(length));
      const int sender = payload.empty() ? -1 : payload.front() - '0';
      ASSERT_TRUE(sender >= 0 && sender < kSenders);
      ASSERT_EQ(payload, PayloadOf(sender, next[static_cast<std::size_t>(sender)]++));
      stream.remove_prefix(4 + static_cast<std::size_t>(length));
    }
    for (const int count : next)
      EXPECT_EQ(count, kEach);
  }
};

TEST(Door, NeverMixesTheFramesOfManySendersAndKeepsTheOrderOfEach) {
  Street street;
  std::size_t size = 0;
  for (int sender = 0; sender < ManySenders::kSenders; ++sender) {
    for (int number = 0; number < ManySenders::kEach; ++number)
      size += 4 + ManySenders::PayloadOf(sender, number).size();
  }
  // Now and then the kernel is short of memory, too.
  const ScopedFault fault(Fault::kSendCall, 100, 2, -ENOBUFS);
  std::vector<std::thread> senders;
  for (int sender = 0; sender < ManySenders::kSenders; ++sender) {
    senders.emplace_back([&street, sender] {
      for (int number = 0; number < ManySenders::kEach; ++number) {
        EXPECT_EQ(street.Send(ManySenders::PayloadOf(sender, number)), Door::Sent::kAccepted);
      }
    });
  }
  const std::string stream = street.ReadAll(size);
  for (std::thread& sender : senders)
    sender.join();
  ASSERT_EQ(stream.size(), size);
  ManySenders::Check(stream);
  EXPECT_EQ(fault.failures(), 2);
}

TEST(Door, MayBeClosedWhileManySend) {
  const StdoutCapture out;
  for (int round = 0; round < 20; ++round) {
    Street street;
    std::atomic<int> accepted{0};
    std::vector<std::thread> senders;
    for (int i = 0; i < 3; ++i) {
      senders.emplace_back([&] {
        while (street.Send(std::string(1000, 'x')) == Door::Sent::kAccepted)
          ++accepted;
      });
    }
    EXPECT_TRUE(mivo_test::Eventually([&] { return accepted > 0; }));
    street.door.Close();
    for (std::thread& sender : senders)
      sender.join();
    EXPECT_EQ(street.door.waiting(), 0U);
  }
}

}  // namespace
}  // namespace mivo
