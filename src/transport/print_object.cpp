#include "transport/print_object.h"

#include <mivo/handler.h>
#include <mivo/params.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>
#include <ios>
#include <mutex>

#include "base/handler_scope.h"

namespace mivo {

namespace {

constexpr std::size_t kLineSize = 1024;

// A sink that causes lines while it handles one would be called for ever: those go to standard output.
thread_local bool inside_sink = false;

// stdio's own lock keeps a single write whole between threads.
void WriteOut(const char* line) {
  std::fwrite(line, 1, std::strlen(line), stdout);
  std::fflush(stdout);
}

class SinkScope {
 public:
  SinkScope() { inside_sink = true; }
  ~SinkScope() { inside_sink = false; }
  SinkScope(const SinkScope&) = delete;
  SinkScope& operator=(const SinkScope&) = delete;
};

void CallSink(IServerMethod* sink, const void* owner, const char* line) {
  const HandlerScope handler_scope(owner);
  const SinkScope sink_scope;
  MIVOParams params;
  params.AddString(line);
  params.ToParams();
  try {
    sink->OnCall(0, &params, nullptr);
  } catch (const std::exception& error) {
    PrintDirect("handler s_c_log: %s\n", error.what());
  } catch (...) {
    PrintDirect("handler s_c_log: unknown exception\n");
  }
}

}  // namespace

void PrintObject::Debug(const char* format, ...) {
  if (level_ <= 0) return;
  char line[kLineSize];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  Emit(line);
}

void PrintObject::Error(const char* format, ...) {
  char line[kLineSize];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  Emit(line);
}

void PrintObject::Emit(const char* line) {
  IServerMethod* const sink = sink_;
  if (sink != nullptr && !inside_sink) {
    CallSink(sink, owner_, line);
  } else {
    WriteOut(line);
  }
}

int PrintObject::SetLevel(const char* text, int level) {
  // Rebuilding the streams' buffers more than once would race with threads that print through them.
  static std::once_flag once;
  std::call_once(once, [] { std::ios_base::sync_with_stdio(false); });
  level_ = level;
  return text != nullptr && *text != '\0' ? 1 : 0;
}

void PrintDirect(const char* format, ...) {
  char line[kLineSize];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  WriteOut(line);
}

}  // namespace mivo
