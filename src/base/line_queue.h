// Lines that standard output does not take at the moment.
#ifndef MIVO_BASE_LINE_QUEUE_H_
#define MIVO_BASE_LINE_QUEUE_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

#include "base/mutex.h"
#include "base/thread_annotations.h"

namespace mivo {

// One for the process, since there is one standard output. Any thread. Nothing that is done under its lock waits.
//
//   empty, no thread      a line goes out at once, or what is left of it begins to wait
//   a thread              a line joins those that wait, if only behind the one that the thread is about
//   full                  lines are lost, and counted, until all that wait are written; then the count is written
class LineQueue {
 public:
  static constexpr std::size_t kMaxLines = 4096;
  static constexpr std::size_t kMaxBytes = std::size_t{1} << 20;

  LineQueue() = default;
  LineQueue(const LineQueue&) = delete;
  LineQueue& operator=(const LineQueue&) = delete;

  void Write(std::string_view text);

  // Returns when nothing waits any more, or when the time is over.
  void AwaitEmpty(std::chrono::milliseconds patience);

  // Around fork, on the thread that forks. The child has neither the thread nor a right to lines that its parent will
  // write.
  void BeforeFork() MIVO_ACQUIRE(mutex_) { mutex_.lock(); }
  void AfterForkInParent() MIVO_RELEASE(mutex_) { mutex_.unlock(); }
  void AfterForkInChild() MIVO_RELEASE(mutex_);

 private:
  void WriteWaiting() MIVO_REQUIRES(mutex_);
  void Add(std::string_view text) MIVO_REQUIRES(mutex_);
  std::optional<std::string> TakeNext() MIVO_REQUIRES(mutex_);
  bool IsEmpty() const MIVO_REQUIRES(mutex_) { return lines_.empty() && lost_ == 0; }
  void StartThread() MIVO_REQUIRES(mutex_);

  // The thread.
  void Drain();
  std::optional<std::string> TakeNextOrEnd();

  Mutex mutex_;
  Condition drained_;
  std::deque<std::string> lines_ MIVO_GUARDED_BY(mutex_);
  std::size_t bytes_ MIVO_GUARDED_BY(mutex_) = 0;
  std::int64_t lost_ MIVO_GUARDED_BY(mutex_) = 0;
  bool has_thread_ MIVO_GUARDED_BY(mutex_) = false;
};

}  // namespace mivo

#endif  // MIVO_BASE_LINE_QUEUE_H_
