#include "base/line_queue.h"

#include <pthread.h>
#include <csignal>

#include <new>
#include <utility>

#include "base/counted_lines.h"
#include "base/library_thread.h"
#include "base/stdout_attempt.h"

namespace mivo {

void LineQueue::Write(std::string_view text) {
  MutexLock lock(mutex_);
  try {
    // The thread has a line in its hands that is not among those that wait.
    if (!has_thread_) {
      WriteWaiting();
      if (IsEmpty()) text.remove_prefix(WriteAsFarAsItGoes(text, Patience::kNone));
    }
    if (!text.empty()) Add(text);
    if (!IsEmpty() && !has_thread_) StartThread();
  } catch (const std::bad_alloc&) {
    // As good as full.
    ++lost_;
  }
}

// Only where no thread could be had.
void LineQueue::WriteWaiting() {
  while (std::optional<std::string> line = TakeNext()) {
    line->erase(0, WriteAsFarAsItGoes(*line, Patience::kNone));
    if (line->empty()) continue;
    bytes_ += line->size();
    lines_.push_front(*std::move(line));
    return;
  }
}

void LineQueue::Add(std::string_view text) {
  // Once one is lost all are, until the count can be written in their place.
  if (lost_ != 0 || lines_.size() >= kMaxLines || bytes_ + text.size() > kMaxBytes) {
    ++lost_;
    return;
  }
  lines_.emplace_back(text);
  bytes_ += text.size();
}

std::optional<std::string> LineQueue::TakeNext() {
  if (lines_.empty()) {
    if (lost_ == 0) return std::nullopt;
    std::optional<std::string> count = CountedLines(lost_, "lost");
    lost_ = 0;
    return count;
  }
  std::optional<std::string> line = std::move(lines_.front());
  lines_.pop_front();
  bytes_ -= line->size();
  return line;
}

void LineQueue::StartThread() {
  // No signal of the program's is handled on a thread that it does not know of.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  has_thread_ = RunDetached("mivo-lines", [this] { Drain(); });
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void LineQueue::Drain() {
  while (const std::optional<std::string> line = TakeNextOrEnd()) {
    std::string_view text = *line;
    for (;;) {
      text.remove_prefix(WriteAsFarAsItGoes(text, Patience::kSome));
      if (text.empty()) break;
      AwaitRoomOnStdout();
    }
  }
}

std::optional<std::string> LineQueue::TakeNextOrEnd() {
  MutexLock lock(mutex_);
  std::optional<std::string> line;
  try {
    line = TakeNext();
  } catch (const std::bad_alloc&) {
    // Left to whoever writes next.
  }
  if (!line) {
    has_thread_ = false;
    drained_.NotifyAll();
  }
  return line;
}

void LineQueue::AwaitEmpty(std::chrono::milliseconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  MutexLock lock(mutex_);
  while (has_thread_ && drained_.WaitUntil(mutex_, deadline)) {
  }
}

void LineQueue::AfterForkInChild() {
  lines_.clear();
  bytes_ = 0;
  lost_ = 0;
  has_thread_ = false;
  // Its waiters are threads of the parent's; it would wait for them.
  new (&drained_) Condition;
  mutex_.unlock();
}

}  // namespace mivo
