#include "largedata/partial_table.h"

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
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

TEST(PartialTable, AppendsSlicesInTheOrderOfTheirArrivalWhicheverIsBroughtFirst) {
  PartialTable table;
  PartialTable::Arrival first(table, {9, 9, "abc"});
  PartialTable::Arrival second(table, {9, 9, "def"});
  PartialTable::Arrival third(table, {9, 9, "ghi"});
  EXPECT_EQ(second.Append(), std::nullopt);
  EXPECT_EQ(third.Append(), "abcdefghi");
  EXPECT_EQ(first.Append(), std::nullopt);
}

TEST(PartialTable, GivesTheWholeToTheSliceThatCompletesItAlsoWhenALaterOneCameFirst) {
  PartialTable table;
  PartialTable::Arrival first(table, {9, 6, "abc"});
  PartialTable::Arrival last(table, {9, 6, "def"});
  PartialTable::Arrival of_the_next(table, {9, 6, "ABC"});
  EXPECT_EQ(of_the_next.Append(), std::nullopt);
  EXPECT_EQ(last.Append(), "abcdef");
  EXPECT_EQ(last.Append(), std::nullopt);
  EXPECT_EQ(first.Append(), std::nullopt);
  EXPECT_EQ(table.Add({9, 6, "DEF"}), "ABCDEF");
}

TEST(PartialTable, TakesBackASliceThatIsNeverBrought) {
  PartialTable table;
  PartialTable::Arrival first(table, {9, 6, "abc"});
  auto dropped = std::make_unique<PartialTable::Arrival>(table, Slice{9, 6, "xyz"});
  PartialTable::Arrival last(table, {9, 6, "def"});
  dropped.reset();
  EXPECT_EQ(last.Append(), "abcdef");
}

TEST(PartialTable, KeepsASliceThatALaterOneHasBroughtAlong) {
  PartialTable table;
  auto dropped = std::make_unique<PartialTable::Arrival>(table, Slice{9, 6, "abc"});
  PartialTable::Arrival last(table, {9, 6, "def"});
  EXPECT_EQ(last.Append(), "abcdef");
  dropped.reset();
  EXPECT_EQ(table.Add({9, 1, "x"}), "x");
}

TEST(PartialTable, TakesSlicesBackWhileOthersAreAppended) {
  constexpr int kRounds = 200;
  PartialTable table;
  const std::string bytes(4096, 'x');
  for (int round = 0; round < kRounds; ++round) {
    auto dropped = std::make_unique<PartialTable::Arrival>(table, Slice{9, INT_MAX, bytes});
    PartialTable::Arrival next(table, {9, 1, bytes});
    std::thread appending([&] {
      const std::optional<std::string> whole = next.Append();
      // The one before it came in time or it did not.
      ASSERT_TRUE(whole);
      EXPECT_TRUE(whole->size() == bytes.size() || whole->size() == 2 * bytes.size());
    });
    dropped.reset();
    appending.join();
  }
}

TEST(PartialTable, KeepsTheOrderWithAnyNumberOfThreads) {
  constexpr int kRounds = 50;
  constexpr int kSlices = 64;
  constexpr int kThreads = 4;
  std::string expected;
  for (int i = 0; i < kSlices; ++i)
    expected += static_cast<char>('0' + i);
  PartialTable table;
  for (int round = 0; round < kRounds; ++round) {
    std::vector<std::unique_ptr<PartialTable::Arrival>> arrivals;
    for (int i = 0; i < kSlices; ++i) {
      const std::string_view byte = std::string_view(expected).substr(static_cast<std::size_t>(i), 1);
      arrivals.push_back(std::make_unique<PartialTable::Arrival>(table, Slice{9, kSlices, byte}));
    }
    std::atomic<int> next{0};
    std::atomic<int> wholes{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&] {
        for (int mine = next++; mine < kSlices; mine = next++) {
          const std::optional<std::string> whole = arrivals[static_cast<std::size_t>(mine)]->Append();
          if (!whole) continue;
          ++wholes;
          EXPECT_EQ(mine, kSlices - 1);
          EXPECT_EQ(*whole, expected);
        }
      });
    }
    for (std::thread& thread : threads)
      thread.join();
    EXPECT_EQ(wholes, 1);
  }
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
