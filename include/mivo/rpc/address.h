// Where a server listens and a client connects: "unix:jobs", "unix:/run/jobs.sock", "tcp:127.0.0.1:4711",
// "tcp:[::1]:4711".
#ifndef MIVO_RPC_ADDRESS_H_
#define MIVO_RPC_ADDRESS_H_

#include <mivo/connections.h>

#include <stdexcept>
#include <string>

namespace mivo {

// What stands behind "unix:" is a path if there is a '/' in it, and otherwise a name of the library's own, which stands
// for the socket "/tmp/echo.sock." + name. A name is open to every user of the machine, and belongs to whoever listened
// last; a path has the mode that the umask gives it, and stays with the server that answers there.
struct Address {
  // Throws std::invalid_argument with what is wrong.
  static Address Parse(const std::string& text) {
    if (text.rfind("unix:", 0) == 0) return ParseLocal(text, text.substr(5));
    const std::size_t colon = text.rfind(':');
    if (text.rfind("tcp:", 0) != 0 || colon < 5) {
      throw std::invalid_argument(
          text + ": unix:<name>, unix:<path>, tcp:<IPv4 address>:<port> or tcp:[<IPv6 address>]:<port> is expected");
    }
    std::string host = text.substr(4, colon - 4);
    const std::string port = text.substr(colon + 1);
    if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos ||
        std::stoi(port) > 65535) {
      throw std::invalid_argument(text + ": a port from 0 to 65535 is expected");
    }
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
      return {AddressKind::kTcp6, host.substr(1, host.size() - 2), port};
    }
    // A name would make a server listen on every address.
    if (host.find_first_not_of("0123456789.") != std::string::npos) {
      throw std::invalid_argument(text + ": the address is to be numeric");
    }
    return {AddressKind::kTcp4, host, port};
  }

  bool is_local() const { return kind == AddressKind::kName || kind == AddressKind::kPath; }

  AddressKind kind;
  std::string where;  // name, path or host
  std::string port;   // TCP only

 private:
  static Address ParseLocal(const std::string& text, const std::string& where) {
    const bool is_path = where.find('/') != std::string::npos;
    const std::size_t longest = is_path ? 107 : 92;
    if (where.empty() || where.size() > longest || where.find('\0') != std::string::npos) {
      throw std::invalid_argument(text + ": a name of 1 to 92 bytes, or a path of at most 107, is expected");
    }
    return {is_path ? AddressKind::kPath : AddressKind::kName, where, ""};
  }
};

}  // namespace mivo

#endif  // MIVO_RPC_ADDRESS_H_
