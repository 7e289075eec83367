#include "base/spare_memory.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "base/checked_memory.h"
#include "base/clock.h"

namespace mivo {
namespace {

constexpr std::size_t kMiB = std::size_t{1} << 20;
constexpr std::int64_t kNsPerS = 1'000'000'000;

class SpareMemory : public testing::Test {
 protected:
  void SetUp() override {
    if (kMemoryIsChecked) GTEST_SKIP() << "nothing is kept under a checker of memory";
    AgeSpareMemory(NowNs() + 10 * kNsPerS);
    ASSERT_FALSE(HasSpareMemory());
  }
  void TearDown() override { AgeSpareMemory(NowNs() + 10 * kNsPerS); }

  static Block NewBlock(std::size_t size) { return {static_cast<char*>(std::malloc(size)), size}; }
  // The address of one's memory.
  static const char* Give(std::size_t size) {
    std::string string;
    string.reserve(size);
    const char* const bytes = string.data();
    GiveSpareString(std::move(string));
    return bytes;
  }
};

TEST_F(SpareMemory, IsUsedAgain) {
  const char* const given = Give(kMiB);
  EXPECT_TRUE(HasSpareMemory());
  const std::string taken = TakeSpareString(kMiB);
  EXPECT_EQ(taken.data(), given);
  EXPECT_GE(taken.capacity(), kMiB);
  EXPECT_TRUE(taken.empty());
  EXPECT_FALSE(HasSpareMemory());
}

TEST_F(SpareMemory, IsUsedAgainAsBlocks) {
  Block block = NewBlock(kMiB);
  const char* const bytes = block.bytes;
  GiveSpareBlock(std::move(block));
  EXPECT_EQ(TakeSpareBlock(2 * kMiB).bytes, nullptr) << "too small";
  EXPECT_EQ(TakeSpareBlock(kMiB - 10).bytes, bytes);
  EXPECT_EQ(TakeSpareBlock(kMiB - 10).bytes, nullptr);
}

TEST_F(SpareMemory, HasRoomAlsoWhereNoneIsSpare) {
  EXPECT_GE(TakeSpareString(kMiB).capacity(), kMiB);
  EXPECT_GE(TakeSpareString(100 * kMiB).capacity(), 100 * kMiB);
}

TEST_F(SpareMemory, IsNothingSmall) {
  Give(kLeastSpare / 2);
  EXPECT_FALSE(HasSpareMemory());
  EXPECT_LT(TakeSpareString(100).capacity(), 100U) << "the allocator is quick enough";
}

TEST_F(SpareMemory, IsNotWastedOnSomethingFarSmaller) {
  const char* const given = Give(8 * kMiB);
  EXPECT_NE(TakeSpareString(kMiB).data(), given);
  EXPECT_EQ(TakeSpareString(5 * kMiB).data(), given);
}

TEST_F(SpareMemory, IsTakenWhereItFitsBest) {
  const char* const large = Give(8 * kMiB);
  const char* const small = Give(6 * kMiB);
  const std::string taken = TakeSpareString(5 * kMiB);
  EXPECT_EQ(taken.data(), small);
  EXPECT_EQ(TakeSpareString(5 * kMiB).data(), large);
}

TEST_F(SpareMemory, IsBounded) {
  const std::size_t sizes[] = {kMiB, 30 * kMiB};
  for (const std::size_t size : sizes) {
    std::vector<Block> blocks;
    for (int i = 0; i < 50; ++i)
      blocks.push_back(NewBlock(size));
    for (Block& block : blocks)
      GiveSpareBlock(std::move(block));
    std::size_t total = 0;
    for (;;) {
      Block taken = TakeSpareBlock(size);
      if (taken.bytes == nullptr) break;
      total += taken.size;
    }
    EXPECT_GT(total, 0U);
    EXPECT_LE(total, 96 * kMiB) << size;
  }
  GiveSpareBlock(NewBlock(40 * kMiB));
  EXPECT_FALSE(HasSpareMemory()) << "one so large is not kept";
}

TEST_F(SpareMemory, GoesWhenItWasNotUsedForASecond) {
  Give(kMiB);
  const std::int64_t now_ns = NowNs();
  AgeSpareMemory(now_ns + kNsPerS / 2);
  EXPECT_TRUE(HasSpareMemory());
  AgeSpareMemory(now_ns + 2 * kNsPerS);
  EXPECT_FALSE(HasSpareMemory());
}

}  // namespace
}  // namespace mivo
