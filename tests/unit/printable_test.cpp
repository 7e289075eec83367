#include "base/printable.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace mivo {
namespace {

TEST(Printable, WritesEveryControlCharacterAsItsNumber) {
  constexpr char kDigits[] = "0123456789abcdef";
  for (int byte = 0; byte < 256; ++byte) {
    const char character = static_cast<char>(byte);
    std::string expected(1, character);
    if (byte < 0x20 || byte == 0x7f) expected = std::string("\\x") + kDigits[byte / 16] + kDigits[byte % 16];
    EXPECT_EQ(Printable(std::string_view(&character, 1)).c_str(), expected) << byte;
  }
}

TEST(Printable, LeavesTextAsItIs) {
  EXPECT_STREQ(Printable("").c_str(), "");
  EXPECT_STREQ(Printable("plain text, 100% of it").c_str(), "plain text, 100% of it");
  EXPECT_STREQ(Printable("Größe \u20ac").c_str(), "Größe \u20ac");
  EXPECT_STREQ(Printable("a\x1b[31mb\r\nc").c_str(), "a\\x1b[31mb\\x0d\\x0ac");
  EXPECT_STREQ(Printable(std::string_view("a\0b", 3)).c_str(), "a\\x00b");
}

TEST(Printable, IsNoLongerThanALineAndCutsNoNumber) {
  EXPECT_EQ(Printable(std::string(5000, 'x')).c_str(), std::string(1023, 'x'));
  EXPECT_EQ(Printable(std::string(1023, 'x')).c_str(), std::string(1023, 'x'));
  EXPECT_EQ(Printable(std::string(1019, 'x') + "\n").c_str(), std::string(1019, 'x') + "\\x0a");
  EXPECT_EQ(Printable(std::string(1020, 'x') + "\n").c_str(), std::string(1020, 'x'));
  EXPECT_EQ(std::string(Printable(std::string(5000, '\n')).c_str()).size(), 1020U);
}

}  // namespace
}  // namespace mivo
