#include "largedata/slice_size.h"

#include <gtest/gtest.h>

#include <climits>

#include "unit/slice_size_scope.h"

namespace mivo {
namespace {

TEST(SliceSize, Is32768AtFirst) {
  EXPECT_EQ(SliceSizeAsSet(), 32768);
  EXPECT_EQ(SliceSizeToUse(), 32768);
}

TEST(SliceSize, IsKeptAsItIsSet) {
  for (const int bytes : {1, 7, 1000000, INT_MAX, 0, -5, INT_MIN}) {
    const SliceSizeScope size(bytes);
    EXPECT_EQ(SliceSizeAsSet(), bytes);
  }
}

TEST(SliceSize, IsUsedOnlyWhereASliceCanHaveIt) {
  for (const int bytes : {1, 7, 1000000, INT_MAX}) {
    const SliceSizeScope size(bytes);
    EXPECT_EQ(SliceSizeToUse(), bytes);
  }
  for (const int bytes : {0, -5, INT_MIN}) {
    const SliceSizeScope size(bytes);
    EXPECT_EQ(SliceSizeToUse(), 32768);
  }
}

}  // namespace
}  // namespace mivo
