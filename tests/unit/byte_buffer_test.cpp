#include "base/byte_buffer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <random>
#include <string>

#include "support/sanitizers.h"
#include "unit/live_bytes.h"

namespace mivo {
namespace {

TEST(ByteBuffer, IsEmptyAndOwnsNothingAtFirst) {
  const ByteBuffer buffer;
  EXPECT_TRUE(buffer.empty());
  EXPECT_EQ(buffer.size(), 0U);
  EXPECT_EQ(buffer.capacity(), 0U);
  EXPECT_EQ(buffer.view(), "");
}

TEST(ByteBuffer, KeepsWhatIsAppendedInOrder) {
  ByteBuffer buffer;
  buffer.Append("one");
  buffer.Append("");
  buffer.Append(std::string(100, 'x'));
  buffer.Append(std::string("\0\1", 2));
  EXPECT_EQ(buffer.view(), "one" + std::string(100, 'x') + std::string("\0\1", 2));
  EXPECT_FALSE(buffer.empty());
}

TEST(ByteBuffer, AppendsNothingToNothing) {
  ByteBuffer buffer;
  buffer.Append({});
  EXPECT_TRUE(buffer.empty());
  EXPECT_EQ(buffer.capacity(), 0U);
}

TEST(ByteBuffer, ReservesExactlyAndNeverLess) {
  ByteBuffer buffer;
  buffer.Append("kept");
  buffer.Reserve(1000);
  EXPECT_EQ(buffer.capacity(), 1000U);
  buffer.Reserve(10);
  EXPECT_EQ(buffer.capacity(), 1000U);
  EXPECT_EQ(buffer.view(), "kept");
  const char* const before = buffer.view().data();
  buffer.Append(std::string(996, 'y'));
  EXPECT_EQ(buffer.view().data(), before);
  EXPECT_EQ(buffer.capacity(), 1000U);
}

TEST(ByteBuffer, GrowsByTheSizeItHasSoThatManyAppendsCostLittle) {
  ByteBuffer buffer;
  int moves = 0;
  std::size_t capacity = 0;
  for (int i = 0; i < 100000; ++i) {
    buffer.Append("x");
    if (buffer.capacity() == capacity) continue;
    capacity = buffer.capacity();
    ++moves;
  }
  EXPECT_EQ(buffer.view(), std::string(100000, 'x'));
  EXPECT_LE(moves, 20);
}

TEST(ByteBuffer, CountsWhatWasWrittenBehindItsBytes) {
  ByteBuffer buffer;
  buffer.Append("ab");
  buffer.Reserve(8);
  std::memcpy(buffer.end(), "cdef", 4);
  EXPECT_EQ(buffer.view(), "ab");
  buffer.Grow(3);
  EXPECT_EQ(buffer.view(), "abcde");
  buffer.Grow(0);
  EXPECT_EQ(buffer.view(), "abcde");
}

TEST(ByteBuffer, RemovesFromTheFrontAndKeepsItsRoom) {
  ByteBuffer buffer;
  buffer.Append("abcdef");
  buffer.Reserve(64);
  buffer.RemoveFront(0);
  EXPECT_EQ(buffer.view(), "abcdef");
  buffer.RemoveFront(2);
  EXPECT_EQ(buffer.view(), "cdef");
  buffer.RemoveFront(4);
  EXPECT_TRUE(buffer.empty());
  EXPECT_EQ(buffer.capacity(), 64U);
  ByteBuffer without_memory;
  without_memory.RemoveFront(0);
  EXPECT_TRUE(without_memory.empty());
}

TEST(ByteBuffer, GivesItsMemoryBack) {
  ByteBuffer buffer;
  const std::size_t before = mivo_test::LiveBytes();
  buffer.Reserve(10 * 1000 * 1000);
  buffer.Append("rest");
  EXPECT_GE(mivo_test::LiveBytes(), before + 9 * 1000 * 1000);
  buffer.Shrink();
  EXPECT_EQ(buffer.view(), "rest");
  EXPECT_EQ(buffer.capacity(), 4U);
  EXPECT_LT(mivo_test::LiveBytes(), before + 65536);
  buffer.RemoveFront(4);
  buffer.Shrink();
  EXPECT_EQ(buffer.capacity(), 0U);
  buffer.Shrink();
  buffer.Append("again");
  EXPECT_EQ(buffer.view(), "again");
}

TEST(ByteBuffer, IsAsItWasWhenThereIsNoMemory) {
  if (mivo_test::kSanitized) GTEST_SKIP() << "the sanitizers end a program that asks for so much";
  ByteBuffer buffer;
  buffer.Append("kept");
  const std::size_t capacity = buffer.capacity();
  EXPECT_THROW(buffer.Reserve(std::numeric_limits<std::size_t>::max() / 2), std::bad_alloc);
  EXPECT_EQ(buffer.view(), "kept");
  EXPECT_EQ(buffer.capacity(), capacity);
  buffer.Append(" and more");
  EXPECT_EQ(buffer.view(), "kept and more");
}

TEST(ByteBuffer, DoesWhatAStringDoes) {
  std::mt19937 random(20240229);
  const auto below = [&random](std::size_t limit) { return static_cast<std::size_t>(random()) % limit; };
  ByteBuffer buffer;
  std::string expected;
  for (int step = 0; step < 20000; ++step) {
    switch (below(5)) {
      case 0:
      case 1: {
        const std::string bytes(below(40), static_cast<char>('a' + below(26)));
        buffer.Append(bytes);
        expected += bytes;
        break;
      }
      case 2: {
        const std::size_t count = below(20);
        buffer.Reserve(buffer.size() + count);
        const std::string bytes(count, static_cast<char>('A' + below(26)));
        if (count > 0) std::memcpy(buffer.end(), bytes.data(), count);
        buffer.Grow(count);
        expected += bytes;
        break;
      }
      case 3: {
        const std::size_t count = below(expected.size() + 1);
        buffer.RemoveFront(count);
        expected.erase(0, count);
        break;
      }
      default:
        buffer.Shrink();
        ASSERT_EQ(buffer.capacity(), buffer.size());
    }
    ASSERT_EQ(buffer.view(), expected) << step;
    ASSERT_GE(buffer.capacity(), buffer.size());
  }
}

}  // namespace
}  // namespace mivo
