// A line that stands for many.
#ifndef MIVO_BASE_COUNTED_LINES_H_
#define MIVO_BASE_COUNTED_LINES_H_

#include <cstdint>
#include <string>

namespace mivo {

// "1,234 lines lost\n" for 1234 and "lost".
std::string CountedLines(std::int64_t count, const char* what);

}  // namespace mivo

#endif  // MIVO_BASE_COUNTED_LINES_H_
