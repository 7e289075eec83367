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
#include <mivo/rpc/task_queue.h>

#include <cstddef>
#include <memory>
#include <system_error>
#include <utility>

namespace mivo {
namespace rpc {

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
  // Throws std::system_error if there is none.
  explicit QueueOwner(QueueOrError made) : queue_(made.queue, Release()) {
    if (made.queue == nullptr) {
      throw std::system_error(made.error, std::generic_category(), "mivo: a queue for handlers");
    }
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
  const std::shared_ptr<Queue> queue_;
};

}  // namespace rpc

// One thread that runs handlers one after the other; those that one thread of a client calls, in the order of its calls
// and posts. Destroyed, it runs what waits and ends; requests that come later are answered with an error. Not destroyed
// in one of its own handlers.
class Serial {
 public:
  Serial() : queue_(rpc::CreateSerialQueue()) {}

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
  Loop() : queue_(rpc::CreateLoopQueue()) {}

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
