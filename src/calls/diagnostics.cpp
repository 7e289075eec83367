#include "calls/diagnostics.h"

#include <cstdarg>
#include <cstdio>

#include "base/stream_switch.h"

namespace mivo {

void Diagnostics::Debug(const char* format, ...) {
  if (level_ <= 0) return;
  char line[kLineSize];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  Emit(line);
}

void Diagnostics::Error(const char* format, ...) {
  if (is_quiet()) return;
  char line[kLineSize];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  Emit(line);
}

void Diagnostics::Emit(const char* line) {
  if (!sink_.Take(line)) WriteLine(line);
}

int Diagnostics::SetLevel(const char* text, int level) {
  // Promised with every log; where it would have to wait now, the next one does it.
  SwitchStreamsOffStdio();
  level_ = level == kQuiet ? 0 : level;
  return text != nullptr && *text != '\0' ? 1 : 0;
}

}  // namespace mivo
