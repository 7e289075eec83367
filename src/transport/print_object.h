// The diagnostic lines of one client or server.
#ifndef MIVO_TRANSPORT_PRINT_OBJECT_H_
#define MIVO_TRANSPORT_PRINT_OBJECT_H_

#include <atomic>

class IServerMethod;

namespace mivo {

#define MIVO_PRINTF(format_index, first_argument) __attribute__((format(printf, format_index, first_argument)))

// Any thread, never with a lock held: a line may go to a handler of the application, which may call anything.
//
// A line is cut to 1023 characters and leaves in one piece.
class PrintObject {
 public:
  // `owner` is the object whose handler a sink counts as.
  explicit PrintObject(const void* owner) : owner_(owner) {}
  PrintObject(const PrintObject&) = delete;
  PrintObject& operator=(const PrintObject&) = delete;

  // For the course of things: silent unless the level is above 0.
  void Debug(const char* format, ...) MIVO_PRINTF(2, 3);
  // For what went wrong: never silent.
  void Error(const char* format, ...) MIVO_PRINTF(2, 3);

  // The `log` operation of both interfaces.
  int SetLevel(const char* text, int level);

  // Lines go to `sink` in place of standard output; null: back again. It stays the application's.
  void SetSink(IServerMethod* sink) { sink_ = sink; }
  IServerMethod* sink() const { return sink_; }

 private:
  void Emit(const char* line);

  const void* const owner_;
  // Both are set by any thread and read by the one that prints; nothing else is published through them.
  std::atomic<int> level_{1};
  std::atomic<IServerMethod*> sink_{nullptr};
};

// A line that goes to standard output whatever level and sink are set.
void PrintDirect(const char* format, ...) MIVO_PRINTF(1, 2);

}  // namespace mivo

#endif  // MIVO_TRANSPORT_PRINT_OBJECT_H_
