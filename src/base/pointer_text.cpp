#include "base/pointer_text.h"

#include <charconv>
#include <system_error>

namespace mivo {

std::string PointerToText(std::uintptr_t value) {
  char digits[2 + 2 * sizeof value] = {'0', 'x'};
  const std::to_chars_result result = std::to_chars(digits + 2, digits + sizeof digits, value, 16);
  return std::string(digits, result.ptr);
}

std::uintptr_t TextToPointer(std::string_view text) {
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) text.remove_prefix(2);
  std::uintptr_t value = 0;
  const std::from_chars_result result = std::from_chars(text.data(), text.data() + text.size(), value, 16);
  return result.ec == std::errc() && result.ptr == text.data() + text.size() ? value : 0;
}

}  // namespace mivo
