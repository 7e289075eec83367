// Calls for coroutines; C++20.
//
//     const int sum = co_await mivo::awaited<int>(client, "add", 2, 40);
//     co_await mivo::awaited(client.within(1s), "touch", 7);
#ifndef MIVO_RPC_COROUTINE_H_
#define MIVO_RPC_COROUTINE_H_

#ifndef __cpp_impl_coroutine
#error "<mivo/rpc/coroutine.h> needs a compiler with the coroutines of C++20"
#else

#include <mivo/rpc/calls.h>

#include <coroutine>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

namespace mivo {
namespace rpc {

template <class T, class Peer, class... A>
class Awaited {
 public:
  Awaited(const Peer& peer, std::string name, const A&... arguments)
      : peer_(peer), name_(std::move(name)), arguments_(arguments...) {}

  bool await_ready() const noexcept { return false; }
  void await_suspend(std::coroutine_handle<> coroutine) {
    // Once it is sent the coroutine may go on elsewhere, and this be gone.
    const auto send = [this, coroutine](const A&... arguments) {
      peer_.begin(name_, std::make_unique<Completion>(name_, *this, coroutine), arguments...);
    };
    std::apply(send, arguments_);
  }
  T await_resume() {
    if (error_) std::rethrow_exception(error_);
    if constexpr (!std::is_void_v<T>) return std::move(*value_);
  }

 private:
  class Completion final : public WatchedCompletion {
   public:
    Completion(const std::string& name, Awaited& awaited, std::coroutine_handle<> coroutine)
        : WatchedCompletion(name), awaited_(awaited), coroutine_(coroutine) {}
    void OnCompleted(CallOutcome outcome, MIVOParams& reply) override {
      try {
        if constexpr (std::is_void_v<T>) {
          this->template Take<T>(outcome, reply);
        } else {
          awaited_.value_.emplace(this->template Take<T>(outcome, reply));
        }
      } catch (...) {
        awaited_.error_ = std::current_exception();
      }
      coroutine_.resume();
    }

   private:
    Awaited& awaited_;
    const std::coroutine_handle<> coroutine_;
  };

  const Peer& peer_;
  const std::string name_;
  const std::tuple<const A&...> arguments_;
  std::optional<std::conditional_t<std::is_void_v<T>, char, T>> value_;
  std::exception_ptr error_;
};

}  // namespace rpc

// A call for co_await, which gives its result or throws what has come of it. The coroutine goes on on one of the
// library's pool threads (or, when a client that reconnects has waited in vain, on one of its own). To be awaited in
// the expression that makes it, for it only refers to the arguments.
template <class T = void, class Peer, class... A>
[[nodiscard]] rpc::Awaited<T, Peer, A...> awaited(const Peer& peer, std::string name, const A&... arguments) {
  return {peer, std::move(name), arguments...};
}

}  // namespace mivo

#endif  // __cpp_impl_coroutine
#endif  // MIVO_RPC_COROUTINE_H_
