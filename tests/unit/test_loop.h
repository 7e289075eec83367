// A loop whose thread is the test itself.
#ifndef MIVO_TESTS_UNIT_TEST_LOOP_H_
#define MIVO_TESTS_UNIT_TEST_LOOP_H_

#include <functional>
#include <optional>
#include <stdexcept>

#include "loop/event_loop.h"
#include "loop/timer.h"
#include "support/event.h"

namespace mivo {

// Open from construction to destruction. A handle that a test has left open makes the destruction wait for ever, or
// fail.
class TestLoop : public EventLoop {
 public:
  TestLoop() {
    if (Open() != 0) throw std::runtime_error("no loop");
    scope_.emplace(*this);
  }
  ~TestLoop() {
    Close();
    scope_.reset();
  }
  TestLoop(const TestLoop&) = delete;
  TestLoop& operator=(const TestLoop&) = delete;

  // Runs until nothing is left that could happen, and takes no more tasks.
  void RunOut() {
    Shut();
    Run();
  }

  // Runs until `done` holds, also where no event of the loop tells; false when that takes too long.
  bool RunUntil(const std::function<bool()>& done) {
    const mivo_test::Stopwatch watch;
    bool is_late = false;
    Timer look;
    look.Start(uv(), 5, 5, [&] { is_late = watch.ElapsedMs() > mivo_test::kPatience.count(); });
    while (!is_late && !done())
      uv_run(uv(), UV_RUN_ONCE);
    look.Close();
    return done();
  }

 private:
  std::optional<ThreadScope> scope_;
};

}  // namespace mivo

#endif  // MIVO_TESTS_UNIT_TEST_LOOP_H_
