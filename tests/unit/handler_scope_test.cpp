#include "base/handler_scope.h"

#include <gtest/gtest.h>

#include <thread>

namespace mivo {
namespace {

TEST(HandlerScope, KnowsTheObjectWhoseHandlerRuns) {
  const int object = 0;
  const int other = 0;
  EXPECT_FALSE(HandlerScope::Inside(&object));
  {
    const HandlerScope scope(&object);
    EXPECT_TRUE(HandlerScope::Inside(&object));
    EXPECT_FALSE(HandlerScope::Inside(&other));
  }
  EXPECT_FALSE(HandlerScope::Inside(&object));
}

TEST(HandlerScope, SeesThroughHandlersOfOtherObjects) {
  const int outer = 0;
  const int inner = 0;
  const HandlerScope outer_scope(&outer);
  {
    const HandlerScope inner_scope(&inner);
    const HandlerScope again(&outer);
    EXPECT_TRUE(HandlerScope::Inside(&outer));
    EXPECT_TRUE(HandlerScope::Inside(&inner));
  }
  EXPECT_TRUE(HandlerScope::Inside(&outer));
  EXPECT_FALSE(HandlerScope::Inside(&inner));
}

TEST(HandlerScope, CountsForItsOwnThreadOnly) {
  const int object = 0;
  const HandlerScope scope(&object);
  bool inside = true;
  std::thread([&] { inside = HandlerScope::Inside(&object); }).join();
  EXPECT_FALSE(inside);
}

}  // namespace
}  // namespace mivo
