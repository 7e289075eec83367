// A waiter that a test waits for.
#ifndef MIVO_TESTS_UNIT_TEST_WAITER_H_
#define MIVO_TESTS_UNIT_TEST_WAITER_H_

#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <string>
#include <utility>

#include "base/one_shot.h"
#include "calls/waiters.h"

namespace mivo {

// Says once what it was woken with.
class TestWaiter : public Waiter {
 public:
  using Waiter::Waiter;

  // Returns when it was woken.
  std::optional<std::string> Wait() {
    woken_.Wait();
    EXPECT_EQ(times_woken_, 1);
    return reply_;
  }
  int times_woken() const { return times_woken_; }

 private:
  void OnWoken(std::optional<std::string> reply) override {
    if (++times_woken_ > 1) return;
    reply_ = std::move(reply);
    woken_.Set();
  }

  OneShot woken_;
  std::atomic<int> times_woken_{0};
  std::optional<std::string> reply_;
};

}  // namespace mivo

#endif  // MIVO_TESTS_UNIT_TEST_WAITER_H_
