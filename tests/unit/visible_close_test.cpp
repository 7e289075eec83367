// The tests' own ground: what ThreadSanitizer would take for a race although nobody races.
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <uv.h>

#include <atomic>
#include <thread>

namespace {

// The descriptor numbers that a loop takes: the next ones to be given out.
int NextDescriptor() {
  const int next = eventfd(0, EFD_CLOEXEC);
  close(next);
  return next;
}

void OpenAndCloseALoop() {
  uv_loop_t loop;
  ASSERT_EQ(uv_loop_init(&loop), 0);
  ASSERT_EQ(uv_loop_close(&loop), 0);
}

TEST(VisibleClose, DescriptorsOfAClosedLoopMayComeBackInAnotherThread) {
  // The second thread starts after the first has ended, by a flag that orders nothing else.
  std::atomic<bool> first_is_done{false};
  const int before = NextDescriptor();
  std::thread second([&] {
    while (!first_is_done.load(std::memory_order_relaxed))
      std::this_thread::yield();
    OpenAndCloseALoop();
  });
  std::thread first([&] {
    OpenAndCloseALoop();
    first_is_done.store(true, std::memory_order_relaxed);
  });
  first.join();
  second.join();
  EXPECT_EQ(NextDescriptor(), before) << "a loop has left a descriptor open";
}

}  // namespace
