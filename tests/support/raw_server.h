// A listener driven by hand, for the client under test.
#ifndef MIVO_TESTS_SUPPORT_RAW_SERVER_H_
#define MIVO_TESTS_SUPPORT_RAW_SERVER_H_

#include "support/raw_client.h"
#include "support/transport.h"

#include <chrono>
#include <optional>
#include <string>

namespace mivo_test {

// Listens from construction to Close or destruction, on an address of its own.
class RawServer {
 public:
  explicit RawServer(Transport transport);
  RawServer(const RawServer&) = delete;
  RawServer& operator=(const RawServer&) = delete;
  ~RawServer() { Close(); }

  const Address& address() const { return address_; }

  // The next connection; not connected() when none comes.
  RawPeer Accept(std::chrono::milliseconds patience = kPatience);

  // The next connection, after its version check was answered well. `request` (may be null) receives the check.
  RawPeer AcceptAndAnswerHandshake(std::string* request = nullptr);

  // Nobody can connect any more; accepted connections stay.
  void Close();

 private:
  Address address_;
  int listener_ = -1;
};

// Reads the version check of a client and answers it well; returns the check, or nothing when none came.
std::optional<std::string> AnswerHandshake(RawPeer* peer);

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_RAW_SERVER_H_
