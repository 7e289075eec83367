#include "transport/frame.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "unit/large_memory.h"

namespace mivo {
namespace {

TEST(Frame, CountsThePayloadAlone) {
  EXPECT_EQ(Frame("").length, 0);
  EXPECT_EQ(Frame("abc").length, 3);
  EXPECT_EQ(Frame(std::string(100000, 'x')).length, 100000);
  EXPECT_EQ(kFramePrefixSize, sizeof(Frame::length));
}

TEST(Frame, TakesThePayloadAsItIs) {
  const std::string bytes("a\0b", 3);
  EXPECT_EQ(Frame(bytes).payload, bytes);
}

TEST(FrameDeathTest, EndsTheProgramRatherThanWrapItsLength) {
  MIVO_SKIP_WITHOUT_LARGE_MEMORY(5);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // Four bytes of length and the payload must be countable by a signed 32-bit number.
  EXPECT_EXIT({ const Frame frame(std::string(std::size_t{INT32_MAX} - 3, 'x')); }, testing::KilledBySignal(SIGABRT),
              "");
}

TEST(FrameDeathTest, TakesTheLongestPayloadThatCanBeCounted) {
  MIVO_SKIP_WITHOUT_LARGE_MEMORY(5);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        const Frame frame(std::string(std::size_t{INT32_MAX} - 4, 'x'));
        _exit(frame.length == INT32_MAX - 4 ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace mivo
