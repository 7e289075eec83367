// The names that the typed layer has of its own on the wire; see docs/wire_format.md.
#ifndef MIVO_RPC_WIRE_NAMES_H_
#define MIVO_RPC_WIRE_NAMES_H_

namespace mivo {
namespace rpc {

inline constexpr const char* kMethodsMethod = "s_c_methods";
// Of a client: called in place of handlers that it lacks.
inline constexpr const char* kUnknownMethod = "s_c_unknown";

// Of an error in place of a result, its code and its text.
inline constexpr const char* kErrorKey = "s_c_error";
inline constexpr const char* kErrorTextKey = "s_c_error_text";
inline constexpr const char* kNoSuchMethodCode = "mivo.no_such_method";

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_WIRE_NAMES_H_
