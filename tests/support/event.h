// A counting event for tests: handlers signal it on any thread, the test waits for it with a bound.
#ifndef MIVO_TESTS_SUPPORT_EVENT_H_
#define MIVO_TESTS_SUPPORT_EVENT_H_

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace mivo_test {

// How long a test waits for something that is going to happen. Only a failing test waits this long; it is generous
// because sanitizers and a busy machine slow everything down.
constexpr std::chrono::milliseconds kPatience{45000};

class Event {
 public:
  void Signal() {
    // Notified under the lock: a waiter may destroy the event as soon as it has seen the count.
    std::lock_guard<std::mutex> lock(mutex_);
    ++count_;
    signalled_.notify_all();
  }

  // True once Signal was called `count` times in all.
  bool WaitFor(int count = 1, std::chrono::milliseconds patience = kPatience) {
    std::unique_lock<std::mutex> lock(mutex_);
    return signalled_.wait_until(lock, std::chrono::system_clock::now() + patience, [&] { return count_ >= count; });
  }

  int count() {
    std::lock_guard<std::mutex> lock(mutex_);
    return count_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable signalled_;
  int count_ = 0;
};

// For conditions nobody signals: looks every few milliseconds until it holds.
template <typename Condition>
bool Eventually(Condition condition, std::chrono::milliseconds patience = kPatience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return condition();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// Milliseconds since construction, on a clock that does not jump.
class Stopwatch {
 public:
  long long ElapsedMs() const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start_).count();
  }

 private:
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_EVENT_H_
