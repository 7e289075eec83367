#include "rpc/serial_queue.h"

#include <system_error>
#include <utility>

namespace mivo {
namespace rpc {

SerialQueue::SerialQueue() : thread_([this] { Run(); }) {}

SerialQueue::~SerialQueue() {
  // The last handler that knew of this may be gone on the thread itself.
  if (thread_.joinable()) thread_.detach();
}

void SerialQueue::Push(Task* task) {
  std::unique_ptr<Task> owned(task);
  MutexLock lock(mutex_);
  if (has_ended_) return;
  tasks_.push_back(std::move(owned));
  wake_.NotifyOne();
}

void SerialQueue::End() {
  {
    MutexLock lock(mutex_);
    has_ended_ = true;
    wake_.NotifyOne();
  }
  if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
}

void SerialQueue::Run() {
  mutex_.lock();
  for (;;) {
    while (!has_ended_ && tasks_.empty())
      wake_.Wait(mutex_);
    if (tasks_.empty()) break;
    std::unique_ptr<Task> task = std::move(tasks_.front());
    tasks_.pop_front();
    mutex_.unlock();
    task->Run();
    task.reset();
    mutex_.lock();
  }
  mutex_.unlock();
}

QueueOrError CreateSerialQueue() {
  try {
    return {new SerialQueue, 0};
  } catch (const std::system_error& error) {
    return {nullptr, error.code().value()};
  }
}

}  // namespace rpc
}  // namespace mivo
