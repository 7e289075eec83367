#include "values/thread_stock.h"

#include <gtest/gtest.h>
#include <mivo/params.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

// Counts what is alive.
struct Counted {
  explicit Counted(int& alive) : alive_(alive) { ++alive_; }
  ~Counted() { --alive_; }
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;
  int& alive_;
};

TEST(ThreadStock, KeepsSoManyAndFreesThemWithTheirThread) {
  if (mivo::kMemoryIsChecked) GTEST_SKIP() << "nothing is kept under a checker of memory";
  using Stock = mivo::ThreadStock<Counted, 2>;
  int alive = 0;
  std::thread([&alive] {
    EXPECT_EQ(Stock::Take(), nullptr);
    auto* const first = new Counted(alive);
    auto* const second = new Counted(alive);
    const auto third = std::make_unique<Counted>(alive);
    EXPECT_TRUE(Stock::Give(first));
    EXPECT_TRUE(Stock::Give(second));
    EXPECT_FALSE(Stock::Give(third.get()));
    EXPECT_EQ(Stock::Take(), second);
    EXPECT_TRUE(Stock::Give(second));
    EXPECT_EQ(alive, 3);
  }).join();
  EXPECT_EQ(alive, 0);
}

MIVOParams* NewSet(int number) {
  auto* const params = new MIVOParams;
  for (int i = 0; i < 200; ++i)
    params->AddKeyValueString(std::to_string(i).c_str(), std::to_string(number + i).c_str());
  params->ToParams();
  return params;
}

void ExpectSet(const MIVOParams& params, int number) {
  for (int i = 0; i < 200; ++i)
    ASSERT_EQ(params.GetMap(std::to_string(i).c_str())->GetString(), std::to_string(number + i));
}

TEST(ThreadStock, MindsNeitherWhereASetIsDestroyedNorHowLate) {
  std::vector<std::unique_ptr<MIVOParams>> sets(8);
  std::vector<std::thread> threads;
  for (int number = 0; number < 8; ++number) {
    threads.emplace_back([&sets, number] {
      // Made before the thread's stock is, hence destroyed after it.
      thread_local std::unique_ptr<MIVOParams> last;
      last.reset();
      for (int round = 0; round < 10; ++round) {
        const std::unique_ptr<MIVOParams> passing(NewSet(round));
        ExpectSet(*passing, round);
      }
      last.reset(NewSet(number));
      ExpectSet(*last, number);
      sets[static_cast<std::size_t>(number)].reset(NewSet(number));
      ExpectSet(*sets[static_cast<std::size_t>(number)], number);
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  for (int number = 0; number < 8; ++number)
    ExpectSet(*sets[static_cast<std::size_t>(number)], number);
}

// The next set must not show what the former one held, nor end without a NUL byte.
TEST(ThreadStock, GivesABufferThatShowsNothingOfItsFormerSet) {
  for (int round = 0; round < 10; ++round) {
    MIVOParams params;
    EXPECT_EQ(params.Size(), 0);
    EXPECT_STREQ(params.GetParamasPtr(), "");
    EXPECT_EQ(*MIVOParams(params).GetParamas(), "");
    for (int i = 0; i < 10 - round; ++i)
      params.AddStream("\xEE\xEE\xEE", 3);
    EXPECT_EQ(params.GetParamasPtr()[params.Size()], '\0');
    EXPECT_TRUE(params.ToParams());
    EXPECT_EQ(params.ParamsSize(), 10 - round);
  }
}

}  // namespace
