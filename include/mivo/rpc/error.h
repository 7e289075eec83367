// What can go wrong with a call, by what the caller should do about it.
#ifndef MIVO_RPC_ERROR_H_
#define MIVO_RPC_ERROR_H_

#include <mivo/rpc/wire_names.h>

#include <stdexcept>
#include <string>
#include <utility>

namespace mivo {

// Thrown by a handler, it reaches the caller as this, with the same code and text. The code is for programs: a word or
// two with dots, such as "queue.full"; codes that begin with "mivo." are the library's own. The text is for people.
//
// The classes below are what the library throws by itself, and what it makes of its own codes. The others of its codes
// come as an Error: kExceptionCode, kOverloadedCode, kStoppingCode (handler.h), and "mivo.cannot_listen".
class Error : public std::runtime_error {
 public:
  Error(std::string code, const std::string& text) : std::runtime_error(text), code_(std::move(code)) {}
  const std::string& code() const { return code_; }

 private:
  std::string code_;
};

// Nothing was sent: there is no connection, no such client, or it was to be sent in on_connect or on_disconnect. To be
// tried again without harm.
class NotConnected : public Error {
 public:
  static constexpr const char* kCode = "mivo.not_connected";
  explicit NotConnected(const std::string& text) : Error(kCode, text) {}
};

// The deadline was over. The call may have been carried out, or may still be.
class NoAnswer : public Error {
 public:
  static constexpr const char* kCode = "mivo.no_answer";
  explicit NoAnswer(const std::string& text) : Error(kCode, text) {}
};

// The connection ended while the call was under way. It may have been carried out.
class Disconnected : public Error {
 public:
  static constexpr const char* kCode = "mivo.disconnected";
  explicit Disconnected(const std::string& text) : Error(kCode, text) {}
};

// The server offers no method of that name. To be mended in a program. A client says nothing of names that it does not
// offer: such a call ends with NoAnswer.
class NoSuchMethod : public Error {
 public:
  static constexpr const char* kCode = rpc::kNoSuchMethodCode;
  explicit NoSuchMethod(const std::string& text) : Error(kCode, text) {}
};

// The arguments, or the result, are not of the types that were asked for; for arguments, no handler has run. To be
// mended in a program.
class WrongType : public Error {
 public:
  static constexpr const char* kCode = "mivo.wrong_type";
  explicit WrongType(const std::string& text) : Error(kCode, text) {}
};

// The code of a handler's exception that is no Error; its text is what().
inline constexpr const char* kExceptionCode = "mivo.exception";

// What is answered instead of a handler that is not to run: it is used to the full, or its object is about to end.
inline constexpr const char* kOverloadedCode = "mivo.overloaded";
inline constexpr const char* kStoppingCode = "mivo.stopping";

// Thrown by listen.
inline constexpr const char* kCannotListenCode = "mivo.cannot_listen";

}  // namespace mivo

#endif  // MIVO_RPC_ERROR_H_
