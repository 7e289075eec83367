// Connects to a server.
#ifndef MIVO_CLIENT_CONNECTOR_H_
#define MIVO_CLIENT_CONNECTOR_H_

#include "base/mutex.h"
#include "transport/endpoint.h"

namespace mivo {

// Local socket, TCP over IPv4 and over IPv6 differ in here and nowhere else on the client.
//
// One thread connects, and waits for nothing but its socket. Another one ends that by shutting the socket down under
// it, which the kernel reports to whoever waits for it.
class Connector {
 public:
  Connector() = default;
  Connector(const Connector&) = delete;
  Connector& operator=(const Connector&) = delete;

  // Returns once the connection stands, or cannot be had: its descriptor, which does not block and is the caller's; or
  // the negative errno, -ECANCELED after a Close.
  int Connect(const Endpoint& endpoint);

  // Any thread. Ends the attempt under way, and any later one.
  void Close();

 private:
  bool Publish(int socket);
  bool Withdraw();

  Mutex mutex_;
  bool is_closed_ MIVO_GUARDED_BY(mutex_) = false;
  int socket_ MIVO_GUARDED_BY(mutex_) = -1;  // while it connects
};

// What fails over IPv4 is said on standard output.
void ReportConnectFailure(const Endpoint& endpoint, const char* failure);

}  // namespace mivo

#endif  // MIVO_CLIENT_CONNECTOR_H_
