#include "largedata/partial_table.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/event.h"
#include "support/sanitizers.h"
#include "unit/live_bytes.h"

namespace mivo {
namespace {

constexpr int kConnection = 16;

TEST(PartialTable, GivesTheWholeWithItsLastSlice) {
  PartialTable table;
  EXPECT_EQ(table.Add(kConnection, {9, 10, "abc"}), std::nullopt);
  EXPECT_EQ(table.Add(kConnection, {9, 10, "def"}), std::nullopt);
  EXPECT_EQ(table.Add(kConnection, {9, 10, "ghij"}), "abcdefghij");
}

TEST(PartialTable, TakesTimeThatGrowsWithTheBytesWhateverTheyAnnounce) {
  // A total that is always just ahead must not have all be copied with each slice: that would take a minute.
  constexpr int kSlices = 40000;
  const std::string bytes(1000, 'x');
  PartialTable table;
  const mivo_test::Stopwatch watch;
  int so_far = 0;
  for (int i = 0; i < kSlices; ++i) {
    so_far += static_cast<int>(bytes.size());
    ASSERT_EQ(table.Add(kConnection, {9, so_far + 1, bytes}), std::nullopt);
  }
  EXPECT_LT(watch.ElapsedMs(), 5000 * mivo_test::kSlowdown);
  const std::optional<std::string> whole = table.Add(kConnection, {9, so_far + 1, "y"});
  ASSERT_TRUE(whole);
  EXPECT_EQ(whole->size(), static_cast<std::size_t>(so_far) + 1);
}

TEST(PartialTable, GivesAMessageOfOneSliceAtOnce) {
  PartialTable table;
  EXPECT_EQ(table.Add(kConnection, {9, 3, "abc"}), "abc");
  EXPECT_EQ(table.Add(kConnection, {9, 0, ""}), "");
}

TEST(PartialTable, BeginsAnewAfterAWhole) {
  PartialTable table;
  EXPECT_EQ(table.Add(kConnection, {9, 3, "abc"}), "abc");
  EXPECT_EQ(table.Add(kConnection, {9, 4, "de"}), std::nullopt);
  EXPECT_EQ(table.Add(kConnection, {9, 4, "fg"}), "defg");
}

TEST(PartialTable, TakesMoreThanWasAnnouncedForAWhole) {
  PartialTable table;
  EXPECT_EQ(table.Add(kConnection, {9, 4, "abc"}), std::nullopt);
  EXPECT_EQ(table.Add(kConnection, {9, 4, "defgh"}), "abcdefgh");
}

TEST(PartialTable, TakesATotalOfNothingOrLessForReached) {
  PartialTable table;
  EXPECT_EQ(table.Add(kConnection, {9, 0, "abc"}), "abc");
  EXPECT_EQ(table.Add(kConnection, {9, -1, "abc"}), "abc");
  EXPECT_EQ(table.Add(kConnection, {9, INT_MIN, ""}), "");
}

TEST(PartialTable, GoesByTheTotalOfTheLatestSlice) {
  PartialTable table;
  EXPECT_EQ(table.Add(kConnection, {9, 100, "abc"}), std::nullopt);
  EXPECT_EQ(table.Add(kConnection, {9, 5, "de"}), "abcde");
}

TEST(PartialTable, KeepsKeysApart) {
  PartialTable table;
  EXPECT_EQ(table.Add(kConnection, {1, 4, "ab"}), std::nullopt);
  EXPECT_EQ(table.Add(kConnection, {2, 4, "cd"}), std::nullopt);
  EXPECT_EQ(table.Add(kConnection, {-1, 4, "ef"}), std::nullopt);
  EXPECT_EQ(table.Add(kConnection, {2, 4, "CD"}), "cdCD");
  EXPECT_EQ(table.Add(kConnection, {1, 4, "AB"}), "abAB");
  EXPECT_EQ(table.Add(kConnection, {-1, 4, "EF"}), "efEF");
}

TEST(PartialTable, AppendsTheNextTransferToWhatAnEarlierOneLeft) {
  PartialTable table;
  EXPECT_EQ(table.Add(kConnection, {9, 100, "left over "}), std::nullopt);
  EXPECT_EQ(table.Add(kConnection, {9, 4, "next"}), "left over next");
}

TEST(PartialTable, KeepsConnectionsApart) {
  PartialTable table;
  EXPECT_EQ(table.Add(16, {9, 4, "ab"}), std::nullopt);
  EXPECT_EQ(table.Add(32, {9, 4, "cd"}), std::nullopt);
  EXPECT_EQ(table.Add(32, {9, 4, "CD"}), "cdCD");
  EXPECT_EQ(table.Add(16, {9, 4, "AB"}), "abAB");
}

TEST(PartialTable, ForgetsWhatAConnectionHasLeftAndNothingElse) {
  PartialTable table;
  for (const int connection : {-16, 16, 32, 48, INT_MIN, INT_MAX}) {
    for (const int key : {INT_MIN, -1, 0, 9, INT_MAX})
      EXPECT_EQ(table.Add(connection, {key, 4, "ab"}), std::nullopt);
  }
  table.Forget(32);
  table.Forget(INT_MIN);
  table.Forget(64);
  for (const int key : {INT_MIN, -1, 0, 9, INT_MAX}) {
    for (const int connection : {-16, 16, 48, INT_MAX})
      EXPECT_EQ(table.Add(connection, {key, 4, "AB"}), "abAB");
    for (const int connection : {32, INT_MIN})
      EXPECT_EQ(table.Add(connection, {key, 4, "ABCD"}), "ABCD");
  }
}

TEST(PartialTable, ForgetsEverythingWhenAllConnectionsHaveGone) {
  PartialTable table;
  for (const int connection : {16, 32})
    EXPECT_EQ(table.Add(connection, {9, 4, "ab"}), std::nullopt);
  table.ForgetAll();
  for (const int connection : {16, 32})
    EXPECT_EQ(table.Add(connection, {9, 4, "ABCD"}), "ABCD");
}

TEST(PartialTable, FreesWhatItForgets) {
  PartialTable table;
  const std::size_t before = mivo_test::LiveBytes();
  const std::string slice(1 << 20, 'x');
  for (int key = 0; key < 8; ++key)
    EXPECT_EQ(table.Add(16, {key, INT_MAX, slice}), std::nullopt);
  EXPECT_GT(mivo_test::LiveBytes(), before + 8 * slice.size());
  table.Forget(16);
  EXPECT_LT(mivo_test::LiveBytes(), before + 2 * slice.size());
}

TEST(PartialTable, MakesNoRoomForWhatIsOnlyAnnounced) {
  PartialTable table;
  const std::size_t before = mivo_test::LiveBytes();
  for (int key = 0; key < 100; ++key)
    EXPECT_EQ(table.Add(kConnection, {key, INT_MAX, "x"}), std::nullopt);
  EXPECT_LT(mivo_test::LiveBytes(), before + 65536);
}

TEST(PartialTable, TakesSlicesOfSeveralConnectionsAtATime) {
  constexpr int kTransfers = 4;
  PartialTable table;
  std::vector<std::string> wholes(kTransfers);
  std::vector<std::thread> threads;
  for (int key = 0; key < kTransfers; ++key) {
    threads.emplace_back([&table, &whole = wholes[static_cast<std::size_t>(key)], key] {
      const std::string slice(10, static_cast<char>('a' + key));
      for (int round = 0; round < 50; ++round) {
        for (int i = 0; i < 10; ++i) {
          if (std::optional<std::string> result = table.Add(16 * key, {9, 100, slice})) whole += *result;
        }
        table.Forget(16 * key + 1);
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  for (int key = 0; key < kTransfers; ++key) {
    EXPECT_EQ(wholes[static_cast<std::size_t>(key)], std::string(5000, static_cast<char>('a' + key)));
  }
}

}  // namespace
}  // namespace mivo
