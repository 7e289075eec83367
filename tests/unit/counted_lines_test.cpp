#include "base/counted_lines.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

namespace mivo {
namespace {

TEST(CountedLines, GroupsTheDigitsByThousands) {
  EXPECT_EQ(CountedLines(1, "lost"), "1 line lost\n");
  EXPECT_EQ(CountedLines(2, "lost"), "2 lines lost\n");
  EXPECT_EQ(CountedLines(999, "lost"), "999 lines lost\n");
  EXPECT_EQ(CountedLines(1000, "suppressed"), "1,000 lines suppressed\n");
  EXPECT_EQ(CountedLines(1234, "lost"), "1,234 lines lost\n");
  EXPECT_EQ(CountedLines(123456, "lost"), "123,456 lines lost\n");
  EXPECT_EQ(CountedLines(1234567, "lost"), "1,234,567 lines lost\n");
  EXPECT_EQ(CountedLines(std::numeric_limits<std::int64_t>::max(), "lost"), "9,223,372,036,854,775,807 lines lost\n");
}

}  // namespace
}  // namespace mivo
