// Who has to be waited for: before a client can have its next connection, and before it can end.
#ifndef MIVO_RPC_AWAITED_H_
#define MIVO_RPC_AWAITED_H_

#include <mivo/calls.h>
#include <mivo/handler.h>
#include <mivo/rpc/handler.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <utility>

namespace mivo {
namespace rpc {

// The thread is in a handler or completion of the client's. A new connection waits for these, so that nobody may wait
// for a new connection here.
class InsideClient {
 public:
  explicit InsideClient(const void* client) : outer_(std::exchange(inside_, client)) {}
  ~InsideClient() { inside_ = outer_; }
  InsideClient(const InsideClient&) = delete;
  InsideClient& operator=(const InsideClient&) = delete;

  static bool By(const void* client) { return inside_ == client; }

 private:
  inline static thread_local const void* inside_ = nullptr;
  const void* const outer_;
};

// A handler of the client's.
class AwaitedHandler final : public IServerMethod {
 public:
  AwaitedHandler(const void* client, std::shared_ptr<Handler> handler)
      : client_(client), handler_(std::move(handler)) {}

  // To be registered. What runs elsewhere than on the pool is waited for by nobody.
  IServerMethod* method() {
    IServerMethod* const own = handler_->method();
    return dynamic_cast<IInOrderMethod*>(own) != nullptr ? own : this;
  }

  void OnCall(int connection_id, MIVOParams* request, MIVOParams* reply) override {
    const InsideClient inside(client_);
    handler_->method()->OnCall(connection_id, request, reply);
  }

 private:
  const void* const client_;
  const std::shared_ptr<Handler> handler_;
};

// Who is inside something that is about to end.
class Visitors {
 public:
  class Visit {
   public:
    explicit Visit(Visitors& visitors) : visitors_(visitors) { visitors_.Enter(); }
    ~Visit() { visitors_.Leave(); }
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;

   private:
    Visitors& visitors_;
  };

  void Enter() { ++count_; }
  void Leave() { --count_; }

  // Whether nobody is inside, now or soon.
  bool HaveLeftSoon() const {
    constexpr std::chrono::milliseconds kSoon{20};
    constexpr std::chrono::milliseconds kStep{1};
    const auto end = std::chrono::steady_clock::now() + kSoon;
    // Having left, nobody must touch anything here any more, so nobody tells.
    for (; count_ > 0; std::this_thread::sleep_for(kStep)) {
      if (std::chrono::steady_clock::now() > end) return false;
    }
    return true;
  }

 private:
  std::atomic<int> count_{0};
};

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_AWAITED_H_
