#include "pool/job.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <memory>
#include <utility>
#include <vector>

#include "support/background.h"
#include "support/thread_state.h"

namespace mivo {
namespace {

// Tells when it ends, in its group still.
class NumberedJob : public Job {
 public:
  NumberedJob(JobGroup& group, int its_number, std::vector<int>* ended)
      : Job(group), number(its_number), ended_(ended) {}
  ~NumberedJob() override { ended_->push_back(number); }
  NumberedJob(const NumberedJob&) = delete;
  NumberedJob& operator=(const NumberedJob&) = delete;
  void Run() override {}

  const int number;

 private:
  std::vector<int>* const ended_;
};

class JobsTest : public testing::Test {
 protected:
  std::unique_ptr<Job> Make(int number, JobGroup& of) { return std::make_unique<NumberedJob>(of, number, &ended); }
  Jobs Make(std::initializer_list<int> numbers) {
    Jobs jobs;
    for (const int number : numbers)
      jobs.Push(Make(number, group));
    return jobs;
  }
  static std::vector<int> TakeAll(Jobs& jobs) {
    std::vector<int> numbers;
    while (!jobs.empty())
      numbers.push_back(static_cast<const NumberedJob&>(*jobs.Pop()).number);
    return numbers;
  }

  JobGroup group;
  std::vector<int> ended;
};

using Numbers = std::vector<int>;

TEST_F(JobsTest, ComeOutInTheirOrder) {
  Jobs jobs;
  EXPECT_TRUE(jobs.empty());
  jobs.Push(Make(1, group));
  jobs.Push(Make(2, group));
  EXPECT_FALSE(jobs.empty());
  EXPECT_EQ(static_cast<const NumberedJob&>(*jobs.Pop()).number, 1);
  jobs.Push(Make(3, group));
  EXPECT_EQ(TakeAll(jobs), (Numbers{2, 3}));
  jobs.Push(Make(4, group));
  EXPECT_EQ(TakeAll(jobs), Numbers{4});
}

TEST_F(JobsTest, AreAppendedBehindOthers) {
  Jobs jobs = Make({1, 2});
  Jobs more = Make({3, 4});
  Jobs none;
  jobs.Append(none);
  jobs.Append(more);
  EXPECT_TRUE(more.empty());
  none.Append(jobs);
  EXPECT_TRUE(jobs.empty());
  none.Push(Make(5, group));
  more.Push(Make(6, group));
  none.Append(more);
  EXPECT_EQ(TakeAll(none), (Numbers{1, 2, 3, 4, 5, 6}));
}

TEST_F(JobsTest, AreMoved) {
  Jobs jobs = Make({1, 2});
  Jobs moved(std::move(jobs));
  moved.Push(Make(3, group));
  EXPECT_EQ(TakeAll(moved), (Numbers{1, 2, 3}));
}

TEST_F(JobsTest, AreTakenByTheirGroup) {
  JobGroup other;
  Jobs jobs;
  for (const int number : {1, 2, 3, 4, 5})
    jobs.Push(Make(number, number % 2 == 0 ? other : group));
  Jobs taken = jobs.TakeOf(other);
  jobs.Push(Make(6, group));
  EXPECT_EQ(TakeAll(taken), (Numbers{2, 4}));
  EXPECT_EQ(TakeAll(jobs), (Numbers{1, 3, 5, 6}));
  Jobs nothing = jobs.TakeOf(group);
  EXPECT_TRUE(nothing.empty());
}

TEST_F(JobsTest, EndWithTheirList) {
  {
    const Jobs jobs = Make({1, 2, 3});
    EXPECT_FALSE(group.IsIdle());
  }
  EXPECT_EQ(ended, (Numbers{1, 2, 3}));
  EXPECT_TRUE(group.IsIdle());
}

TEST_F(JobsTest, CountInTheirGroupUntilTheyAreGone) {
  EXPECT_TRUE(group.IsIdle());
  std::unique_ptr<Job> one = Make(1, group);
  std::unique_ptr<Job> two = Make(2, group);
  EXPECT_TRUE(one->IsOf(group));
  one->Run();
  EXPECT_FALSE(group.IsIdle());
  one.reset();
  EXPECT_FALSE(group.IsIdle());
  two.reset();
  EXPECT_TRUE(group.IsIdle());
  group.WaitUntilIdle();
}

TEST_F(JobsTest, AreWaitedForByTheirOwner) {
  std::unique_ptr<Job> one = Make(1, group);
  std::unique_ptr<Job> two = Make(2, group);
  bool had_ended = false;
  mivo_test::Background<bool> owner([&] {
    group.WaitUntilIdle();
    had_ended = ended.size() == 2;
    return true;
  });
  EXPECT_TRUE(mivo_test::WaitUntilAsleep(owner.thread_id()));
  one.reset();
  EXPECT_TRUE(mivo_test::WaitUntilAsleep(owner.thread_id()));
  EXPECT_FALSE(owner.IsDone());
  two.reset();
  EXPECT_TRUE(owner.WaitFor());
  owner.Get();
  EXPECT_TRUE(had_ended);
}

}  // namespace
}  // namespace mivo
