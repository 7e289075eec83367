// Lines on the process's standard output.
#ifndef MIVO_BASE_STANDARD_OUTPUT_H_
#define MIVO_BASE_STANDARD_OUTPUT_H_

#include <cstddef>
#include <string_view>

namespace mivo {

#define MIVO_PRINTF(format_index, first_argument) __attribute__((format(printf, format_index, first_argument)))

// What a line is formatted into, with the NUL at its end: longer ones are cut.
inline constexpr std::size_t kLineSize = 1024;

// Any thread. Writes `text` as it stands and in one piece, behind whatever stdio has for standard output.
//
// The text is out when this returns, unless that would mean waiting: for a pipe, socket or terminal that is full, or
// for a thread of the program that is inside stdio. Who writes here serves peers, and nobody who merely reads along may
// hold that up. So the text then waits, and everything after it, for a thread that exists as long as there is something
// left to write. What waits is bounded; lines beyond are counted, and the count is written in their place. exit() gives
// what waits a moment and drops it then.
//
// For lines: PIPE_BUF bytes at most.
void WriteLine(std::string_view text);

// The same, formatted: a line that goes to standard output whatever level and sink are set.
void PrintDirect(const char* format, ...) MIVO_PRINTF(1, 2);

}  // namespace mivo

#endif  // MIVO_BASE_STANDARD_OUTPUT_H_
