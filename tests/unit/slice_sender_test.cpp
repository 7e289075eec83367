#include "largedata/slice_sender.h"

#include <gtest/gtest.h>
#include <mivo/params.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <string>
#include <vector>

#include "largedata/slice.h"
#include "unit/large_memory.h"
#include "unit/payload.h"
#include "unit/slice_size_scope.h"

namespace mivo {
namespace {

using mivo_test::Payload;

std::string Pattern(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i)
    bytes[i] = static_cast<char>(i * 31 % 251);
  return bytes;
}

// The sizes of the slices of a message; they must be that message again.
std::vector<std::size_t> SizesOfSlices(const std::string& whole) {
  std::vector<std::size_t> sizes;
  std::string rebuilt;
  EXPECT_TRUE(SendInSlices(whole, 9, [&](MIVOParams* params) {
    EXPECT_TRUE(params->ToParams());
    const Slice slice = ReadSlice(*params->GetParamas());
    EXPECT_EQ(slice.key, 9);
    EXPECT_EQ(static_cast<std::size_t>(slice.total_size), whole.size());
    sizes.push_back(slice.bytes.size());
    rebuilt.append(slice.bytes);
    return true;
  }));
  EXPECT_TRUE(rebuilt == whole);
  return sizes;
}

TEST(SliceSender, SendsOneSliceForAMessageOfAtMostItsSize) {
  const SliceSizeScope size(100);
  for (const std::size_t bytes : {0U, 1U, 99U, 100U}) {
    EXPECT_EQ(SizesOfSlices(Pattern(bytes)), std::vector<std::size_t>{bytes});
  }
}

TEST(SliceSender, SendsOneByteMoreAsASecondSlice) {
  const SliceSizeScope size(100);
  EXPECT_EQ(SizesOfSlices(Pattern(101)), (std::vector<std::size_t>{100, 1}));
}

TEST(SliceSender, SendsFullSlicesAndTheRest) {
  const SliceSizeScope size(100);
  EXPECT_EQ(SizesOfSlices(Pattern(300)), (std::vector<std::size_t>{100, 100, 100}));
  EXPECT_EQ(SizesOfSlices(Pattern(350)), (std::vector<std::size_t>{100, 100, 100, 50}));
}

TEST(SliceSender, SendsSlicesOfOneByte) {
  const SliceSizeScope size(1);
  EXPECT_EQ(SizesOfSlices(Pattern(5)), std::vector<std::size_t>(5, 1));
}

TEST(SliceSender, EndsAlsoWithASizeThatNoSliceCanHave) {
  for (const int nonsense : {0, -1, INT_MIN}) {
    const SliceSizeScope size(nonsense);
    EXPECT_EQ(SizesOfSlices(Pattern(32768)), std::vector<std::size_t>{32768});
    EXPECT_EQ(SizesOfSlices(Pattern(32769)), (std::vector<std::size_t>{32768, 1}));
  }
}

TEST(SliceSender, WritesTheRecordsInTheirOrder) {
  const SliceSizeScope size(4);
  std::vector<std::string> sent;
  EXPECT_TRUE(SendInSlices("ABCDEF", -3, [&](MIVOParams* slice) {
    sent.push_back(*slice->GetParamas());
    return true;
  }));
  const auto expected = [](const char* bytes) {
    return Payload().KeyBool("s_c_largedata", true).KeyInt("s_c_sw_threadid", -3).Int(6).Stream(bytes).bytes();
  };
  EXPECT_EQ(sent, (std::vector<std::string>{expected("ABCD"), expected("EF")}));
}

TEST(SliceSender, StopsWhereASliceIsNotAnswered) {
  const SliceSizeScope size(10);
  for (int answered = 0; answered < 3; ++answered) {
    int slices = 0;
    EXPECT_FALSE(SendInSlices(Pattern(30), 9, [&](MIVOParams*) { return ++slices <= answered; }));
    EXPECT_EQ(slices, answered + 1);
  }
}

TEST(SliceSender, KeepsTheSizeThatWasInForceWhenItBegan) {
  const SliceSizeScope size(10);
  std::vector<std::size_t> sizes;
  EXPECT_TRUE(SendInSlices(Pattern(30), 9, [&](MIVOParams* params) {
    params->ToParams();
    sizes.push_back(ReadSlice(*params->GetParamas()).bytes.size());
    SetSliceSize(1);
    return true;
  }));
  EXPECT_EQ(sizes, (std::vector<std::size_t>{10, 10, 10}));
}

TEST(SliceSenderDeathTest, EndsTheProgramRatherThanWrapTheTotal) {
  MIVO_SKIP_WITHOUT_LARGE_MEMORY(5);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(SendInSlices(std::string(std::size_t{INT_MAX} + 1, 'x'), 9, [](MIVOParams*) { return false; }),
              testing::KilledBySignal(SIGABRT), "");
}

TEST(SliceSenderDeathTest, CutsSlicesThatLeaveRoomForTheirRequest) {
  MIVO_SKIP_WITHOUT_LARGE_MEMORY(8);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        SetSliceSize(INT_MAX);
        std::size_t longest = 0;
        SendInSlices(std::string(std::size_t{INT_MAX}, 'x'), 9, [&](MIVOParams* slice) {
          longest = std::max(longest, slice->GetParamas()->size());
          return true;
        });
        _exit(longest > INT_MAX / 2 && longest < INT_MAX - 300 ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace mivo
