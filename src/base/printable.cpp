#include "base/printable.h"

namespace mivo {

namespace {

constexpr char kDigits[] = "0123456789abcdef";
constexpr unsigned char kFirstPrintable = 0x20;
constexpr unsigned char kDelete = 0x7f;
constexpr std::size_t kEscapeSize = 4;

}  // namespace

Printable::Printable(std::string_view text) {
  std::size_t size = 0;
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    const bool printable = byte >= kFirstPrintable && byte != kDelete;
    if (size + (printable ? 1 : kEscapeSize) >= sizeof text_) break;
    if (printable) {
      text_[size++] = character;
    } else {
      text_[size++] = '\\';
      text_[size++] = 'x';
      text_[size++] = kDigits[byte >> 4U];
      text_[size++] = kDigits[byte & 0xfU];
    }
  }
  text_[size] = '\0';
}

}  // namespace mivo
