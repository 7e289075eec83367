// The three transports, and addresses on them that no other test uses.
#ifndef MIVO_TESTS_SUPPORT_TRANSPORT_H_
#define MIVO_TESTS_SUPPORT_TRANSPORT_H_

#include <mivo/client.h>
#include <mivo/server.h>

#include <gtest/gtest.h>

#include <ostream>
#include <string>

namespace mivo_test {

enum class Transport { Local, Tcp4, Tcp6 };

const char* Name(Transport transport);
inline void PrintTo(Transport transport, std::ostream* out) {
  *out << Name(transport);
}

// For INSTANTIATE_TEST_SUITE_P(OnEveryTransport, SomeSuite, kEveryTransport, TransportName).
inline const auto kEveryTransport = testing::Values(Transport::Local, Transport::Tcp4, Transport::Tcp6);
inline const auto kTcpOnly = testing::Values(Transport::Tcp4, Transport::Tcp6);
inline std::string TransportName(const testing::TestParamInfo<Transport>& info) {
  return Name(info.param);
}

// Where something listens. `name` is the socket's name on the local transport, the port as text on TCP.
struct Address {
  Transport transport = Transport::Local;
  std::string host;
  std::string name;
};

// A number as text, unique to this process and call: it survives the re-formatting of InitMIVOServer.
std::string UniqueSocketName();
std::string SocketPath(const std::string& name);

// What a server prints when it has made its socket and the user who runs the tests may not give files away.
std::string ChownRemark(Transport transport);

// A port on which nobody listens, kept from other tests until this process ends: a socket stays bound to it without
// listening. Outside the range from which the system picks ports by itself.
int FreePort(Transport family);

Address FreeAddress(Transport transport);

inline bool InitServer(IServer* server, const Address& address) {
  switch (address.transport) {
    case Transport::Tcp4:
      return server->InitMIVOServerTcp4(address.host.c_str(), address.name.c_str());
    case Transport::Tcp6:
      return server->InitMIVOServerTcp6(address.host.c_str(), address.name.c_str());
    case Transport::Local:
      break;
  }
  return server->InitMIVOServer(address.name.c_str());
}

inline bool StartServer(IServer* server, const Address& address) {
  switch (address.transport) {
    case Transport::Tcp4:
      return server->StartMIVOServerTcp4(address.host.c_str(), address.name.c_str());
    case Transport::Tcp6:
      return server->StartMIVOServerTcp6(address.host.c_str(), address.name.c_str());
    case Transport::Local:
      break;
  }
  return server->StartMIVOServer(address.name.c_str());
}

inline bool InitClient(IClient* client, const Address& address) {
  switch (address.transport) {
    case Transport::Tcp4:
      return client->InitMIVOClientTcp4(address.host.c_str(), address.name.c_str(), true);
    case Transport::Tcp6:
      return client->InitMIVOClientTcp6(address.host.c_str(), address.name.c_str(), true);
    case Transport::Local:
      break;
  }
  return client->InitMIVOClient(address.name.c_str(), true);
}

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_TRANSPORT_H_
