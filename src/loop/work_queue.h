// Jobs that run on libuv's work pool and end on the loop thread.
#ifndef MIVO_LOOP_WORK_QUEUE_H_
#define MIVO_LOOP_WORK_QUEUE_H_

#include <uv.h>

#include <list>
#include <memory>

namespace mivo {

class Work {
 public:
  virtual ~Work() = default;

  // On a pool thread; several jobs run at a time, in no fixed order.
  virtual void Run() = 0;

  // On the loop thread, after Run. The job is destroyed right afterwards.
  virtual void Finish() = 0;
};

// Loop thread. A loop does not stop running while jobs of its are under way, so this queue outlives them.
class WorkQueue {
 public:
  // Once the process is past main and the static objects, there is no pool: the job is dropped.
  void Queue(uv_loop_t* loop, std::unique_ptr<Work> work);

  // Drops the jobs that no pool thread has begun: they neither run nor finish. Whoever waits for the loop's end may
  // itself be on the pool, and then a job that waits for a free thread waits for him.
  void DropWaiting();

  // Whether no job is left.
  bool IsIdle() const { return jobs_.empty(); }

 private:
  struct Job {
    uv_work_t request{};
    WorkQueue* queue = nullptr;
    std::unique_ptr<Work> work;
    std::list<Job>::iterator self;
  };

  static void OnDone(uv_work_t* request, int status);

  std::list<Job> jobs_;  // libuv knows their addresses
};

}  // namespace mivo

#endif  // MIVO_LOOP_WORK_QUEUE_H_
