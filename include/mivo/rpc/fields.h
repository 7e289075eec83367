// Structs that can travel.
//
//     struct Job { std::string name; std::int64_t size; };
//     MIVO_FIELDS(Job, name, size)
//
// in the namespace of the struct, for up to 32 public fields, in any order; what is received is made as Job{} first.
// They travel under their names: fields that the sender has and the receiver has not are passed over, and a
// std::optional may be missing.
#ifndef MIVO_RPC_FIELDS_H_
#define MIVO_RPC_FIELDS_H_

#include <type_traits>

namespace mivo {

// What MIVO_FIELDS has made is found where the struct was declared.
template <class Struct, class = void>
struct HasFields : std::false_type {};
template <class Struct>
struct HasFields<Struct, std::void_t<decltype(MivoNameOf(static_cast<const Struct*>(nullptr)))>> : std::true_type {};

}  // namespace mivo

// MivoEachField calls mivo_visit("field", &Struct::field) for one after the other. (Not a std::tuple of them: that
// would be much of what a struct costs to compile.)
#define MIVO_FIELDS(Struct, ...)                                                              \
  [[maybe_unused]] inline constexpr const char* MivoNameOf(const Struct*) {                   \
    return #Struct;                                                                           \
  }                                                                                           \
  template <class MivoVisit>                                                                  \
  [[maybe_unused]] constexpr void MivoEachField(const Struct*, const MivoVisit& mivo_visit) { \
    MIVO_EACH_FIELD(Struct, __VA_ARGS__);                                                     \
  }

#define MIVO_FIELD(Struct, name) mivo_visit(#name, &Struct::name)
#define MIVO_EACH_FIELD(Struct, ...)                                                                                   \
  MIVO_PICK_FIELDS(__VA_ARGS__, MIVO_F32, MIVO_F31, MIVO_F30, MIVO_F29, MIVO_F28, MIVO_F27, MIVO_F26, MIVO_F25,        \
                   MIVO_F24, MIVO_F23, MIVO_F22, MIVO_F21, MIVO_F20, MIVO_F19, MIVO_F18, MIVO_F17, MIVO_F16, MIVO_F15, \
                   MIVO_F14, MIVO_F13, MIVO_F12, MIVO_F11, MIVO_F10, MIVO_F9, MIVO_F8, MIVO_F7, MIVO_F6, MIVO_F5,      \
                   MIVO_F4, MIVO_F3, MIVO_F2, MIVO_F1, )                                                               \
  (Struct, __VA_ARGS__)
#define MIVO_PICK_FIELDS(_1, _2, _3, _4, _5, _6, _7, _8, _9, _10, _11, _12, _13, _14, _15, _16, _17, _18, _19, _20, \
                         _21, _22, _23, _24, _25, _26, _27, _28, _29, _30, _31, _32, chosen, ...)                   \
  chosen
#define MIVO_F1(S, a) MIVO_FIELD(S, a)
#define MIVO_F2(S, a, ...) MIVO_FIELD(S, a), MIVO_F1(S, __VA_ARGS__)
#define MIVO_F3(S, a, ...) MIVO_FIELD(S, a), MIVO_F2(S, __VA_ARGS__)
#define MIVO_F4(S, a, ...) MIVO_FIELD(S, a), MIVO_F3(S, __VA_ARGS__)
#define MIVO_F5(S, a, ...) MIVO_FIELD(S, a), MIVO_F4(S, __VA_ARGS__)
#define MIVO_F6(S, a, ...) MIVO_FIELD(S, a), MIVO_F5(S, __VA_ARGS__)
#define MIVO_F7(S, a, ...) MIVO_FIELD(S, a), MIVO_F6(S, __VA_ARGS__)
#define MIVO_F8(S, a, ...) MIVO_FIELD(S, a), MIVO_F7(S, __VA_ARGS__)
#define MIVO_F9(S, a, ...) MIVO_FIELD(S, a), MIVO_F8(S, __VA_ARGS__)
#define MIVO_F10(S, a, ...) MIVO_FIELD(S, a), MIVO_F9(S, __VA_ARGS__)
#define MIVO_F11(S, a, ...) MIVO_FIELD(S, a), MIVO_F10(S, __VA_ARGS__)
#define MIVO_F12(S, a, ...) MIVO_FIELD(S, a), MIVO_F11(S, __VA_ARGS__)
#define MIVO_F13(S, a, ...) MIVO_FIELD(S, a), MIVO_F12(S, __VA_ARGS__)
#define MIVO_F14(S, a, ...) MIVO_FIELD(S, a), MIVO_F13(S, __VA_ARGS__)
#define MIVO_F15(S, a, ...) MIVO_FIELD(S, a), MIVO_F14(S, __VA_ARGS__)
#define MIVO_F16(S, a, ...) MIVO_FIELD(S, a), MIVO_F15(S, __VA_ARGS__)
#define MIVO_F17(S, a, ...) MIVO_FIELD(S, a), MIVO_F16(S, __VA_ARGS__)
#define MIVO_F18(S, a, ...) MIVO_FIELD(S, a), MIVO_F17(S, __VA_ARGS__)
#define MIVO_F19(S, a, ...) MIVO_FIELD(S, a), MIVO_F18(S, __VA_ARGS__)
#define MIVO_F20(S, a, ...) MIVO_FIELD(S, a), MIVO_F19(S, __VA_ARGS__)
#define MIVO_F21(S, a, ...) MIVO_FIELD(S, a), MIVO_F20(S, __VA_ARGS__)
#define MIVO_F22(S, a, ...) MIVO_FIELD(S, a), MIVO_F21(S, __VA_ARGS__)
#define MIVO_F23(S, a, ...) MIVO_FIELD(S, a), MIVO_F22(S, __VA_ARGS__)
#define MIVO_F24(S, a, ...) MIVO_FIELD(S, a), MIVO_F23(S, __VA_ARGS__)
#define MIVO_F25(S, a, ...) MIVO_FIELD(S, a), MIVO_F24(S, __VA_ARGS__)
#define MIVO_F26(S, a, ...) MIVO_FIELD(S, a), MIVO_F25(S, __VA_ARGS__)
#define MIVO_F27(S, a, ...) MIVO_FIELD(S, a), MIVO_F26(S, __VA_ARGS__)
#define MIVO_F28(S, a, ...) MIVO_FIELD(S, a), MIVO_F27(S, __VA_ARGS__)
#define MIVO_F29(S, a, ...) MIVO_FIELD(S, a), MIVO_F28(S, __VA_ARGS__)
#define MIVO_F30(S, a, ...) MIVO_FIELD(S, a), MIVO_F29(S, __VA_ARGS__)
#define MIVO_F31(S, a, ...) MIVO_FIELD(S, a), MIVO_F30(S, __VA_ARGS__)
#define MIVO_F32(S, a, ...) MIVO_FIELD(S, a), MIVO_F31(S, __VA_ARGS__)

#endif  // MIVO_RPC_FIELDS_H_
