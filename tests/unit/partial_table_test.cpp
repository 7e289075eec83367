#include "largedata/partial_table.h"

#include <gtest/gtest.h>

#include <climits>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "unit/live_bytes.h"

namespace mivo {
namespace {

TEST(PartialTable, GivesTheWholeWithItsLastSlice) {
  PartialTable table;
  EXPECT_EQ(table.Add({9, 10, "abc"}), std::nullopt);
  EXPECT_EQ(table.Add({9, 10, "def"}), std::nullopt);
  EXPECT_EQ(table.Add({9, 10, "ghij"}), "abcdefghij");
}

TEST(PartialTable, GivesAMessageOfOneSliceAtOnce) {
  PartialTable table;
  EXPECT_EQ(table.Add({9, 3, "abc"}), "abc");
  EXPECT_EQ(table.Add({9, 0, ""}), "");
}

TEST(PartialTable, BeginsAnewAfterAWhole) {
  PartialTable table;
  EXPECT_EQ(table.Add({9, 3, "abc"}), "abc");
  EXPECT_EQ(table.Add({9, 4, "de"}), std::nullopt);
  EXPECT_EQ(table.Add({9, 4, "fg"}), "defg");
}

TEST(PartialTable, TakesMoreThanWasAnnouncedForAWhole) {
  PartialTable table;
  EXPECT_EQ(table.Add({9, 4, "abc"}), std::nullopt);
  EXPECT_EQ(table.Add({9, 4, "defgh"}), "abcdefgh");
}

TEST(PartialTable, TakesATotalOfNothingOrLessForReached) {
  PartialTable table;
  EXPECT_EQ(table.Add({9, 0, "abc"}), "abc");
  EXPECT_EQ(table.Add({9, -1, "abc"}), "abc");
  EXPECT_EQ(table.Add({9, INT_MIN, ""}), "");
}

TEST(PartialTable, GoesByTheTotalOfTheLatestSlice) {
  PartialTable table;
  EXPECT_EQ(table.Add({9, 100, "abc"}), std::nullopt);
  EXPECT_EQ(table.Add({9, 5, "de"}), "abcde");
}

TEST(PartialTable, KeepsKeysApart) {
  PartialTable table;
  EXPECT_EQ(table.Add({1, 4, "ab"}), std::nullopt);
  EXPECT_EQ(table.Add({2, 4, "cd"}), std::nullopt);
  EXPECT_EQ(table.Add({-1, 4, "ef"}), std::nullopt);
  EXPECT_EQ(table.Add({2, 4, "CD"}), "cdCD");
  EXPECT_EQ(table.Add({1, 4, "AB"}), "abAB");
  EXPECT_EQ(table.Add({-1, 4, "EF"}), "efEF");
}

TEST(PartialTable, AppendsTheNextTransferToWhatAnEarlierOneLeft) {
  PartialTable table;
  EXPECT_EQ(table.Add({9, 100, "left over "}), std::nullopt);
  EXPECT_EQ(table.Add({9, 4, "next"}), "left over next");
}

TEST(PartialTable, MakesNoRoomForWhatIsOnlyAnnounced) {
  PartialTable table;
  const std::size_t before = mivo_test::LiveBytes();
  for (int key = 0; key < 100; ++key)
    EXPECT_EQ(table.Add({key, INT_MAX, "x"}), std::nullopt);
  EXPECT_LT(mivo_test::LiveBytes(), before + 65536);
}

TEST(PartialTable, TakesSlicesOfSeveralTransfersAtATime) {
  constexpr int kTransfers = 4;
  PartialTable table;
  std::vector<std::string> wholes(kTransfers);
  std::vector<std::thread> threads;
  for (int key = 0; key < kTransfers; ++key) {
    threads.emplace_back([&table, &whole = wholes[static_cast<std::size_t>(key)], key] {
      const std::string slice(10, static_cast<char>('a' + key));
      for (int round = 0; round < 50; ++round) {
        for (int i = 0; i < 10; ++i) {
          if (std::optional<std::string> result = table.Add({key, 100, slice})) whole += *result;
        }
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
