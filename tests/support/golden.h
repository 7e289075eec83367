#ifndef MIVO_TESTS_SUPPORT_GOLDEN_H_
#define MIVO_TESTS_SUPPORT_GOLDEN_H_

#include <string>
#include <string_view>

namespace mivo_test {

// Pairs of hex digits, white space between them at will; "#" opens a comment up to the end of its line. Throws
// std::runtime_error for anything else.
std::string FromHex(std::string_view text);
// "00 0A FF"
std::string ToHex(std::string_view bytes);

std::string ReadHexFile(const std::string& path);

#ifdef MIVO_TEST_WIRE_DIR
// The bytes of tests/wire/NAME.hex.
inline std::string Golden(const std::string& name) {
  return ReadHexFile(std::string(MIVO_TEST_WIRE_DIR) + "/" + name + ".hex");
}
#endif

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_GOLDEN_H_
