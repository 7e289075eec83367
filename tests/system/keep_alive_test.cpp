// Both ends of a call's TCP connection ask the kernel to look whether the other is still there.
#include <mivo/mivo.h>

#include "support/event.h"
#include "support/teardown.h"
#include "support/test_client.h"
#include "support/test_server.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cstdlib>
#include <string>
#include <vector>

using namespace mivo_test;

namespace {

int PortFrom(decltype(&getsockname) get_name, int descriptor) {
  sockaddr_storage storage{};
  socklen_t size = sizeof storage;
  if (get_name(descriptor, reinterpret_cast<sockaddr*>(&storage), &size) != 0) return 0;
  if (storage.ss_family == AF_INET) return ntohs(reinterpret_cast<sockaddr_in*>(&storage)->sin_port);
  if (storage.ss_family == AF_INET6) return ntohs(reinterpret_cast<sockaddr_in6*>(&storage)->sin6_port);
  return 0;
}

// The descriptors of this process that are connected to the port, or from it.
std::vector<int> ConnectedAt(int port) {
  std::vector<int> found;
  ForEachEntry("/proc/self/fd", [&](const char* name) {
    const int descriptor = std::atoi(name);
    const int peer_port = PortFrom(getpeername, descriptor);
    if (peer_port != 0 && (peer_port == port || PortFrom(getsockname, descriptor) == port)) found.push_back(descriptor);
  });
  return found;
}

int Option(int descriptor, int level, int name) {
  int value = -1;
  socklen_t size = sizeof value;
  return getsockopt(descriptor, level, name, &value, &size) == 0 ? value : -1;
}

void ExpectKeepAlive(const std::vector<int>& descriptors) {
  for (const int descriptor : descriptors) {
    EXPECT_EQ(Option(descriptor, SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(Option(descriptor, IPPROTO_TCP, TCP_KEEPIDLE), 60);
    EXPECT_EQ(Option(descriptor, IPPROTO_TCP, TCP_KEEPCNT), 3);
    EXPECT_EQ(Option(descriptor, IPPROTO_TCP, TCP_KEEPINTVL), 10);
  }
}

class KeepAlive : public testing::TestWithParam<Transport> {};

INSTANTIATE_TEST_SUITE_P(OverTcp, KeepAlive, kTcpOnly, TransportName);

TEST_P(KeepAlive, IsOnAtBothEndsOfAConnection) {
  TestServer server(GetParam());
  SetLog(server.get(), "", 0);
  server.On("six", [](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(6); });
  ASSERT_TRUE(server.Init());
  TestClient client;
  SetLog(client.get(), "", 0);
  ASSERT_TRUE(client.Init(server.address()));
  ASSERT_EQ(TakeInt(client->SendMsg("six", nullptr, 0, 0)), 6);
  const std::vector<int> ends = ConnectedAt(std::atoi(server.address().name.c_str()));
  ASSERT_EQ(ends.size(), 2u);
  ExpectKeepAlive(ends);
}

}  // namespace
