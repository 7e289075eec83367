#include "base/counted_lines.h"

namespace mivo {

namespace {
constexpr std::size_t kGroup = 3;
}  // namespace

std::string CountedLines(std::int64_t count, const char* what) {
  std::string text = std::to_string(count);
  for (std::size_t digits = text.size(); digits > kGroup; digits -= kGroup)
    text.insert(digits - kGroup, ",");
  return text + (count == 1 ? " line " : " lines ") + what + "\n";
}

}  // namespace mivo
