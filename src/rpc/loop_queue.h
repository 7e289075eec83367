// What waits for a thread of the application's.
#ifndef MIVO_RPC_LOOP_QUEUE_H_
#define MIVO_RPC_LOOP_QUEUE_H_

#include <mivo/rpc/task_queue.h>

#include <deque>
#include <memory>

#include "base/mutex.h"

namespace mivo {
namespace rpc {

class LoopQueue final : public Queue {
 public:
  // Without a descriptor if there is none to be had: errno says why.
  LoopQueue();
  LoopQueue(const LoopQueue&) = delete;
  LoopQueue& operator=(const LoopQueue&) = delete;
  ~LoopQueue() override;

  void Push(Task* task) override;
  std::size_t Drain() override;
  int descriptor() const override { return event_; }
  void End() override;

 private:
  using Tasks = std::deque<std::unique_ptr<Task>>;

  const int event_;
  Mutex mutex_;
  Tasks tasks_ MIVO_GUARDED_BY(mutex_);
  bool has_ended_ MIVO_GUARDED_BY(mutex_) = false;
};

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_LOOP_QUEUE_H_
