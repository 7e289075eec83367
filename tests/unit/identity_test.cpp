#include "base/identity.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "base/pointer_text.h"

namespace mivo {
namespace {

template <class Number, class Next>
std::set<Number> TakeFromSeveralThreads(int threads, int each, Next next) {
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
  EXPECT_TRUE(IsWaiterToken(token));
  EXPECT_TRUE(IsWaiterToken(TextToPointer(PointerToText(token))));
}

TEST(WaiterToken, OtherNumbersAreNotTakenForOne) {
  const std::uintptr_t token = NextWaiterToken();
  int on_the_stack = 0;
  EXPECT_FALSE(IsWaiterToken(0));
  EXPECT_FALSE(IsWaiterToken(0xdead));
  EXPECT_FALSE(IsWaiterToken(token + 1));
  EXPECT_FALSE(IsWaiterToken(token - 1));
  EXPECT_FALSE(IsWaiterToken(UINTPTR_MAX));
  EXPECT_FALSE(IsWaiterToken(reinterpret_cast<std::uintptr_t>(&on_the_stack)));
}

TEST(WaiterToken, IsUnknownBeforeItIsGiven) {
  // Other tests may take one meanwhile, but not that many.
  const std::uintptr_t token = NextWaiterToken();
  EXPECT_FALSE(IsWaiterToken(token + 16 * 1000 * 1000));
}

}  // namespace
}  // namespace mivo
