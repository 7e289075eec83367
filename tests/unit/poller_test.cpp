#include "pool/poller.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "pool/watch.h"
#include "support/event.h"
#include "support/teardown.h"
#include "support/uv_faults.h"
#include "unit/stream_pair.h"

namespace mivo {
namespace {

using mivo_test::Fault;
using mivo_test::ScopedFault;
using mivo_test::StreamPair;

// Nobody calls it here: the test itself looks at what the poller says.
class NamedSource : public Source {
 public:
  bool Read(Cause, Jobs&) override { return false; }
  void Write() override {}
};

// A watched end of a pair.
struct Watched {
  explicit Watched(Poller& poller) { EXPECT_EQ(watch.Start(poller, descriptor, source), 0); }
  ~Watched() {
    watch.Stop();
    if (descriptor >= 0) close(descriptor);
  }
  Watched(const Watched&) = delete;
  Watched& operator=(const Watched&) = delete;

  StreamPair pair = StreamPair::Local();
  int descriptor = pair.TakeOurs();
  std::shared_ptr<NamedSource> source = std::make_shared<NamedSource>();
  Watch watch;
};

struct OpenPoller : Poller {
  OpenPoller() { EXPECT_EQ(Open(), 0); }

  std::vector<Event> Look() {
    std::vector<Event> events(1);
    Wait(0, &events);
    return events;
  }
};

TEST(Poller, MayBeOpenedRepeatedlyAndLeavesNoDescriptor) {
  const mivo_test::Resources before = mivo_test::CountResources();
  {
    OpenPoller poller;
    EXPECT_EQ(poller.Open(), 0);
    EXPECT_TRUE(poller.Look().empty());
  }
  mivo_test::ExpectSameResources(before);
}

TEST(Poller, TellsOfBytesOfRoomAndOfTheEnd) {
  OpenPoller poller;
  Watched one(poller);
  EXPECT_TRUE(poller.Look().empty());
  one.watch.SetReading(true);
  EXPECT_TRUE(poller.Look().empty());
  one.pair.Write("bytes");
  std::vector<Poller::Event> events = poller.Look();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].source, one.source);
  EXPECT_TRUE(events[0].may_read);
  EXPECT_FALSE(events[0].may_write);
  EXPECT_FALSE(events[0].has_ended);

  one.watch.SetWriting(true);
  events = poller.Look();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_TRUE(events[0].may_read);
  EXPECT_TRUE(events[0].may_write);

  one.pair.ClosePeer();
  events = poller.Look();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_TRUE(events[0].has_ended);
}

TEST(Poller, SaysItAgainUntilItIsTaken) {
  OpenPoller poller;
  Watched one(poller);
  one.watch.SetReading(true);
  one.pair.Write("bytes");
  EXPECT_EQ(poller.Look().size(), 1U);
  EXPECT_EQ(poller.Look().size(), 1U);
  char bytes[16];
  EXPECT_EQ(recv(one.descriptor, bytes, sizeof bytes, 0), 5);
  EXPECT_TRUE(poller.Look().empty());
}

TEST(Poller, WaitsForWhatComes) {
  OpenPoller poller;
  Watched one(poller);
  one.watch.SetReading(true);
  std::vector<Poller::Event> events;
  poller.Wait(10, &events);
  EXPECT_TRUE(events.empty());
  std::thread writer([&one] { one.pair.Write("bytes"); });
  poller.Wait(-1, &events);
  writer.join();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].source, one.source);
}

TEST(Poller, TellsOfManySources) {
  OpenPoller poller;
  std::vector<std::unique_ptr<Watched>> all;
  for (int i = 0; i < 200; ++i) {
    all.push_back(std::make_unique<Watched>(poller));
    all.back()->watch.SetReading(true);
    if (i % 2 == 0) all.back()->pair.Write("bytes");
  }
  std::size_t told = 0;
  while (told < 100) {
    const std::vector<Poller::Event> events = poller.Look();
    ASSERT_FALSE(events.empty());
    for (const Poller::Event& event : events) {
      bool is_one_of_ours = false;
      for (std::size_t i = 0; i < all.size(); i += 2)
        is_one_of_ours = is_one_of_ours || all[i]->source == event.source;
      EXPECT_TRUE(is_one_of_ours);
      ++told;
    }
    for (std::size_t i = 0; i < all.size(); i += 2) {
      for (const Poller::Event& event : events) {
        if (event.source == all[i]->source) all[i]->watch.SetReading(false);
      }
    }
  }
  EXPECT_EQ(told, 100U);
  EXPECT_TRUE(poller.Look().empty());
}

TEST(Poller, TellsNothingOfASourceThatIsGone) {
  OpenPoller poller;
  Watched one(poller);
  one.watch.SetReading(true);
  one.pair.Write("bytes");
  one.source.reset();
  EXPECT_TRUE(poller.Look().empty());
}

TEST(Poller, KeepsASourceWhoseEventIsOnItsWay) {
  OpenPoller poller;
  Watched one(poller);
  one.watch.SetReading(true);
  one.pair.Write("bytes");
  std::vector<Poller::Event> events = poller.Look();
  const std::weak_ptr<NamedSource> watched = one.source;
  one.watch.Stop();
  one.source.reset();
  EXPECT_FALSE(watched.expired());
  events.clear();
  EXPECT_TRUE(watched.expired());
}

TEST(Poller, HandsTheEventOfAClosedDescriptorToNobodyElse) {
  OpenPoller poller;
  Watched old(poller);
  old.watch.SetReading(true);
  // Behind the back of its watch the descriptor is closed while the stream lives on: the kernel goes on telling of it,
  // as it would of an event that was on its way.
  const int stream = fcntl(old.descriptor, F_DUPFD_CLOEXEC, 0);
  const int number = old.descriptor;
  close(std::exchange(old.descriptor, -1));
  old.watch.Stop();
  old.pair.Write("for the old one");

  // Another gets the place, and another stream the number.
  StreamPair pair = StreamPair::Local();
  const int taken = pair.TakeOurs();
  const int same_number = taken == number ? taken : dup2(taken, number);
  ASSERT_EQ(same_number, number);
  if (taken != number) close(taken);
  const auto source = std::make_shared<NamedSource>();
  Watch watch;
  ASSERT_EQ(watch.Start(poller, number, source), 0);
  watch.SetReading(true);
  EXPECT_TRUE(poller.Look().empty());

  pair.Write("for the new one");
  const std::vector<Poller::Event> events = poller.Look();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].source, source);
  watch.Stop();
  close(number);
  close(stream);
}

TEST(Watch, RemembersWhatItWasToldBeforeItsStart) {
  OpenPoller poller;
  StreamPair pair = StreamPair::Local();
  const int descriptor = pair.TakeOurs();
  const auto source = std::make_shared<NamedSource>();
  Watch watch;
  watch.SetReading(true);
  watch.SetWriting(true);
  ASSERT_EQ(watch.Start(poller, descriptor, source), 0);
  pair.Write("bytes");
  const std::vector<Poller::Event> events = poller.Look();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_TRUE(events[0].may_read);
  EXPECT_TRUE(events[0].may_write);
  watch.Stop();
  close(descriptor);
}

TEST(Watch, TellsOfTheEndThoughNothingWasAskedFor) {
  OpenPoller poller;
  Watched one(poller);
  one.pair.ClosePeer();
  const std::vector<Poller::Event> events = poller.Look();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_TRUE(events[0].has_ended);
  EXPECT_FALSE(events[0].may_read);
}

TEST(Watch, TellsNothingWhatIsNotAskedForAnyMore) {
  OpenPoller poller;
  Watched one(poller);
  one.watch.SetReading(true);
  one.watch.SetWriting(true);
  one.pair.Write("bytes");
  one.watch.SetReading(false);
  std::vector<Poller::Event> events = poller.Look();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_FALSE(events[0].may_read);
  one.watch.SetWriting(false);
  EXPECT_TRUE(poller.Look().empty());
  one.watch.SetReading(true);
  EXPECT_EQ(poller.Look().size(), 1U);
}

TEST(Watch, MutedTellsNotEvenOfTheEndUntilItIsToRead) {
  OpenPoller poller;
  Watched one(poller);
  one.watch.SetReading(true);
  one.watch.SetWriting(true);
  one.pair.ClosePeer();
  one.watch.Mute();
  one.watch.Mute();
  EXPECT_TRUE(poller.Look().empty());
  one.watch.SetWriting(false);
  one.watch.SetWriting(true);
  one.watch.SetReading(false);
  EXPECT_TRUE(poller.Look().empty());
  one.watch.SetReading(true);
  const std::vector<Poller::Event> events = poller.Look();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_TRUE(events[0].may_read);
  EXPECT_TRUE(events[0].may_write);
  EXPECT_TRUE(events[0].has_ended);
}

TEST(Watch, StaysMutedWhenThePollerHasNoMemoryForIt) {
  OpenPoller poller;
  Watched one(poller);
  one.watch.SetReading(true);
  one.pair.Write("bytes");
  one.watch.Mute();
  {
    const ScopedFault fault(Fault::kWatchCall, 1, 1, -ENOMEM);
    one.watch.SetReading(true);
    EXPECT_EQ(fault.failures(), 1);
  }
  EXPECT_TRUE(poller.Look().empty());
  one.watch.SetReading(true);
  EXPECT_EQ(poller.Look().size(), 1U);
}

TEST(Watch, StoppedTellsNothingMore) {
  OpenPoller poller;
  Watched one(poller);
  one.watch.SetReading(true);
  one.pair.Write("bytes");
  one.watch.Stop();
  one.watch.Stop();
  one.watch.SetReading(false);
  one.watch.SetReading(true);
  one.watch.SetWriting(true);
  one.watch.Mute();
  EXPECT_TRUE(poller.Look().empty());
}

TEST(Watch, CannotStartWhereTheKernelRefuses) {
  OpenPoller poller;
  StreamPair pair = StreamPair::Local();
  const int descriptor = pair.TakeOurs();
  const auto source = std::make_shared<NamedSource>();
  {
    Watch watch;
    const ScopedFault fault(Fault::kWatchCall, 1, 1, -ENOSPC);
    EXPECT_EQ(watch.Start(poller, descriptor, source), -ENOSPC);
    watch.SetReading(true);
    watch.Stop();
  }
  {
    Watch watch;
    EXPECT_EQ(watch.Start(poller, -1, source), -EBADF);
  }
  // The place is another's now.
  Watch watch;
  EXPECT_EQ(watch.Start(poller, descriptor, source), 0);
  watch.SetReading(true);
  pair.Write("bytes");
  EXPECT_EQ(poller.Look().size(), 1U);
  watch.Stop();
  close(descriptor);
}

TEST(Watch, MayBeAskedByManyThreadsWhileThePollerLooks) {
  OpenPoller poller;
  std::vector<std::thread> threads;
  std::atomic<int> running{3};
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&poller, &running] {
      for (int round = 0; round < 200; ++round) {
        Watched one(poller);
        one.watch.SetReading(true);
        one.pair.Write("bytes");
        one.watch.SetWriting(round % 2 == 0);
        one.watch.Mute();
        one.watch.SetReading(true);
      }
      --running;
    });
  }
  std::vector<Poller::Event> events;
  while (running > 0) {
    poller.Wait(0, &events);
    for (const Poller::Event& event : events)
      EXPECT_NE(event.source, nullptr);
  }
  for (std::thread& thread : threads)
    thread.join();
  events.clear();
  EXPECT_TRUE(poller.Look().empty());
}

}  // namespace
}  // namespace mivo
