// The diagnostic lines of one client or server.
#ifndef MIVO_CALLS_DIAGNOSTICS_H_
#define MIVO_CALLS_DIAGNOSTICS_H_

#include <atomic>
#include <limits>

#include "base/standard_output.h"
#include "calls/line_sink.h"

namespace mivo {

// Any thread, never with a lock held: a line may go to a handler of the application, which may call anything.
//
// A line is cut to 1023 characters and leaves in one piece.
class Diagnostics {
 public:
  // `owner` is the object whose handler a sink counts as.
  explicit Diagnostics(const void* owner) : sink_(owner) {}
  Diagnostics(const Diagnostics&) = delete;
  Diagnostics& operator=(const Diagnostics&) = delete;

  // For the course of things: silent unless the level is above 0.
  void Debug(const char* format, ...) MIVO_PRINTF(2, 3);
  // For what went wrong: never silent.
  void Error(const char* format, ...) MIVO_PRINTF(2, 3);

  // The `log` operation of both interfaces.
  int SetLevel(const char* text, int level);

  // No lines at all from now on, also where others print them on its behalf. The C++ streams stay as they are.
  void BeQuiet() { level_ = kQuiet; }
  bool is_quiet() const { return level_ == kQuiet; }

  // Where lines go in place of standard output.
  LineSink& sink() { return sink_; }

 private:
  static constexpr int kQuiet = std::numeric_limits<int>::min();
  void Emit(const char* line);

  // Set by any thread and read by the one that prints; nothing else is published through it.
  std::atomic<int> level_{1};
  LineSink sink_;
};

}  // namespace mivo

#endif  // MIVO_CALLS_DIAGNOSTICS_H_
