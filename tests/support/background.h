// Something that is done on a thread of its own.
#ifndef MIVO_TESTS_SUPPORT_BACKGROUND_H_
#define MIVO_TESTS_SUPPORT_BACKGROUND_H_

#include "support/event.h"
#include "support/thread_id.h"

#include <chrono>
#include <thread>
#include <utility>

namespace mivo_test {

// Runs the function on a thread of its own. Destroyed, it waits for the end.
template <typename Result>
class Background {
 public:
  template <typename Function>
  explicit Background(Function function)
      : thread_([this, function = std::move(function)] {
          thread_id_ = ThreadId();
          started_.Signal();
          const Stopwatch watch;
          result_ = function();
          elapsed_ms_ = watch.ElapsedMs();
          done_.Signal();
        }) {
    started_.WaitFor();
  }
  Background(const Background&) = delete;
  Background& operator=(const Background&) = delete;
  ~Background() { Join(); }

  int thread_id() const { return thread_id_; }
  bool IsDone() { return done_.count() > 0; }
  bool WaitFor(std::chrono::milliseconds patience = kPatience) { return done_.WaitFor(1, patience); }

  // Wait for the end.
  Result& Get() {
    Join();
    return result_;
  }
  long long ElapsedMs() {
    Join();
    return elapsed_ms_;
  }

 private:
  void Join() {
    if (thread_.joinable()) thread_.join();
  }

  Event started_;
  Event done_;
  int thread_id_ = 0;
  Result result_{};
  long long elapsed_ms_ = 0;
  std::thread thread_;
};

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_BACKGROUND_H_
