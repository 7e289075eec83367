// A function as a handler.
#ifndef MIVO_RPC_HANDLER_H_
#define MIVO_RPC_HANDLER_H_

#include <mivo/rpc/any_handler.h>
#include <mivo/rpc/message.h>
#include <mivo/rpc/queue.h>
#include <mivo/rpc/signature.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace mivo {
namespace rpc {

// `Context` is what the function may take as its first parameter, by reference; `make` makes one of the id of the
// connection that calls. Compiled once for each handler of a program: what can be elsewhere is.
template <class Context, class Make, class Function>
class TypedFunction {
  using Known = Signature<Function>;
  using Split = Without<Context&, typename Known::Parameters>;
  using Result = typename Known::Result;

 public:
  using Arguments = typename Decayed<typename Split::Rest>::Type;
  using Indices = std::make_index_sequence<std::tuple_size_v<Arguments>>;

  TypedFunction(Make make, Function function) : make_(std::move(make)), function_(std::move(function)) {}

  void Call(int connection_id, Arguments arguments, MIVOParams& reply) {
    if constexpr (std::is_void_v<Result>) {
      Invoke(connection_id, arguments, Indices());
    } else {
      AddArgument(reply, Invoke(connection_id, arguments, Indices()));
    }
  }

  static Method Types() {
    Method method;
    if constexpr (std::is_void_v<Result>) {
      method.result = "nothing";
    } else {
      method.result = Codec<std::decay_t<Result>>::Name();
    }
    AddNames(method.parameters, static_cast<Arguments*>(nullptr));
    return method;
  }

 private:
  template <std::size_t... kIndex>
  Result Invoke(int connection_id, [[maybe_unused]] Arguments& arguments, std::index_sequence<kIndex...>) {
    if constexpr (Split::kHad) {
      Context context = make_(connection_id);
      return function_(context, std::get<kIndex>(std::move(arguments))...);
    } else {
      static_cast<void>(connection_id);
      return function_(std::get<kIndex>(std::move(arguments))...);
    }
  }
  template <class... T>
  static void AddNames(std::vector<std::string>& names, const std::tuple<T...>*) {
    (names.push_back(Codec<T>::Name()), ...);
  }

  Make make_;
  Function function_;
};

template <class Typed>
class TypedPoolHandler final : public PoolHandler {
 public:
  TypedPoolHandler(std::string name, std::shared_ptr<Host> host, About about, Typed function)
      : PoolHandler(std::move(name), std::move(host), std::move(about)), function_(std::move(function)) {}

 private:
  Method Types() const override { return Typed::Types(); }
  void Serve(int connection_id, const MIVOParams& request, MIVOParams& reply) override {
    function_.Call(connection_id, ReadArguments<typename Typed::Arguments>::From(request), reply);
  }

  Typed function_;
};

template <class Typed>
class TypedQueueHandler final : public QueueHandler {
 public:
  TypedQueueHandler(std::shared_ptr<Queue> queue, std::string name, std::shared_ptr<Host> host, About about,
                    Typed function)
      : QueueHandler(std::move(queue), std::move(name), std::move(host), std::move(about)),
        function_(std::move(function)) {}

 private:
  class TypedCall final : public ReadCall {
   public:
    TypedCall(Typed& function, int connection_id, const MIVOParams& request)
        : function_(function),
          connection_id_(connection_id),
          arguments_(ReadArguments<typename Typed::Arguments>::From(request)) {}
    void Serve(MIVOParams& reply) override { function_.Call(connection_id_, std::move(arguments_), reply); }

   private:
    Typed& function_;
    const int connection_id_;
    typename Typed::Arguments arguments_;
  };

  Method Types() const override { return Typed::Types(); }
  std::unique_ptr<ReadCall> Read(int connection_id, const MIVOParams& request) override {
    return std::unique_ptr<ReadCall>(new TypedCall(function_, connection_id, request));
  }

  Typed function_;
};

template <class Function>
struct IsQueued : std::false_type {};
template <class Function>
struct IsQueued<Queued<Function>> : std::true_type {};

// Throws std::invalid_argument for a name that no method can have.
inline void RequireName(const std::string& name) {
  if (name.empty() || name == "retval" || name.rfind("s_c_", 0) == 0 || name.find('\0') != std::string::npos) {
    throw std::invalid_argument("\"" + name +
                                "\" cannot be the name of a method: it is empty, holds a NUL byte, or is " +
                                "one of the library's own");
  }
}

template <class Context, class Make, class Function>
std::shared_ptr<Handler> MakeHandler(const std::string& name, std::shared_ptr<Host> host, About about, Make make,
                                     Function function) {
  static_assert(Signature<Function>::kIsKnown,
                "mivo: a handler must name the types of its parameters; a generic or overloaded function has none");
  RequireName(name);
  if constexpr (!Signature<Function>::kIsKnown) {
    return nullptr;
  } else if constexpr (IsQueued<Function>::value) {
    using Typed = TypedFunction<Context, Make, decltype(function.function)>;
    return std::shared_ptr<Handler>(static_cast<Handler*>(
        new TypedQueueHandler<Typed>(std::move(function.queue), name, std::move(host), std::move(about),
                                     Typed(std::move(make), std::move(function.function)))));
  } else {
    using Typed = TypedFunction<Context, Make, Function>;
    return std::shared_ptr<Handler>(static_cast<Handler*>(new TypedPoolHandler<Typed>(
        name, std::move(host), std::move(about), Typed(std::move(make), std::move(function)))));
  }
}

// Whether it is used to the full.
class Limit {
 public:
  explicit Limit(int most) : most_(most) {}
  bool Enter() {
    if (++count_ <= most_) return true;
    --count_;
    return false;
  }
  void Leave() { --count_; }

 private:
  const int most_;
  std::atomic<int> count_{0};
};

// A function with the parameters of another, which may be called so many times at once.
template <class Function, class Result, class Parameters>
class LimitedFunction;
template <class Function, class Result, class... A>
class LimitedFunction<Function, Result, std::tuple<A...>> {
 public:
  LimitedFunction(int most, Function function)
      : limit_(std::make_shared<Limit>(most)), function_(std::move(function)) {}

  Result operator()(A... arguments) {
    if (!limit_->Enter()) throw Error(kOverloadedCode, "too many calls at a time; try again later");
    struct Leave {
      ~Leave() { limit->Leave(); }
      Limit* limit;
    } const leave{limit_.get()};
    return function_(std::forward<A>(arguments)...);
  }

 private:
  const std::shared_ptr<Limit> limit_;
  Function function_;
};

}  // namespace rpc

// The handler for at most `most` calls at a time; those beyond are answered at once with kOverloadedCode. A handler for
// the pool, not one of a Serial or Loop.
template <class Function>
auto limited(int most, Function handler) {
  using Known = rpc::Signature<Function>;
  static_assert(Known::kIsKnown,
                "mivo: a handler must name the types of its parameters; a generic or overloaded function has none");
  static_assert(!rpc::IsQueued<Function>::value, "mivo: limited goes with handlers for the pool");
  // What was refused is left as it is, so that nothing else is said about it.
  if constexpr (!Known::kIsKnown || rpc::IsQueued<Function>::value) {
    return [] {};
  } else {
    return rpc::LimitedFunction<Function, typename Known::Result, typename Known::Parameters>(most, std::move(handler));
  }
}
}  // namespace mivo

#endif  // MIVO_RPC_HANDLER_H_
