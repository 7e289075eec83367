// The application's receiver of diagnostic lines, and its end.
#ifndef MIVO_CALLS_LINE_SINK_H_
#define MIVO_CALLS_LINE_SINK_H_

#include <vector>

#include "base/mutex.h"
#include "base/thread_annotations.h"
#include "calls/closed_handlers.h"

class IServerMethod;

namespace mivo {

// Any thread, without a lock held: a sink is the application's code.
//
// A sink stays the application's. But the same object may also be registered as a method, and those are deleted by a
// close, while a line may come from any thread: so it is known which lines are with a sink, and the deletion waits for
// them.
class LineSink {
 public:
  // `owner` is the object whose handler a sink counts as.
  explicit LineSink(const void* owner) : owner_(owner) {}
  LineSink(const LineSink&) = delete;
  LineSink& operator=(const LineSink&) = delete;
  // Waits for lines that other threads have brought.
  ~LineSink();

  // Null: there is none. Lines that are under way to the one before still reach it.
  void Set(IServerMethod* sink);
  IServerMethod* Get() const;

  // Gives it the line, if there is one. False: the line is the caller's to print. So it is for what a sink itself
  // causes, which would go round for ever.
  bool Take(const char* line);

  // The first half of a close: none of these gets a line from now on. Waits for nobody.
  void Remove(const ClosedHandlers& handlers);

  // The second: deletes them when no line is with any of them. Waits for the lines of other threads, so whoever these
  // may wait for comes first. If this thread is inside such a call itself, the deletion is left to that call's end.
  void Delete(ClosedHandlers handlers);

 private:
  // One line's stay with a sink; on the stack of the thread that brought it.
  struct Visit {
    LineSink* host;
    IServerMethod* sink;
    Visit* next;
    // By the visiting thread only.
    std::vector<ClosedHandlers> to_delete;
  };
  // The visit that the calling thread is inside of, with whatever object: at most one.
  static thread_local Visit* current_visit;

  bool Enter(Visit& visit);
  void Leave(const Visit& visit);
  void DeleteWhenOthersHaveLeft(ClosedHandlers handlers, const Visit* own);

  const void* const owner_;
  mutable Mutex mutex_;
  Condition left_;
  IServerMethod* sink_ MIVO_GUARDED_BY(mutex_) = nullptr;
  Visit* visits_ MIVO_GUARDED_BY(mutex_) = nullptr;
};

}  // namespace mivo

#endif  // MIVO_CALLS_LINE_SINK_H_
