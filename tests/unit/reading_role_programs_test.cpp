#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <deque>
#include <random>
#include <sstream>
#include <vector>

#include "support/sanitizers.h"
#include "transport/reading_role.h"
#include "unit/reading_role_fakes.h"

namespace mivo {
namespace {

// All programs of a few steps that the threads around a role can make, one step at a time, held against the contract.
class World {
 public:
  enum Step {
    kStart,
    kPoolTakes,
    kPoolHearsOfAnEnd,
    kPoolGivesBack,
    kPoolParks,
    kSparedTakes,
    kSparedGivesBack,
    kFirstTakes,
    kSecondTakes,
    kFirstLeaves,
    kSecondLeaves,
    kHolderEnds,
    kPause,
    kUnpause,
    kClose,
    kSteps,
  };

  bool IsLegal(Step step) const {
    switch (step) {
      case kStart:
        return !started_;
      case kPoolTakes:
      case kPoolHearsOfAnEnd:
        return holder_ != kPool;
      case kPoolGivesBack:
      case kPoolParks:
        return holder_ == kPool;
      case kSparedTakes:
        return holder_ != kSpared;
      case kSparedGivesBack:
        return holder_ == kSpared;
      case kHolderEnds:
        return holder_ != kNobody && !over_;
      case kPause:
      case kUnpause:
        return paused_ == (step == kUnpause);
      case kClose:
        // It would wait for a holder; that is for threads.
        return holder_ == kNobody && !closed_;
      default:
        return true;
    }
  }

  void Do(Step step) {
    const int mutes_before = pool_.mutes;
    const int times_on_before = pool_.times_on;
    const bool was_over = over_;
    const bool is_free = started_ && !over_ && holder_ == kNobody;
    int expected_mutes = 0;
    switch (step) {
      case kStart:
        role_.Start();
        started_ = true;
        ExpectPassedOn(false);
        break;
      case kPoolTakes:
      case kPoolHearsOfAnEnd: {
        const bool expected = is_free && !parked_ && !paused_;
        const bool mute = step == kPoolHearsOfAnEnd;
        EXPECT_EQ(role_.TakeForPool(mute), expected);
        expected_mutes = mute && !expected ? 1 : 0;
        if (expected) holder_ = kPool;
        break;
      }
      case kPoolGivesBack:
      case kSparedGivesBack:
        role_.GiveBack();
        holder_ = kNobody;
        ExpectPassedOn(false);
        break;
      case kPoolParks: {
        const bool expected = !over_ && !queue_.empty();
        EXPECT_EQ(role_.GiveToCallerOrPark(), expected);
        holder_ = kNobody;
        if (expected) {
          ExpectPassedOn(true);
        } else {
          parked_ = true;
        }
        break;
      }
      case kSparedTakes: {
        const bool expected = is_free && parked_;
        EXPECT_EQ(role_.TakeParked(), expected);
        if (expected) Take(kSpared);
        break;
      }
      case kFirstTakes:
      case kSecondTakes: {
        const int who = step == kFirstTakes ? 0 : 1;
        const bool expected = holder_ == who || is_free;
        EXPECT_EQ(role_.TakeOrQueue(callers_[who]), expected);
        if (expected) {
          has_left_over_[who] = false;
          Take(who);
        } else if (!over_ && std::find(queue_.begin(), queue_.end(), who) == queue_.end()) {
          queue_.push_back(who);
        }
        break;
      }
      case kFirstLeaves:
      case kSecondLeaves: {
        const int who = step == kFirstLeaves ? 0 : 1;
        const bool must_look = holder_ == who && has_left_over_[who] && !over_;
        EXPECT_EQ(role_.Leave(callers_[who]), !must_look);
        has_left_over_[who] = false;
        queue_.erase(std::remove(queue_.begin(), queue_.end(), who), queue_.end());
        if (holder_ == who && !must_look) {
          holder_ = kNobody;
          ExpectPassedOn(false);
        }
        break;
      }
      case kHolderEnds:
        role_.End();
        over_ = true;
        break;
      case kPause:
      case kUnpause:
        paused_ = step == kPause;
        role_.PausePool(paused_);
        break;
      case kClose:
        role_.Close();
        over_ = true;
        closed_ = true;
        break;
      case kSteps:
        break;
    }
    // Muted when the pool was refused an end, and only then.
    EXPECT_EQ(pool_.mutes - mutes_before, expected_mutes);
    // Given the role when it was its turn, and only then; after the end nobody.
    for (std::size_t who = 0; who < callers_.size(); ++who)
      EXPECT_EQ(callers_[who].times_given, times_given_[who]);
    // A caller that waits is served before the pool.
    EXPECT_TRUE(!started_ || over_ || queue_.empty() || (holder_ != kNobody && !parked_));
    // The pool's own reader is not told while it reads; a close is followed by the end of the watch.
    if (holder_ != kPool && !closed_) {
      EXPECT_EQ(pool_.listens, started_ && !over_ && holder_ == kNobody && !parked_ && !paused_);
    }
    EXPECT_TRUE(!was_over || pool_.times_on == times_on_before);
  }

 private:
  // A caller has its number.
  enum Holder { kNobody = -1, kPool = 10, kSpared = 11 };

  void Take(int who) {
    holder_ = who;
    parked_ = false;
  }

  // What has to happen when the role is given up, or was never held.
  void ExpectPassedOn(bool with_left_over) {
    parked_ = false;
    if (over_ || queue_.empty()) return;
    const int next = queue_.front();
    queue_.pop_front();
    ++times_given_[static_cast<std::size_t>(next)];
    has_left_over_[static_cast<std::size_t>(next)] = with_left_over;
    holder_ = next;
  }

  ListeningPool pool_;
  ReadingRole role_{pool_};
  std::array<CountingCaller, 2> callers_;

  bool started_ = false;
  bool paused_ = false;
  bool over_ = false;
  bool closed_ = false;
  bool parked_ = false;
  int holder_ = kNobody;
  std::deque<int> queue_;
  std::array<int, 2> times_given_{};
  std::array<bool, 2> has_left_over_{};
};

using Program = std::vector<World::Step>;

// Runs a program; says which one it was if it fails.
void RunProgram(const Program& program, World& world) {
  for (const World::Step step : program)
    world.Do(step);
  if (!testing::Test::HasFailure()) return;
  std::ostringstream steps;
  for (const World::Step step : program)
    steps << " " << step;
  FAIL() << "steps:" << steps.str();
}

// Runs all programs that go on from this one by up to `more` steps; returns how many.
std::int64_t RunAll(Program& program, int more) {
  World world;
  RunProgram(program, world);
  if (more == 0 || testing::Test::HasFailure()) return 1;
  std::int64_t count = 1;
  for (int step = 0; step < World::kSteps; ++step) {
    if (!world.IsLegal(static_cast<World::Step>(step))) continue;
    program.push_back(static_cast<World::Step>(step));
    count += RunAll(program, more - 1);
    program.pop_back();
    if (testing::Test::HasFailure()) break;
  }
  return count;
}

constexpr int kLength = mivo_test::kSanitized ? 4 : 5;

TEST(ReadingRolePrograms, KeepsItsContractInEveryShortProgram) {
  Program program;
  EXPECT_GT(RunAll(program, kLength), 1000);
}

TEST(ReadingRolePrograms, KeepsItsContractInEveryShortProgramAfterTheStart) {
  Program program{World::kStart};
  EXPECT_GT(RunAll(program, kLength), 1000);
}

TEST(ReadingRolePrograms, KeepsItsContractInEveryShortProgramBehindAPoolThatReadsWhileTwoCallersWait) {
  Program program{World::kStart, World::kPoolTakes, World::kFirstTakes, World::kSecondTakes};
  EXPECT_GT(RunAll(program, kLength), 1000);
}

TEST(ReadingRolePrograms, KeepsItsContractInEveryShortProgramBehindAParkedRole) {
  Program program{World::kStart, World::kPoolTakes, World::kPoolParks};
  EXPECT_GT(RunAll(program, kLength), 1000);
}

TEST(ReadingRolePrograms, KeepsItsContractInLongProgramsOfAnyKind) {
  std::mt19937 random(20240229);
  for (int round = 0; round < 20000 / mivo_test::kScaledown; ++round) {
    World world;
    Program program;
    while (program.size() < 40) {
      const auto step = static_cast<World::Step>(random() % World::kSteps);
      if (!world.IsLegal(step)) continue;
      // Otherwise most programs would soon be over.
      if ((step == World::kHolderEnds || step == World::kClose) && random() % 10 != 0) continue;
      program.push_back(step);
      world.Do(step);
      if (HasFailure()) {
        World again;
        RunProgram(program, again);
        return;
      }
    }
  }
}

}  // namespace
}  // namespace mivo
