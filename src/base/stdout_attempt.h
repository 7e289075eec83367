// Writing to stdout only as far as it goes without waiting.
#ifndef MIVO_BASE_STDOUT_ATTEMPT_H_
#define MIVO_BASE_STDOUT_ATTEMPT_H_

#include <cstddef>
#include <string_view>

namespace mivo {

enum class Patience {
  // Returns at once: for threads that have others to serve.
  kNone,
  // Waits where waiting cannot be told beforehand: for a thread that nobody waits for.
  kSome,
};

// Writes behind what stdio holds for stdout. Returns how many bytes are done with; the rest did not fit now. What can
// never be written, to a closed descriptor for instance, counts as done. `text` is PIPE_BUF bytes at most.
//
// With no patience, one call at a time: two that have both been told of the same room would fill it twice.
std::size_t WriteAsFarAsItGoes(std::string_view text, Patience patience);

// Waits until it is worth another attempt, a fraction of a second at most: standard output may become another.
void AwaitRoomOnStdout();

// Whether flushing stdout on this thread now would neither wait for a reader nor for another thread.
bool StdoutFlushesAtOnce();

}  // namespace mivo

#endif  // MIVO_BASE_STDOUT_ATTEMPT_H_
