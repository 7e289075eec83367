// What the pool runs, and for whom.
#ifndef MIVO_POOL_JOB_H_
#define MIVO_POOL_JOB_H_

#include <cstddef>
#include <memory>
#include <utility>

#include "base/mutex.h"

namespace mivo {

// The jobs of one owner. The owner outlives them: it waits here until none is left.
class JobGroup {
 public:
  JobGroup() = default;
  JobGroup(const JobGroup&) = delete;
  JobGroup& operator=(const JobGroup&) = delete;

  // Any thread. Whether no job is queued or running.
  bool IsIdle() {
    MutexLock lock(mutex_);
    return unfinished_ == 0;
  }

  int count() {
    MutexLock lock(mutex_);
    return unfinished_;
  }

  // Not in one of its own jobs.
  void WaitUntilIdle() {
    MutexLock lock(mutex_);
    while (unfinished_ != 0)
      idle_.Wait(mutex_);
  }

 private:
  friend class Job;

  void Enter() {
    MutexLock lock(mutex_);
    ++unfinished_;
  }
  void Leave() {
    MutexLock lock(mutex_);
    if (--unfinished_ == 0) idle_.NotifyAll();
  }

  Mutex mutex_;
  Condition idle_;
  int unfinished_ MIVO_GUARDED_BY(mutex_) = 0;
};

// Something to be done on a pool thread. Destroyed when it was done, or when it was dropped before; counts among the
// jobs of its group until it is destroyed.
class Job {
 public:
  // Jobs of one kind are taken to last about as long as each other.
  explicit Job(JobGroup& group, std::size_t kind = 0) : group_(group), kind_(kind) { group_.Enter(); }
  // What a job holds of its owner has to be gone before the owner may believe that nothing is left: a derived class
  // gives it up in its own destructor, which runs first.
  virtual ~Job() { group_.Leave(); }
  Job(const Job&) = delete;
  Job& operator=(const Job&) = delete;

  // On a pool thread; several jobs at a time.
  virtual void Run() = 0;

  // The same thread, right after Run: sends what Run came to. Apart from it, for the pool judges by the time that Run
  // takes whether somebody else should read meanwhile, and to send may mean to give the processor to the one who waits.
  virtual void Finish() {}

  bool IsOf(const JobGroup& group) const { return &group_ == &group; }
  std::size_t kind() const { return kind_; }

 private:
  friend class Jobs;

  JobGroup& group_;
  const std::size_t kind_;
  Job* next_ = nullptr;  // in a list of jobs
};

// A list of jobs, first in, first out. To list one costs no memory, so it cannot fail.
class Jobs {
 public:
  Jobs() = default;
  Jobs(Jobs&& other) noexcept
      : first_(std::exchange(other.first_, nullptr)), last_(std::exchange(other.last_, nullptr)) {}
  ~Jobs() {
    while (!empty())
      Pop();
  }
  Jobs(const Jobs&) = delete;
  Jobs& operator=(const Jobs&) = delete;

  bool empty() const { return first_ == nullptr; }

  void Push(std::unique_ptr<Job> job) {
    Job* const added = job.release();
    (last_ == nullptr ? first_ : last_->next_) = added;
    last_ = added;
  }

  // Only where there is one.
  std::unique_ptr<Job> Pop() {
    std::unique_ptr<Job> job(first_);
    first_ = std::exchange(job->next_, nullptr);
    if (first_ == nullptr) last_ = nullptr;
    return job;
  }

  // Puts all of `other` behind.
  void Append(Jobs& other) {
    if (other.empty()) return;
    (last_ == nullptr ? first_ : last_->next_) = std::exchange(other.first_, nullptr);
    last_ = std::exchange(other.last_, nullptr);
  }

  // Takes out those of one group.
  Jobs TakeOf(const JobGroup& group) {
    Jobs all;
    all.Append(*this);
    Jobs taken;
    while (!all.empty()) {
      std::unique_ptr<Job> job = all.Pop();
      (job->IsOf(group) ? taken : *this).Push(std::move(job));
    }
    return taken;
  }

 private:
  Job* first_ = nullptr;
  Job* last_ = nullptr;
};

}  // namespace mivo

#endif  // MIVO_POOL_JOB_H_
