#include "loop/hand_over.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "support/uv_faults.h"
#include "unit/test_loop.h"

namespace mivo {
namespace {

TEST(HandOver, RefusesWhatComesBeforeItIsOpenAndAfterItWasClosed) {
  TestLoop loop;
  HandOver<int> queue;
  EXPECT_FALSE(queue.Push(1));
  std::vector<int> drained;
  ASSERT_EQ(queue.Open(loop.uv(), [&](std::vector<int> items) { drained = std::move(items); }), 0);
  EXPECT_TRUE(queue.Push(2));
  EXPECT_EQ(queue.Close(), std::vector<int>{2});
  EXPECT_FALSE(queue.Push(3));
  EXPECT_TRUE(queue.Close().empty());
  loop.Run();
  EXPECT_TRUE(drained.empty());
}

TEST(HandOver, HandsOnInOrderAndAllThatIsThereAtOnce) {
  TestLoop loop;
  HandOver<int> queue;
  std::vector<std::vector<int>> drained;
  ASSERT_EQ(queue.Open(loop.uv(), [&](std::vector<int> items) { drained.push_back(std::move(items)); }), 0);
  std::thread([&] {
    for (int i = 1; i <= 3; ++i)
      EXPECT_TRUE(queue.Push(i));
  }).join();
  EXPECT_TRUE(loop.RunUntil([&] { return !drained.empty(); }));
  queue.Push(4);
  EXPECT_TRUE(loop.RunUntil([&] { return drained.size() == 2; }));
  EXPECT_EQ(drained, (std::vector<std::vector<int>>{{1, 2, 3}, {4}}));
  EXPECT_TRUE(queue.Close().empty());
}

TEST(HandOver, DrainsAtOnceWhenAskedAndNotAgain) {
  TestLoop loop;
  HandOver<int> queue;
  int drains = 0;
  std::vector<int> drained;
  ASSERT_EQ(queue.Open(loop.uv(),
                       [&](std::vector<int> items) {
                         ++drains;
                         drained = std::move(items);
                       }),
            0);
  queue.DrainNow();
  EXPECT_EQ(drains, 0);
  queue.Push(1);
  queue.Push(2);
  queue.DrainNow();
  EXPECT_EQ(drained, (std::vector<int>{1, 2}));
  // The wake-up that the pushes asked for finds nothing left.
  uv_run(loop.uv(), UV_RUN_ONCE);
  EXPECT_EQ(drains, 1);
  queue.Close();
}

TEST(HandOver, TakesWhatIsPushedWhileItDrains) {
  TestLoop loop;
  HandOver<int> queue;
  std::vector<int> drained;
  ASSERT_EQ(queue.Open(loop.uv(),
                       [&](std::vector<int> items) {
                         for (const int item : items) {
                           drained.push_back(item);
                           if (item < 3) queue.Push(item + 1);
                         }
                       }),
            0);
  queue.Push(1);
  EXPECT_TRUE(loop.RunUntil([&] { return drained.size() == 3; }));
  EXPECT_EQ(drained, (std::vector<int>{1, 2, 3}));
  queue.Close();
}

TEST(HandOver, CarriesWhatCanOnlyBeMoved) {
  TestLoop loop;
  HandOver<std::unique_ptr<int>> queue;
  int sum = 0;
  ASSERT_EQ(queue.Open(loop.uv(),
                       [&](std::vector<std::unique_ptr<int>> items) {
                         for (const auto& item : items)
                           sum += *item;
                       }),
            0);
  queue.Push(std::make_unique<int>(5));
  queue.DrainNow();
  EXPECT_EQ(sum, 5);
  queue.Push(std::make_unique<int>(6));
  const std::vector<std::unique_ptr<int>> rest = queue.Close();
  ASSERT_EQ(rest.size(), 1U);
  EXPECT_EQ(*rest.front(), 6);
}

TEST(HandOver, IsClosedWhenItCannotBeOpened) {
  TestLoop loop;
  HandOver<int> queue;
  {
    const mivo_test::ScopedFault fault(mivo_test::Fault::kAsyncInit, 1, 1, UV_ENOMEM);
    EXPECT_EQ(queue.Open(loop.uv(), [](std::vector<int>) {}), UV_ENOMEM);
  }
  EXPECT_FALSE(queue.Push(1));
  EXPECT_TRUE(queue.Close().empty());
}

TEST(HandOver, KeepsTheOrderOfEachThread) {
  TestLoop loop;
  constexpr int kThreads = 4;
  constexpr int kEach = 500;
  HandOver<std::pair<int, int>> queue;
  std::vector<int> last(kThreads, -1);
  int received = 0;
  bool in_order = true;
  ASSERT_EQ(queue.Open(loop.uv(),
                       [&](std::vector<std::pair<int, int>> items) {
                         for (const auto& [thread, number] : items) {
                           in_order = in_order && number == last[static_cast<std::size_t>(thread)] + 1;
                           last[static_cast<std::size_t>(thread)] = number;
                           ++received;
                         }
                       }),
            0);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&queue, thread] {
      for (int number = 0; number < kEach; ++number)
        queue.Push({thread, number});
    });
  }
  EXPECT_TRUE(loop.RunUntil([&] { return received == kThreads * kEach; }));
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_TRUE(in_order);
  queue.Close();
}

TEST(HandOver, LosesNothingThatItTookWhileItWasClosed) {
  TestLoop loop;
  for (int round = 0; round < 50; ++round) {
    HandOver<int> queue;
    int handed_on = 0;
    ASSERT_EQ(queue.Open(loop.uv(), [&](std::vector<int> items) { handed_on += static_cast<int>(items.size()); }), 0);
    std::atomic<int> taken{0};
    std::vector<std::thread> pushers;
    for (int i = 0; i < 3; ++i) {
      pushers.emplace_back([&] {
        while (queue.Push(1)) {
          ++taken;
          std::this_thread::yield();  // on one processor the loop would hardly get a turn
        }
      });
    }
    EXPECT_TRUE(loop.RunUntil([&] { return handed_on > 0; }));
    const int came_back = static_cast<int>(queue.Close().size());
    for (std::thread& pusher : pushers)
      pusher.join();
    EXPECT_EQ(handed_on + came_back, taken);
  }
}

}  // namespace
}  // namespace mivo
