#include "base/line_budget.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

namespace mivo {
namespace {

constexpr int kBudget = LineBudget::kLinesASecond;

int Allowed(LineBudget& budget, int lines, std::int64_t now_ms) {
  int allowed = 0;
  for (int i = 0; i < lines; ++i)
    allowed += budget.Allow(now_ms) ? 1 : 0;
  return allowed;
}

TEST(LineBudget, AllowsAThousandLinesASecond) {
  EXPECT_EQ(kBudget, 1000);
  LineBudget budget;
  EXPECT_EQ(Allowed(budget, 600, 5000), 600);
  EXPECT_EQ(Allowed(budget, 600, 5999), 400);
  EXPECT_EQ(Allowed(budget, 1, 5999), 0);
  EXPECT_EQ(Allowed(budget, 3000, 6000), 1000);
}

TEST(LineBudget, BeginsASecondWithItsFirstLine) {
  LineBudget budget;
  EXPECT_EQ(Allowed(budget, 1, 0), 1);
  // Not the second of 1000 to 1999: that of 1500 to 2499.
  EXPECT_EQ(Allowed(budget, kBudget, 1500), kBudget);
  EXPECT_EQ(Allowed(budget, 1, 2499), 0);
  EXPECT_EQ(Allowed(budget, 1, 2500), 1);
}

TEST(LineBudget, TellsWhatItLeftOutWhenTheSecondIsOver) {
  LineBudget budget;
  EXPECT_EQ(budget.TakeSuppressed(100), 0);
  Allowed(budget, kBudget + 234, 100);
  EXPECT_EQ(budget.TakeSuppressed(100), 0);
  EXPECT_EQ(budget.TakeSuppressed(1099), 0);
  EXPECT_EQ(budget.TakeSuppressed(1100), 234);
  EXPECT_EQ(budget.TakeSuppressed(1100), 0);
}

TEST(LineBudget, TellsOfTheSecondBeforeWithTheFirstLineOfTheNext) {
  LineBudget budget;
  Allowed(budget, kBudget + 5, 100);
  EXPECT_TRUE(budget.Allow(1100));
  EXPECT_EQ(budget.TakeSuppressed(1100), 5);
  Allowed(budget, kBudget, 1100);
  EXPECT_EQ(budget.TakeSuppressed(1100), 0);
  EXPECT_EQ(budget.TakeSuppressed(2100), 1);
}

TEST(LineBudget, TellsEverythingAtTheEnd) {
  LineBudget budget;
  EXPECT_EQ(budget.TakeAllSuppressed(), 0);
  Allowed(budget, kBudget + 5, 100);
  EXPECT_EQ(budget.TakeAllSuppressed(), 5);
  EXPECT_EQ(budget.TakeAllSuppressed(), 0);
}

TEST(LineBudget, LosesNoCountBetweenThreads) {
  LineBudget budget;
  std::atomic<int> allowed{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&] { allowed += Allowed(budget, 1000, 7); });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(allowed, kBudget);
  EXPECT_EQ(budget.TakeAllSuppressed(), 3000);
}

}  // namespace
}  // namespace mivo
