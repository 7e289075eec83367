// What calls and handlers come to, for whoever wants to look on.
#ifndef MIVO_RPC_OBSERVATION_H_
#define MIVO_RPC_OBSERVATION_H_

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string_view>
#include <utility>

namespace mivo {

// One call that was made, or one handler that has run. The views are valid while it is looked at.
struct Observation {
  enum class Direction {
    kCall,     // a call of ours, until its answer, or what came instead
    kPost,     // a post of ours, until it was on its way
    kHandler,  // a handler of ours, until its answer was ready to leave
  };

  Direction direction;
  std::string_view method;
  std::size_t request_bytes;  // arguments, as they travel
  std::size_t reply_bytes;    // result or error, as it travels; 0 of a post
  std::chrono::nanoseconds duration;
  std::string_view error;  // the error's code; empty if there was none
};

// Called on the thread of the call or handler, several at a time, and in its way: it should be quick. It must not
// throw.
using Observer = std::function<void(const Observation&)>;

namespace rpc {

class ObserverSlot {
 public:
  ObserverSlot() = default;
  ObserverSlot(const ObserverSlot&) = delete;
  ObserverSlot& operator=(const ObserverSlot&) = delete;
  ~ObserverSlot() {
    while (last_ != nullptr)
      delete std::exchange(last_, last_->before);
  }

  // One that is replaced stays until the end, for it may be running.
  void Set(Observer observer) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!observer) return current_.store(nullptr);
    last_ = new Kept{std::move(observer), last_};
    current_.store(&last_->observer);
  }
  const Observer* Get() const { return current_.load(std::memory_order_acquire); }

 private:
  struct Kept {
    Observer observer;
    Kept* before;
  };

  std::mutex mutex_;
  Kept* last_ = nullptr;
  std::atomic<const Observer*> current_{nullptr};
};

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_OBSERVATION_H_
