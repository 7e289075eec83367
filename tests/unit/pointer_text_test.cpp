#include "base/pointer_text.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <locale>
#include <sstream>
#include <string>

namespace mivo {
namespace {

constexpr std::uintptr_t kLargest = std::numeric_limits<std::uintptr_t>::max();

TEST(PointerText, LooksLikeAnAddress) {
  EXPECT_EQ(PointerToText(0x5a10), "0x5a10");
  EXPECT_EQ(PointerToText(0xDEADBEEF), "0xdeadbeef");
  EXPECT_EQ(PointerToText(1), "0x1");
  EXPECT_EQ(PointerToText(kLargest), "0xffffffffffffffff");
}

TEST(PointerText, IsWhatAStreamWritesForAPointer) {
  int somewhere = 0;
  std::ostringstream stream;
  stream.imbue(std::locale::classic());
  stream << static_cast<void*>(&somewhere);
  EXPECT_EQ(PointerToText(reinterpret_cast<std::uintptr_t>(&somewhere)), stream.str());
}

TEST(PointerText, DoesNotListenToTheLocale) {
  struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
  };
  const std::locale before = std::locale::global(std::locale(std::locale::classic(), new Grouping));
  EXPECT_EQ(PointerToText(0x123456789), "0x123456789");
  EXPECT_EQ(TextToPointer("0x123456789"), 0x123456789U);
  std::locale::global(before);
}

TEST(PointerText, ReadsBackWhatItWrote) {
  for (std::uintptr_t value = 1; value != 0; value <<= 1) {
    EXPECT_EQ(TextToPointer(PointerToText(value)), value);
    EXPECT_EQ(TextToPointer(PointerToText(value - 1)), value - 1);
  }
  EXPECT_EQ(TextToPointer(PointerToText(kLargest)), kLargest);
}

TEST(PointerText, ReadsOtherSpellingsOfANumber) {
  EXPECT_EQ(TextToPointer("0X5A10"), 0x5a10U);
  EXPECT_EQ(TextToPointer("5a10"), 0x5a10U);
  EXPECT_EQ(TextToPointer("0x0000000000000000005a10"), 0x5a10U);
}

TEST(PointerText, ForeignTextNamesNothing) {
  for (const char* text : {"", "0x", "x", "abcg", "0x5a10 ", " 0x5a10", "-1", "+1", "0x-1", "0x0x10", "(nil)",
                           "0x10000000000000000", "0xfffffffffffffffff", "5a10h"}) {
    EXPECT_EQ(TextToPointer(text), 0U) << "'" << text << "'";
  }
  EXPECT_EQ(TextToPointer(std::string_view()), 0U);
  EXPECT_EQ(TextToPointer(std::string_view("0x5a\0", 5)), 0U);
}

}  // namespace
}  // namespace mivo
