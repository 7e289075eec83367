// Connects to a server.
#ifndef MIVO_CLIENT_CONNECTOR_H_
#define MIVO_CLIENT_CONNECTOR_H_

#include <cstdint>

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
  // the negative errno, -ECANCELED after a Close, -ETIMEDOUT at `deadline_ms` by NowMs (0: when the kernel gives up).
  // With a deadline it waits also for a local server that has more newcomers than it can list.
  int Connect(const Endpoint& endpoint, std::int64_t deadline_ms = 0);

  // Before it connects: what fails is not printed.
  void BeQuiet() { is_quiet_ = true; }

  // Any thread. Ends the attempt under way, and any later one.
  void Close();

 private:
  int ConnectTo(const Endpoint& endpoint, const SocketAddress& address, int socket, std::int64_t deadline_ms);
  bool Publish(int socket);
  bool Withdraw();
  bool IsClosed();

  // What fails over IPv4 is said on standard output.
  void Report(const Endpoint& endpoint, const char* failure) const;

  bool is_quiet_ = false;
  Mutex mutex_;
  bool is_closed_ MIVO_GUARDED_BY(mutex_) = false;
  int socket_ MIVO_GUARDED_BY(mutex_) = -1;  // while it connects
};

// What fails over IPv4 is said on standard output.
void ReportConnectFailure(const Endpoint& endpoint, const char* failure);

}  // namespace mivo

#endif  // MIVO_CLIENT_CONNECTOR_H_
