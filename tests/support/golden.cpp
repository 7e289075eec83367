#include "support/golden.h"

#include <cstddef>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace mivo_test {
namespace {

int DigitValue(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  throw std::runtime_error(std::string("no hex digit: '") + digit + "'");
}

bool IsSpace(char character) {
  return character == ' ' || character == '\n' || character == '\r' || character == '\t';
}

}  // namespace

std::string FromHex(std::string_view text) {
  std::string bytes;
  std::size_t at = 0;
  while (at < text.size()) {
    if (IsSpace(text[at])) {
      ++at;
    } else if (text[at] == '#') {
      while (at < text.size() && text[at] != '\n')
        ++at;
    } else {
      if (at + 1 == text.size()) throw std::runtime_error("half a byte at the end of a hex text");
      bytes.push_back(static_cast<char>(DigitValue(text[at]) * 16 + DigitValue(text[at + 1])));
      at += 2;
    }
  }
  return bytes;
}

std::string ToHex(std::string_view bytes) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string text;
  for (const char byte : bytes) {
    const auto value = static_cast<unsigned char>(byte);
    if (!text.empty()) text.push_back(' ');
    text.push_back(kDigits[value / 16]);
    text.push_back(kDigits[value % 16]);
  }
  return text;
}

std::string ReadHexFile(const std::string& path) {
  std::ifstream file(path);
  if (!file) throw std::runtime_error("cannot read " + path);
  return FromHex(std::string(std::istreambuf_iterator<char>(file), {}));
}

}  // namespace mivo_test
