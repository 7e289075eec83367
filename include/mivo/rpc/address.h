// Where a server listens: "unix:jobs", "tcp:127.0.0.1:4711", "tcp:[::1]:4711".
#ifndef MIVO_RPC_ADDRESS_H_
#define MIVO_RPC_ADDRESS_H_

#include <stdexcept>
#include <string>

namespace mivo {

struct Address {
  enum Kind { kUnix, kTcp4, kTcp6 };

  // Throws std::invalid_argument with what is wrong.
  static Address Parse(const std::string& text) {
    if (text.rfind("unix:", 0) == 0) {
      const std::string name = text.substr(5);
      if (name.empty() || name.size() > 92 || name.find('/') != std::string::npos ||
          name.find('\0') != std::string::npos) {
        throw std::invalid_argument(text + ": a name of 1 to 92 bytes without '/' is expected behind unix:");
      }
      return {kUnix, "", name};
    }
    const std::size_t colon = text.rfind(':');
    if (text.rfind("tcp:", 0) != 0 || colon < 5) {
      throw std::invalid_argument(
          text + ": unix:<name>, tcp:<IPv4 address>:<port> or tcp:[<IPv6 address>]:<port> is expected");
    }
    std::string host = text.substr(4, colon - 4);
    const std::string port = text.substr(colon + 1);
    if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos ||
        std::stoi(port) > 65535) {
      throw std::invalid_argument(text + ": a port from 0 to 65535 is expected");
    }
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
      return {kTcp6, host.substr(1, host.size() - 2), port};
    }
    // A name would make a server listen on every address.
    if (host.find_first_not_of("0123456789.") != std::string::npos) {
      throw std::invalid_argument(text + ": the address is to be numeric");
    }
    return {kTcp4, host, port};
  }

  Kind kind;
  std::string host;
  std::string name;  // or the port
};

}  // namespace mivo

#endif  // MIVO_RPC_ADDRESS_H_
