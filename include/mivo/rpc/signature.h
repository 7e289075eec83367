// What a handler takes and gives.
#ifndef MIVO_RPC_SIGNATURE_H_
#define MIVO_RPC_SIGNATURE_H_

#include <tuple>
#include <type_traits>

namespace mivo {
namespace rpc {

// Result and parameters of a function, function pointer, or function object with one operator().
template <class Function, class = void>
struct Signature {
  static constexpr bool kIsKnown = false;
};
template <class R, class... A>
struct SignatureOf {
  static constexpr bool kIsKnown = true;
  using Result = R;
  using Parameters = std::tuple<A...>;
};
template <class R, class... A>
struct Signature<R (*)(A...)> : SignatureOf<R, A...> {};
template <class R, class... A>
struct Signature<R (*)(A...) noexcept> : SignatureOf<R, A...> {};
template <class Member>
struct MemberSignature;
template <class C, class R, class... A>
struct MemberSignature<R (C::*)(A...)> : SignatureOf<R, A...> {};
template <class C, class R, class... A>
struct MemberSignature<R (C::*)(A...) const> : SignatureOf<R, A...> {};
template <class C, class R, class... A>
struct MemberSignature<R (C::*)(A...) noexcept> : SignatureOf<R, A...> {};
template <class C, class R, class... A>
struct MemberSignature<R (C::*)(A...) const noexcept> : SignatureOf<R, A...> {};
template <class Function>
struct Signature<Function, std::void_t<decltype(&Function::operator())>>
    : MemberSignature<decltype(&Function::operator())> {};

template <class Head, class Tuple>
struct Without {
  static constexpr bool kHad = false;
  using Rest = Tuple;
};
template <class Head, class... A>
struct Without<Head, std::tuple<Head, A...>> {
  static constexpr bool kHad = true;
  using Rest = std::tuple<A...>;
};

// What is read for a parameter of that type: a value of its own.
template <class Tuple>
struct Decayed;
template <class... A>
struct Decayed<std::tuple<A...>> {
  static_assert((!(std::is_lvalue_reference_v<A> && !std::is_const_v<std::remove_reference_t<A>>)&&...),
                "mivo: a handler takes its arguments by value or by const reference; nothing it changes travels back");
  using Type = std::tuple<std::decay_t<A>...>;
};

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_SIGNATURE_H_
