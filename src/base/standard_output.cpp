#include "base/standard_output.h"

#include <pthread.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "base/line_queue.h"

namespace mivo {

namespace {

constexpr std::chrono::milliseconds kExitPatience{200};

LineQueue& Queue();

// Taken before fork and given back after it, which the analysis cannot see.
void BeforeFork() MIVO_NO_THREAD_SAFETY_ANALYSIS {
  Queue().BeforeFork();
}
void AfterForkInParent() MIVO_NO_THREAD_SAFETY_ANALYSIS {
  Queue().AfterForkInParent();
}
void AfterForkInChild() MIVO_NO_THREAD_SAFETY_ANALYSIS {
  Queue().AfterForkInChild();
}

LineQueue* MakeQueue() {
  ::pthread_atfork(&BeforeFork, &AfterForkInParent, &AfterForkInChild);
  std::atexit([] { Queue().AwaitEmpty(kExitPatience); });
  return new LineQueue;
}

// Never destroyed: its thread, and whoever has something to say, may be there until the last moment of the process.
LineQueue& Queue() {
  static LineQueue* const queue = MakeQueue();
  return *queue;
}

// While there is one thread, so that no fork can fall into the making; before whatever the program makes of static
// duration, so that this end comes after its ends.
[[maybe_unused]] LineQueue& made_at_load = Queue();

}  // namespace

void WriteLine(std::string_view text) {
  const int error = errno;
  Queue().Write(text);
  errno = error;
}

void PrintDirect(const char* format, ...) {
  char line[kLineSize];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  WriteLine(line);
}

}  // namespace mivo
