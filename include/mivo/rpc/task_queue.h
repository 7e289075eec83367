// What stands behind Serial and Loop: tasks in their order, for one thread at a time.
#ifndef MIVO_RPC_TASK_QUEUE_H_
#define MIVO_RPC_TASK_QUEUE_H_

#include <mivo/export.h>

#include <cstddef>

namespace mivo {
namespace rpc {

// Something to be done for a request. Nothing of it throws.
class MIVO_EXPORT Task {
 public:
  virtual ~Task() = default;
  virtual void Run() = 0;
};

// Runs tasks, on a thread of its own or on that of whoever drains it.
class MIVO_EXPORT Queue {
 public:
  virtual ~Queue() = default;
  // Any thread. Takes the task, and deletes it once it has run, or cannot run any more.
  virtual void Push(Task* task) = 0;
  // Runs what waits, on this thread; how many they were. Of one with a thread of its own: none.
  virtual std::size_t Drain() = 0;
  // Readable while something waits for Drain; -1 if nothing ever does.
  virtual int descriptor() const = 0;
  // Nothing is taken any more. One with a thread runs what waits, and waits for it unless this is that thread; another
  // drops it.
  virtual void End() = 0;
};

// Without a queue if there is no thread, or no descriptor, to be had.
struct QueueOrError {
  Queue* queue;
  int error;  // an errno
};
MIVO_EXPORT QueueOrError CreateSerialQueue();
MIVO_EXPORT QueueOrError CreateLoopQueue();

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_TASK_QUEUE_H_
