// Handlers on the application's own threads.
//
//     mivo::Serial in_order;                       // one thread, one after the other
//     server.on("append", in_order([&](std::string line) { log.push_back(line); }));
//
//     mivo::Loop loop;                             // whatever thread calls drain()
//     server.on("show", loop([&](std::string text) { window.show(text); }));
//     poll(loop.descriptor()); loop.drain();
//
// No thread of the library's pool waits for such a handler. What arrives by SendMsgEx is the exception: there one does.
#ifndef MIVO_RPC_QUEUE_H_
#define MIVO_RPC_QUEUE_H_

#include <mivo/rpc/process.h>
#include <mivo/rpc/signature.h>

#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace mivo {
namespace rpc {

// Takes work for a thread. Any thread pushes.
class Queue {
 public:
  virtual ~Queue() = default;
  // False: nothing will run any more, and `task` is not kept.
  virtual bool Push(std::function<void()> task) = 0;
};

// A function that runs where its queue says.
template <class Function>
struct Queued {
  std::shared_ptr<Queue> queue;
  Function function;
};
template <class Function>
struct Signature<Queued<Function>, void> : Signature<Function> {};

class SerialQueue final : public Queue {
 public:
  const ProcessMark process;

  SerialQueue() : thread_([this] { Run(); }) {}
  ~SerialQueue() override {
    // The last handler that knew of this may be gone on the thread itself.
    if (thread_.joinable()) thread_.detach();
  }

  bool Push(std::function<void()> task) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (has_ended_) return false;
    tasks_.push_back(std::move(task));
    wake_.notify_one();
    return true;
  }

  // Runs what was pushed before, and waits for it unless this is the thread itself.
  void End() {
    if (!process.IsThisProcess()) return;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      has_ended_ = true;
      wake_.notify_one();
    }
    if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
  }

 private:
  void Run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      wake_.wait(lock, [this] { return has_ended_ || !tasks_.empty(); });
      if (tasks_.empty()) return;
      std::function<void()> task = std::move(tasks_.front());
      tasks_.pop_front();
      lock.unlock();
      task();
      task = nullptr;
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> tasks_;
  bool has_ended_ = false;
  std::thread thread_;
};

class LoopQueue final : public Queue {
 public:
  LoopQueue() : event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (event_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  }
  ~LoopQueue() override { ::close(event_); }

  bool Push(std::function<void()> task) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (has_ended_) return false;
    tasks_.push_back(std::move(task));
    const std::uint64_t one = 1;
    // A full counter is readable already.
    [[maybe_unused]] const ssize_t written = ::write(event_, &one, sizeof one);
    return true;
  }

  std::size_t Drain() {
    std::deque<std::function<void()>> tasks;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      std::uint64_t count = 0;
      [[maybe_unused]] const ssize_t taken = ::read(event_, &count, sizeof count);
      tasks.swap(tasks_);
    }
    const std::size_t count = tasks.size();
    while (!tasks.empty()) {
      const std::function<void()> task = std::move(tasks.front());
      tasks.pop_front();
      task();
    }
    return count;
  }

  void End() {
    std::deque<std::function<void()>> dropped;
    const std::lock_guard<std::mutex> lock(mutex_);
    has_ended_ = true;
    dropped.swap(tasks_);
  }

  int descriptor() const { return event_; }

 private:
  const int event_;
  std::mutex mutex_;
  std::deque<std::function<void()>> tasks_;
  bool has_ended_ = false;
};

}  // namespace rpc

// One thread that runs handlers one after the other; those that one thread of a client calls, in the order of its calls
// and posts. Destroyed, it runs what waits and ends; requests that come later are answered with an error. Not destroyed
// in one of its own handlers.
class Serial {
 public:
  Serial() : queue_(new rpc::SerialQueue, rpc::DeleteInOwnProcess()) {}
  ~Serial() { queue_->End(); }
  Serial(const Serial&) = delete;
  Serial& operator=(const Serial&) = delete;

  template <class Function>
  rpc::Queued<Function> operator()(Function handler) const {
    return {queue_, std::move(handler)};
  }

 private:
  const std::shared_ptr<rpc::SerialQueue> queue_;
};

// Handlers in the application's own loop. Requests wait until some thread calls drain(). Destroyed, it drops what
// waits; that is answered with an error, and so is what comes later.
class Loop {
 public:
  Loop() : queue_(std::make_shared<rpc::LoopQueue>()) {}
  ~Loop() { queue_->End(); }
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;

  template <class Function>
  rpc::Queued<Function> operator()(Function handler) const {
    return {queue_, std::move(handler)};
  }

  // To be watched for reading, and not to be read from.
  int descriptor() const { return queue_->descriptor(); }

  // Runs the handlers that wait, on this thread; returns how many. Does not wait itself.
  std::size_t drain() const { return queue_->Drain(); }

 private:
  const std::shared_ptr<rpc::LoopQueue> queue_;
};

}  // namespace mivo

#endif  // MIVO_RPC_QUEUE_H_
