#include "base/identity.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "base/pointer_text.h"

namespace mivo {
namespace {

template <class Number, class Next>
std::set<Number> TakeFromSeveralThreads(int threads, int each, const Next& next) {
  std::mutex mutex;
  std::set<Number> taken;
  std::vector<std::thread> takers;
  for (int i = 0; i < threads; ++i) {
    takers.emplace_back([&] {
      std::vector<Number> own;
      for (int n = 0; n < each; ++n)
        own.push_back(next());
      const std::lock_guard<std::mutex> lock(mutex);
      taken.insert(own.begin(), own.end());
    });
  }
  for (std::thread& taker : takers)
    taker.join();
  return taken;
}

TEST(ConnectionId, IsGivenOnceAndNeverZero) {
  const std::set<int> ids = TakeFromSeveralThreads<int>(4, 2000, NextConnectionId);
  EXPECT_EQ(ids.size(), 8000U);
  EXPECT_EQ(ids.count(0), 0U);
}

TEST(WaiterToken, IsGivenOnceAndNeverZero) {
  const std::set<std::uintptr_t> tokens = TakeFromSeveralThreads<std::uintptr_t>(4, 2000, NextWaiterToken);
  EXPECT_EQ(tokens.size(), 8000U);
  EXPECT_EQ(tokens.count(0), 0U);
}

TEST(WaiterToken, IsKnownAgain) {
  const std::uintptr_t token = NextWaiterToken();
  EXPECT_TRUE(IsToken(token));
  EXPECT_TRUE(IsToken(TextToPointer(PointerToText(token))));
}

TEST(WaiterToken, OtherNumbersAreNotTakenForOne) {
  const std::uintptr_t token = NextWaiterToken();
  int on_the_stack = 0;
  EXPECT_FALSE(IsToken(0));
  EXPECT_FALSE(IsToken(0xdead));
  EXPECT_FALSE(IsToken(token + 1));
  EXPECT_FALSE(IsToken(token - 1));
  EXPECT_FALSE(IsToken(UINTPTR_MAX));
  EXPECT_FALSE(IsToken(reinterpret_cast<std::uintptr_t>(&on_the_stack)));
}

TEST(WaiterToken, IsUnknownBeforeItIsGiven) {
  // Other tests may take one meanwhile, but not that many.
  const std::uintptr_t token = NextWaiterToken();
  EXPECT_FALSE(IsToken(token + kTokenStep * 1000 * 1000));
}

TEST(WaiterToken, IsNoneOfTheLibrarysOwn) {
  EXPECT_FALSE(IsLibraryToken(NextWaiterToken()));
  EXPECT_FALSE(IsLibraryToken(0));
  EXPECT_FALSE(IsLibraryToken(0xdead));
}

TEST(WaiterToken, IsAtLeastAStepFromEveryOther) {
  std::atomic<int> turn{0};
  const std::set<std::uintptr_t> tokens = TakeFromSeveralThreads<std::uintptr_t>(
      2, 1000, [&turn] { return ++turn % 2 == 0 ? NextWaiterToken() : NextLibraryToken(); });
  ASSERT_EQ(tokens.size(), 2000U);
  std::set<std::uintptr_t> rows;
  for (const std::uintptr_t token : tokens)
    rows.insert(token / kTokenStep);
  EXPECT_EQ(rows.size(), tokens.size());
}

TEST(LibraryToken, IsGivenOnceAndNeverZero) {
  const std::set<std::uintptr_t> tokens = TakeFromSeveralThreads<std::uintptr_t>(4, 2000, NextLibraryToken);
  EXPECT_EQ(tokens.size(), 8000U);
  EXPECT_EQ(tokens.count(0), 0U);
}

TEST(LibraryToken, IsKnownAgainAsATokenAndAsTheLibrarys) {
  const std::uintptr_t token = NextLibraryToken();
  EXPECT_TRUE(IsToken(token));
  EXPECT_TRUE(IsLibraryToken(token));
  EXPECT_TRUE(IsLibraryToken(TextToPointer(PointerToText(token))));
}

TEST(LibraryToken, OtherNumbersAreNotTakenForOne) {
  const std::uintptr_t token = NextLibraryToken();
  EXPECT_FALSE(IsLibraryToken(token + 1));
  EXPECT_FALSE(IsLibraryToken(token - 1));
  EXPECT_FALSE(IsLibraryToken(token + kTokenStep * 1000 * 1000));
  EXPECT_FALSE(IsLibraryToken(UINTPTR_MAX));
}

}  // namespace
}  // namespace mivo
