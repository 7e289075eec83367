#include "transport/endpoint.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace mivo {
namespace {

sockaddr_in Tcp4(const char* host, const char* port, int* status) {
  SocketAddress any;
  std::memset(&any.storage, 0xAA, sizeof any.storage);
  *status = ToSocketAddress({Endpoint::kTcp4, port, host}, &any);
  EXPECT_EQ(any.size, sizeof(sockaddr_in));
  sockaddr_in address;
  std::memcpy(&address, any.get(), sizeof address);
  return address;
}

sockaddr_in6 Tcp6(const char* host, const char* port, int* status) {
  SocketAddress any;
  std::memset(&any.storage, 0xAA, sizeof any.storage);
  *status = ToSocketAddress({Endpoint::kTcp6, port, host}, &any);
  EXPECT_EQ(any.size, sizeof(sockaddr_in6));
  sockaddr_in6 address;
  std::memcpy(&address, any.get(), sizeof address);
  return address;
}

TEST(Endpoint, LiesUnderItsNameInTmp) {
  EXPECT_EQ(SocketPath({Endpoint::kLocal, "4711", ""}), "/tmp/echo.sock.4711");
  EXPECT_EQ(SocketPath({Endpoint::kLocal, "", ""}), "/tmp/echo.sock.");
}

TEST(Endpoint, GivesThePathOfItsName) {
  SocketAddress any;
  std::memset(&any.storage, 0xAA, sizeof any.storage);
  EXPECT_EQ(ToSocketAddress({Endpoint::kLocal, "4711", ""}, &any), 0);
  sockaddr_un address;
  ASSERT_EQ(any.size, sizeof address);
  std::memcpy(&address, any.get(), sizeof address);
  EXPECT_EQ(address.sun_family, AF_UNIX);
  EXPECT_STREQ(address.sun_path, "/tmp/echo.sock.4711");
}

TEST(Endpoint, DoesNotCutAPathThatTheKernelDoesNotTake) {
  ASSERT_EQ(sizeof(sockaddr_un::sun_path), 108U);
  const std::string longest(107 - SocketPath({}).size(), 'x');
  SocketAddress any;
  ASSERT_EQ(ToSocketAddress({Endpoint::kLocal, longest, ""}, &any), 0);
  sockaddr_un address;
  std::memcpy(&address, any.get(), sizeof address);
  EXPECT_EQ(address.sun_path, "/tmp/echo.sock." + longest);
  EXPECT_EQ(ToSocketAddress({Endpoint::kLocal, longest + "x", ""}, &any), -ENAMETOOLONG);
  EXPECT_EQ(ToSocketAddress({Endpoint::kLocal, std::string(5000, 'x'), ""}, &any), -ENAMETOOLONG);
}

TEST(Endpoint, ReadsThePortThatATextBeginsWith) {
  EXPECT_EQ(PortNumber("80"), 80);
  EXPECT_EQ(PortNumber("0080"), 80);
  EXPECT_EQ(PortNumber("80x"), 80);
  EXPECT_EQ(PortNumber(" 80"), 80);
  EXPECT_EQ(PortNumber("-5"), -5);
  EXPECT_EQ(PortNumber("0x50"), 0);
  EXPECT_EQ(PortNumber("abc"), 0);
  EXPECT_EQ(PortNumber(""), 0);
  EXPECT_EQ(PortNumber("4294967376"), 80);
}

TEST(Endpoint, GivesTheTcp4AddressOfItsHost) {
  int status = -1;
  const sockaddr_in address = Tcp4("127.0.0.1", "8080", &status);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(address.sin_family, AF_INET);
  EXPECT_EQ(ntohs(address.sin_port), 8080);
  EXPECT_EQ(ntohl(address.sin_addr.s_addr), INADDR_LOOPBACK);
}

TEST(Endpoint, GivesTheTcp6AddressOfItsHost) {
  int status = -1;
  const sockaddr_in6 address = Tcp6("::1", "8080", &status);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(address.sin6_family, AF_INET6);
  EXPECT_EQ(ntohs(address.sin6_port), 8080);
  EXPECT_EQ(std::memcmp(&address.sin6_addr, &in6addr_loopback, sizeof in6addr_loopback), 0);
}

TEST(Endpoint, LeavesEveryAddressForAHostThatIsNone) {
  for (const char* host : {"", "localhost", "256.0.0.1", "1.2.3", "::1"}) {
    int status = 0;
    const sockaddr_in address = Tcp4(host, "8080", &status);
    EXPECT_LT(status, 0) << host;
    EXPECT_EQ(address.sin_family, AF_INET) << host;
    EXPECT_EQ(ntohs(address.sin_port), 8080) << host;
    EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_ANY)) << host;
  }
  for (const char* host : {"", "localhost", "1.2.3.4", ":::"}) {
    int status = 0;
    const sockaddr_in6 address = Tcp6(host, "8080", &status);
    EXPECT_LT(status, 0) << host;
    EXPECT_EQ(address.sin6_family, AF_INET6) << host;
    EXPECT_EQ(ntohs(address.sin6_port), 8080) << host;
    EXPECT_EQ(std::memcmp(&address.sin6_addr, &in6addr_any, sizeof in6addr_any), 0) << host;
  }
}

}  // namespace
}  // namespace mivo
