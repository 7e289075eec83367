// Jobs that run on libuv's work pool and end on the loop thread.
#ifndef MIVO_LOOP_WORK_QUEUE_H_
#define MIVO_LOOP_WORK_QUEUE_H_

#include <uv.h>

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

// Loop thread. A loop does not stop running while jobs of its are under way, so each of them is finished.
class WorkQueue {
 public:
  void Queue(uv_loop_t* loop, std::unique_ptr<Work> work);

  // Whether every job has finished.
  bool IsIdle() const { return under_way_ == 0; }

 private:
  struct Job;

  int under_way_ = 0;
};

}  // namespace mivo

#endif  // MIVO_LOOP_WORK_QUEUE_H_
