// Connects a stream to a server.
#ifndef MIVO_CLIENT_CONNECTOR_H_
#define MIVO_CLIENT_CONNECTOR_H_

#include <uv.h>

#include "transport/connection.h"
#include "transport/endpoint.h"

namespace mivo {

// Local socket, TCP over IPv4 and over IPv6 differ in here and nowhere else on the client. Loop thread.
class Connector {
 public:
  enum class State { kNotConnected, kConnecting, kConnected };

  // Both outlive the attempt.
  Connector(const Endpoint& endpoint, Connection& connection) : endpoint_(endpoint), connection_(connection) {}
  Connector(const Connector&) = delete;
  Connector& operator=(const Connector&) = delete;

  // Begins the attempt; `state` tells how it goes. Closing the connection ends it.
  void Start();

  State state() const { return state_; }

  // What fails over IPv4 is said on standard output.
  void Report(const char* failure) const;

 private:
  int StartLocal();
  int StartTcp();
  static void OnConnected(uv_connect_t* request, int status);

  const Endpoint& endpoint_;
  Connection& connection_;
  uv_connect_t request_{};
  State state_ = State::kNotConnected;
};

}  // namespace mivo

#endif  // MIVO_CLIENT_CONNECTOR_H_
