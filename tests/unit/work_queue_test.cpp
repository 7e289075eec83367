#include "loop/work_queue.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/one_shot.h"
#include "unit/test_loop.h"

namespace mivo {
namespace {

class FunctionWork : public Work {
 public:
  FunctionWork(std::function<void()> run, std::function<void()> finish, std::function<void()> end = nullptr)
      : run_(std::move(run)), finish_(std::move(finish)), end_(std::move(end)) {}
  ~FunctionWork() override {
    if (end_) end_();
  }
  FunctionWork(const FunctionWork&) = delete;
  FunctionWork& operator=(const FunctionWork&) = delete;

  void Run() override { run_(); }
  void Finish() override { finish_(); }

 private:
  const std::function<void()> run_;
  const std::function<void()> finish_;
  const std::function<void()> end_;
};

TEST(WorkQueue, RunsOnAnotherThreadFinishesOnTheLoopAndThenEnds) {
  TestLoop loop;
  WorkQueue queue;
  std::vector<std::string> journal;
  std::thread::id ran_on;
  bool finished_here = false;
  bool idle_in_finish = true;
  EXPECT_TRUE(queue.IsIdle());
  queue.Queue(loop.uv(), std::make_unique<FunctionWork>(
                             [&] {
                               ran_on = std::this_thread::get_id();
                               journal.emplace_back("run");
                             },
                             [&] {
                               finished_here = loop.InThread();
                               idle_in_finish = queue.IsIdle();
                               journal.emplace_back("finish");
                             },
                             [&] { journal.emplace_back("end"); }));
  EXPECT_FALSE(queue.IsIdle());
  // The loop does not stop before the job is finished.
  loop.Run();
  EXPECT_EQ(journal, (std::vector<std::string>{"run", "finish", "end"}));
  EXPECT_NE(ran_on, std::this_thread::get_id());
  EXPECT_TRUE(finished_here);
  EXPECT_FALSE(idle_in_finish);
  EXPECT_TRUE(queue.IsIdle());
}

TEST(WorkQueue, RunsSeveralJobsAtATime) {
  TestLoop loop;
  WorkQueue queue;
  OneShot first_runs;
  OneShot second_runs;
  int finished = 0;
  const auto finish = [&] { ++finished; };
  // Each waits for the other to be running.
  queue.Queue(loop.uv(), std::make_unique<FunctionWork>(
                             [&] {
                               first_runs.Set();
                               second_runs.Wait();
                             },
                             finish));
  queue.Queue(loop.uv(), std::make_unique<FunctionWork>(
                             [&] {
                               second_runs.Set();
                               first_runs.Wait();
                             },
                             finish));
  loop.Run();
  EXPECT_EQ(finished, 2);
}

TEST(WorkQueue, IsIdleOnlyWhenTheLastJobHasFinished) {
  TestLoop loop;
  constexpr int kJobs = 20;
  WorkQueue queue;
  int finished = 0;
  for (int i = 0; i < kJobs; ++i) {
    queue.Queue(loop.uv(), std::make_unique<FunctionWork>([] {}, [&] { ++finished; }));
  }
  EXPECT_TRUE(loop.RunUntil([&] {
    EXPECT_EQ(queue.IsIdle(), finished == kJobs);
    return queue.IsIdle();
  }));
}

TEST(WorkQueue, TakesAJobFromTheFinishOfAnother) {
  TestLoop loop;
  WorkQueue queue;
  bool second_finished = false;
  queue.Queue(
      loop.uv(),
      std::make_unique<FunctionWork>(
          [] {},
          [&] { queue.Queue(loop.uv(), std::make_unique<FunctionWork>([] {}, [&] { second_finished = true; })); }));
  loop.Run();
  EXPECT_TRUE(second_finished);
  EXPECT_TRUE(queue.IsIdle());
}

}  // namespace
}  // namespace mivo
