#include "transport/reading_role.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "support/background.h"
#include "support/event.h"
#include "support/sanitizers.h"
#include "support/thread_state.h"
#include "unit/reading_role_fakes.h"

namespace mivo {
namespace {

using mivo_test::Background;

TEST(ReadingRole, IsNobodysBeforeItsStart) {
  ListeningPool pool;
  ReadingRole role(pool);
  EXPECT_FALSE(role.TakeForPool(false));
  EXPECT_FALSE(pool.listens);
  role.Start();
  EXPECT_TRUE(pool.listens);
  EXPECT_TRUE(role.TakeForPool(false));
}

TEST(ReadingRole, GoesToACallerThatWaitedForTheStart) {
  ListeningPool pool;
  ReadingRole role(pool);
  CountingCaller caller;
  EXPECT_FALSE(role.TakeOrQueue(caller));
  role.Start();
  EXPECT_EQ(caller.times_given, 1);
  EXPECT_TRUE(role.TakeOrQueue(caller));
  EXPECT_FALSE(pool.listens);
  EXPECT_TRUE(role.Leave(caller));
  EXPECT_TRUE(pool.listens);
}

TEST(ReadingRole, IsTakenByACallerWithoutAWordAndGivenBackToThePool) {
  ListeningPool pool;
  ReadingRole role(pool);
  role.Start();
  CountingCaller caller;
  EXPECT_TRUE(role.TakeOrQueue(caller));
  EXPECT_FALSE(pool.listens);
  EXPECT_FALSE(role.TakeForPool(false));
  EXPECT_FALSE(pool.is_muted);
  EXPECT_EQ(caller.times_given, 0);
  EXPECT_TRUE(role.Leave(caller));
  EXPECT_TRUE(pool.listens);
  EXPECT_TRUE(role.TakeForPool(true));
  EXPECT_EQ(pool.mutes, 0);
}

TEST(ReadingRole, MutesThePoolThatHearsOfAnEndWhileAnotherReads) {
  ListeningPool pool;
  ReadingRole role(pool);
  role.Start();
  CountingCaller caller;
  EXPECT_TRUE(role.TakeOrQueue(caller));
  EXPECT_FALSE(role.TakeForPool(true));
  EXPECT_TRUE(pool.is_muted);
  // It hears again when it is its turn.
  EXPECT_TRUE(role.Leave(caller));
  EXPECT_FALSE(pool.is_muted);
  EXPECT_TRUE(pool.listens);
}

TEST(ReadingRole, GoesToTheCallersInTheirOrder) {
  ListeningPool pool;
  ReadingRole role(pool);
  role.Start();
  CountingCaller first;
  CountingCaller second;
  EXPECT_TRUE(role.TakeForPool(false));
  EXPECT_FALSE(role.TakeOrQueue(first));
  EXPECT_FALSE(role.TakeOrQueue(second));
  EXPECT_FALSE(role.TakeOrQueue(first));
  role.GiveBack();
  EXPECT_EQ(first.times_given, 1);
  EXPECT_TRUE(role.TakeOrQueue(first));
  EXPECT_TRUE(role.Leave(first));
  EXPECT_EQ(second.times_given, 1);
  EXPECT_TRUE(role.TakeOrQueue(second));
  EXPECT_TRUE(role.Leave(second));
  EXPECT_TRUE(pool.listens);
}

TEST(ReadingRole, IsNotGivenToACallerThatHasLeft) {
  ListeningPool pool;
  ReadingRole role(pool);
  role.Start();
  CountingCaller first;
  CountingCaller second;
  EXPECT_TRUE(role.TakeForPool(false));
  EXPECT_FALSE(role.TakeOrQueue(first));
  EXPECT_FALSE(role.TakeOrQueue(second));
  EXPECT_TRUE(role.Leave(first));
  role.GiveBack();
  EXPECT_EQ(first.times_given, 0);
  EXPECT_EQ(second.times_given, 1);
  EXPECT_TRUE(role.Leave(second));
}

TEST(ReadingRole, ParkedIsTakenByWhoeverAsksFirst) {
  for (const bool is_caller : {false, true}) {
    ListeningPool pool;
    ReadingRole role(pool);
    role.Start();
    CountingCaller caller;
    EXPECT_TRUE(role.TakeForPool(false));
    EXPECT_FALSE(role.GiveToCallerOrPark());
    EXPECT_FALSE(pool.listens);
    EXPECT_FALSE(role.TakeForPool(false));
    if (is_caller) {
      EXPECT_TRUE(role.TakeOrQueue(caller));
      EXPECT_FALSE(role.TakeParked());
      EXPECT_TRUE(role.Leave(caller));
    } else {
      EXPECT_TRUE(role.TakeParked());
      EXPECT_FALSE(role.TakeParked());
      EXPECT_FALSE(role.TakeOrQueue(caller));
      role.GiveBack();
      EXPECT_EQ(caller.times_given, 1);
      EXPECT_TRUE(role.Leave(caller));
    }
    EXPECT_TRUE(pool.listens);
  }
}

TEST(ReadingRole, ACallerThatWasGivenWhatThePoolHasLeftLooksBeforeItLeaves) {
  ListeningPool pool;
  ReadingRole role(pool);
  role.Start();
  CountingCaller caller;
  EXPECT_TRUE(role.TakeForPool(false));
  EXPECT_FALSE(role.TakeOrQueue(caller));
  EXPECT_TRUE(role.GiveToCallerOrPark());
  // Its wait is over at this moment: nobody would tell the pool of what was read already.
  EXPECT_FALSE(role.Leave(caller));
  EXPECT_FALSE(pool.listens);
  EXPECT_FALSE(role.TakeForPool(false));
  EXPECT_TRUE(role.Leave(caller));
  EXPECT_TRUE(pool.listens);
}

TEST(ReadingRole, PausedLeavesThePoolAsideAndNobodyElse) {
  ListeningPool pool;
  ReadingRole role(pool);
  role.Start();
  CountingCaller caller;
  role.PausePool(true);
  EXPECT_FALSE(pool.listens);
  EXPECT_FALSE(role.TakeForPool(false));
  EXPECT_TRUE(role.TakeOrQueue(caller));
  EXPECT_TRUE(role.Leave(caller));
  EXPECT_FALSE(pool.listens);
  role.PausePool(false);
  EXPECT_TRUE(pool.listens);
  EXPECT_TRUE(role.TakeForPool(false));
}

TEST(ReadingRole, HasThePoolNeverListenAfterTheEnd) {
  ListeningPool pool;
  ReadingRole role(pool);
  role.Start();
  EXPECT_TRUE(role.TakeForPool(false));
  role.End();
  role.GiveBack();
  EXPECT_FALSE(pool.listens);
  role.PausePool(true);
  role.PausePool(false);
  EXPECT_FALSE(pool.listens);
}

TEST(ReadingRole, WaitsInCloseForTheOneThatReads) {
  for (const bool is_caller : {false, true}) {
    ListeningPool pool;
    ReadingRole role(pool);
    role.Start();
    CountingCaller caller;
    ASSERT_TRUE(is_caller ? role.TakeOrQueue(caller) : role.TakeForPool(false));
    std::atomic<bool> is_held{true};
    bool was_held = true;
    Background<bool> close([&] {
      role.Close();
      was_held = is_held;
      return true;
    });
    EXPECT_TRUE(mivo_test::WaitUntilAsleep(close.thread_id()));
    EXPECT_FALSE(close.IsDone());
    is_held = false;
    if (is_caller) {
      EXPECT_TRUE(role.Leave(caller));
    } else {
      role.GiveBack();
    }
    EXPECT_TRUE(close.WaitFor());
    EXPECT_FALSE(was_held);
    EXPECT_FALSE(role.TakeForPool(false));
    EXPECT_FALSE(role.TakeOrQueue(caller));
    EXPECT_TRUE(role.Leave(caller));
  }
}

TEST(ReadingRole, WaitsInCloseForNobodyWhenItIsParked) {
  ListeningPool pool;
  ReadingRole role(pool);
  role.Start();
  EXPECT_TRUE(role.TakeForPool(false));
  Background<bool> close([&] {
    role.Close();
    return true;
  });
  EXPECT_FALSE(role.GiveToCallerOrPark());
  EXPECT_TRUE(close.WaitFor());
  EXPECT_FALSE(role.TakeParked());
}

// A caller that waits as a call does: it sleeps until it is the reader or need not wait any more.
class WaitingCaller : public ReadingRole::Caller {
 public:
  void BecomeReader() override { event_.Signal(); }
  void Wake() { event_.Signal(); }
  bool Wait() { return event_.WaitFor(++seen_); }

 private:
  mivo_test::Event event_;
  int seen_ = 0;
};

// What the holder alone may touch; the thread sanitizer watches, and so does the count.
struct Stream {
  void Use() {
    EXPECT_EQ(inside.fetch_add(1, std::memory_order_relaxed), 0);
    ++reads;
    EXPECT_EQ(inside.fetch_sub(1, std::memory_order_relaxed), 1);
  }
  std::atomic<int> inside{0};
  std::int64_t reads = 0;
};

class StressPool : public ReadingRole::Listening {
 public:
  void SetListening(bool on) override { listens_.store(on, std::memory_order_relaxed); }
  void Mute() override { listens_.store(false, std::memory_order_relaxed); }
  bool listens() const { return listens_.load(std::memory_order_relaxed); }

 private:
  std::atomic<bool> listens_{false};
};

TEST(ReadingRole, IsHeldByOneThreadAtATimeAndReachesEveryCaller) {
  constexpr int kCallers = 3;
  constexpr int kTurns = 4000 / mivo_test::kScaledown;
  StressPool pool;
  ReadingRole role(pool);
  Stream stream;
  std::atomic<bool> is_done{false};
  std::atomic<int> parked{0};
  role.Start();

  std::thread reader([&] {
    for (int turn = 0; !is_done; ++turn) {
      if (!pool.listens() || !role.TakeForPool(turn % 5 == 0)) {
        std::this_thread::yield();
        continue;
      }
      stream.Use();
      if (turn % 3 == 0) {
        if (!role.GiveToCallerOrPark()) ++parked;
      } else {
        role.GiveBack();
      }
    }
  });
  std::thread spared([&] {
    while (!is_done) {
      if (parked.load() > 0 && role.TakeParked()) {
        stream.Use();
        role.GiveBack();
      }
      std::this_thread::yield();
    }
  });
  std::thread pauser([&] {
    for (int turn = 0; !is_done; ++turn) {
      role.PausePool(turn % 2 == 0);
      std::this_thread::yield();
    }
    role.PausePool(false);
  });
  std::vector<std::thread> callers;
  for (int i = 0; i < kCallers; ++i) {
    callers.emplace_back([&, i] {
      for (int turn = 0; turn < kTurns; ++turn) {
        WaitingCaller caller;
        // Some do not wait for their turn.
        if (role.TakeOrQueue(caller) || (turn % 4 != i % 4 && caller.Wait() && role.TakeOrQueue(caller))) {
          stream.Use();
        }
        while (!role.Leave(caller))
          stream.Use();
      }
    });
  }
  for (std::thread& caller : callers)
    caller.join();
  is_done = true;
  reader.join();
  spared.join();
  pauser.join();
  role.Close();
  EXPECT_GT(stream.reads, kTurns);
}

TEST(ReadingRole, IsTakenAwayWhileManyUseIt) {
  for (int round = 0; round < 200 / mivo_test::kScaledown; ++round) {
    StressPool pool;
    ReadingRole role(pool);
    Stream stream;
    std::atomic<bool> is_closed{false};
    std::array<WaitingCaller, 2> callers;
    role.Start();
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
      while (!is_closed) {
        if (role.TakeForPool(false)) {
          stream.Use();
          role.GiveBack();
        }
        std::this_thread::yield();
      }
    });
    for (WaitingCaller& caller : callers) {
      threads.emplace_back([&] {
        while (!is_closed) {
          if (role.TakeOrQueue(caller) || (caller.Wait() && role.TakeOrQueue(caller))) stream.Use();
          while (!role.Leave(caller))
            stream.Use();
        }
      });
    }
    for (int turn = 0; turn < round % 50; ++turn)
      std::this_thread::yield();
    role.Close();
    // From here on it is the owner's alone.
    stream.Use();
    is_closed = true;
    // As a connection that ends wakes its calls.
    for (WaitingCaller& caller : callers)
      caller.Wake();
    for (std::thread& thread : threads)
      thread.join();
  }
}

}  // namespace
}  // namespace mivo
