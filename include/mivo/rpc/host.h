// What the handlers of one client or server have in common.
#ifndef MIVO_RPC_HOST_H_
#define MIVO_RPC_HOST_H_

#include <mivo/rpc/boundary.h>
#include <mivo/rpc/fields.h>
#include <mivo/rpc/observation.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace mivo {

// A sentence about a method, and the names of its arguments, for tools that list methods.
struct About {
  std::string text;
  std::vector<std::string> arguments;
};

// What a peer tells of one of its methods.
struct Method {
  std::string name;
  std::string result;  // "nothing", "int32", "list of text", "Job", ...
  std::vector<std::string> parameters;
  std::vector<std::string> parameter_names;  // as far as they were given
  std::string text;                          // empty if none was given
};
MIVO_FIELDS(Method, name, result, parameters, parameter_names, text)

namespace rpc {

class StringSink final : public TextSink {
 public:
  std::string text;
  void Take(const char* bytes, std::size_t length) override { text.assign(bytes, length); }
};

// Lets work in until it is closed, and is closed when the last that was let in has left.
class Gate {
 public:
  class Pass {
   public:
    explicit Pass(Gate& gate) : gate_(gate), is_in_(gate.Enter()), outer_(inside_) {
      if (is_in_) inside_ = &gate;
    }
    ~Pass() {
      if (!is_in_) return;
      inside_ = outer_;
      gate_.Leave();
    }
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;
    explicit operator bool() const { return is_in_; }

   private:
    Gate& gate_;
    const bool is_in_;
    Gate* const outer_;
  };

  // Waits for all others that are inside.
  void Close() {
    std::unique_lock<std::mutex> lock(mutex_);
    is_closed_ = true;
    const int own = inside_ == this ? 1 : 0;
    left_.wait(lock, [this, own] { return inside_count_ == own; });
  }
  void Open() {
    const std::lock_guard<std::mutex> lock(mutex_);
    is_closed_ = false;
  }

 private:
  bool Enter() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (is_closed_) return false;
    ++inside_count_;
    return true;
  }
  void Leave() {
    const std::lock_guard<std::mutex> lock(mutex_);
    --inside_count_;
    left_.notify_all();
  }

  inline static thread_local Gate* inside_ = nullptr;
  std::mutex mutex_;
  std::condition_variable left_;
  bool is_closed_ = false;
  int inside_count_ = 0;
};

// Outlives the handlers.
struct Host {
  ObserverSlot observer;
  // Handlers that run elsewhere than on the pool.
  Gate gate;
  // New requests are refused.
  std::atomic<bool> is_stopping{false};
};

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_HOST_H_
