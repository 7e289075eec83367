// A thread that runs what it is given, one after the other.
#ifndef MIVO_RPC_SERIAL_QUEUE_H_
#define MIVO_RPC_SERIAL_QUEUE_H_

#include <mivo/rpc/task_queue.h>

#include <deque>
#include <memory>
#include <thread>

#include "base/mutex.h"

namespace mivo {
namespace rpc {

class SerialQueue final : public Queue {
 public:
  SerialQueue();
  ~SerialQueue() override;

  void Push(Task* task) override;
  std::size_t Drain() override { return 0; }
  int descriptor() const override { return -1; }
  void End() override;

 private:
  void Run();

  Mutex mutex_;
  Condition wake_;
  std::deque<std::unique_ptr<Task>> tasks_ MIVO_GUARDED_BY(mutex_);
  bool has_ended_ MIVO_GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_SERIAL_QUEUE_H_
