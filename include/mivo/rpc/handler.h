// A function as a handler.
#ifndef MIVO_RPC_HANDLER_H_
#define MIVO_RPC_HANDLER_H_

#include <mivo/handler.h>
#include <mivo/rpc/message.h>
#include <mivo/rpc/signature.h>

#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

namespace mivo {
namespace rpc {

// `Context` is what the function may take as its first parameter, by reference; `make` makes one of the id of the
// connection that calls.
template <class Context, class Make, class Function>
class FunctionHandler final : public IServerMethod {
  using Known = Signature<Function>;
  using Split = Without<Context&, typename Known::Parameters>;
  using Arguments = typename Decayed<typename Split::Rest>::Type;
  using Result = typename Known::Result;

 public:
  FunctionHandler(std::string name, Make make, Function function)
      : name_(std::move(name)), make_(std::move(make)), function_(std::move(function)) {}

  void OnCall(int connection_id, MIVOParams* request, MIVOParams* reply) override {
    try {
      Answer(connection_id, *request, *reply);
    } catch (const WrongType& error) {
      AddError(*reply, error.code(), name_ + ": " + error.what());
    } catch (const Error& error) {
      AddError(*reply, error.code(), error.what());
    } catch (const std::exception& error) {
      AddError(*reply, kExceptionCode, error.what());
    } catch (...) {
      AddError(*reply, kExceptionCode, "unknown exception");
    }
  }

 private:
  void Answer(int connection_id, const MIVOParams& request, MIVOParams& reply) {
    Arguments arguments = ReadArguments<Arguments>::From(request);
    const auto call = [&](auto&&... values) -> Result {
      if constexpr (Split::kHad) {
        Context context = make_(connection_id);
        return function_(context, std::forward<decltype(values)>(values)...);
      } else {
        return function_(std::forward<decltype(values)>(values)...);
      }
    };
    if constexpr (std::is_void_v<Result>) {
      std::apply(call, std::move(arguments));
    } else {
      AddArgument(reply, std::apply(call, std::move(arguments)));
    }
  }

  const std::string name_;
  Make make_;
  Function function_;
};

// Throws std::invalid_argument for a name that no method can have.
inline void RequireName(const std::string& name) {
  if (name.empty() || name == "retval" || name.rfind("s_c_", 0) == 0 || name.find('\0') != std::string::npos) {
    throw std::invalid_argument("\"" + name +
                                "\" cannot be the name of a method: it is empty, holds a NUL byte, or is " +
                                "one of the library's own");
  }
}

template <class Context, class Make, class Function>
auto MakeHandler(const std::string& name, Make make, Function function) {
  static_assert(Signature<Function>::kIsKnown,
                "mivo: a handler must name the types of its parameters; a generic or overloaded function has none");
  RequireName(name);
  return std::make_unique<FunctionHandler<Context, Make, Function>>(name, std::move(make), std::move(function));
}

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_HANDLER_H_
