#include "rpc/loop_queue.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <utility>

namespace mivo {
namespace rpc {

LoopQueue::LoopQueue() : event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

LoopQueue::~LoopQueue() {
  if (event_ >= 0) ::close(event_);
}

void LoopQueue::Push(Task* task) {
  std::unique_ptr<Task> owned(task);
  MutexLock lock(mutex_);
  if (has_ended_) return;
  tasks_.push_back(std::move(owned));
  const std::uint64_t one = 1;
  // A full counter is readable already.
  [[maybe_unused]] const ssize_t written = ::write(event_, &one, sizeof one);
}

std::size_t LoopQueue::Drain() {
  Tasks tasks;
  {
    MutexLock lock(mutex_);
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t taken = ::read(event_, &count, sizeof count);
    tasks.swap(tasks_);
  }
  const std::size_t count = tasks.size();
  while (!tasks.empty()) {
    const std::unique_ptr<Task> task = std::move(tasks.front());
    tasks.pop_front();
    task->Run();
  }
  return count;
}

void LoopQueue::End() {
  Tasks dropped;
  MutexLock lock(mutex_);
  has_ended_ = true;
  dropped.swap(tasks_);
}

QueueOrError CreateLoopQueue() {
  auto queue = std::make_unique<LoopQueue>();
  if (queue->descriptor() < 0) return {nullptr, errno};
  return {queue.release(), 0};
}

}  // namespace rpc
}  // namespace mivo
