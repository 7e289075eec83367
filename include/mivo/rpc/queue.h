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

#include <mivo/export.h>
#include <mivo/rpc/process.h>
#include <mivo/rpc/signature.h>

#include <cstddef>
#include <memory>
#include <system_error>
#include <utility>

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

// Null, and an errno in `error`, if there is no thread, or no descriptor, to be had.
MIVO_EXPORT Queue* CreateSerialQueue(int* error);
MIVO_EXPORT Queue* CreateLoopQueue(int* error);

// A function that runs where its queue says.
template <class Function>
struct Queued {
  std::shared_ptr<Queue> queue;
  Function function;
};
template <class Function>
struct Signature<Queued<Function>, void> : Signature<Function> {};

// What an application keeps of a queue. Handlers may keep it longer.
class QueueOwner {
 public:
  explicit QueueOwner(Queue* (*create)(int* error)) {
    int error = 0;
    Queue* const queue = create(&error);
    if (queue == nullptr) throw std::system_error(error, std::generic_category(), "mivo: a queue of handlers");
    queue_ = std::shared_ptr<Queue>(queue, Release());
  }
  ~QueueOwner() {
    if (process_.IsThisProcess()) queue_->End();
  }
  QueueOwner(const QueueOwner&) = delete;
  QueueOwner& operator=(const QueueOwner&) = delete;

  const std::shared_ptr<Queue>& get() const { return queue_; }

 private:
  // Not in a child of fork, where its thread is missing.
  struct Release {
    ProcessMark process;
    void operator()(Queue* queue) const {
      if (process.IsThisProcess()) delete queue;
    }
  };

  const ProcessMark process_;
  std::shared_ptr<Queue> queue_;
};

}  // namespace rpc

// One thread that runs handlers one after the other; those that one thread of a client calls, in the order of its calls
// and posts. Destroyed, it runs what waits and ends; requests that come later are answered with an error. Not destroyed
// in one of its own handlers.
class Serial {
 public:
  Serial() : queue_(rpc::CreateSerialQueue) {}

  template <class Function>
  rpc::Queued<Function> operator()(Function handler) const {
    return {queue_.get(), std::move(handler)};
  }

 private:
  const rpc::QueueOwner queue_;
};

// Handlers in the application's own loop. Requests wait until some thread calls drain(). Destroyed, it drops what
// waits; that is answered with an error, and so is what comes later.
class Loop {
 public:
  Loop() : queue_(rpc::CreateLoopQueue) {}

  template <class Function>
  rpc::Queued<Function> operator()(Function handler) const {
    return {queue_.get(), std::move(handler)};
  }

  // To be watched for reading, and not to be read from.
  int descriptor() const { return queue_.get()->descriptor(); }

  // Runs the handlers that wait, on this thread; returns how many. Does not wait itself.
  std::size_t drain() const { return queue_.get()->Drain(); }

 private:
  const rpc::QueueOwner queue_;
};

}  // namespace mivo

#endif  // MIVO_RPC_QUEUE_H_
