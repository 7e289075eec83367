#include "transport/socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "support/uv_faults.h"

namespace mivo {
namespace {

using mivo_test::Fault;
using mivo_test::ScopedFault;

int Option(int socket, int level, int option) {
  int value = -1;
  socklen_t size = sizeof value;
  EXPECT_EQ(getsockopt(socket, level, option, &value, &size), 0);
  return value;
}

void ExpectSetUpForCalls(int socket) {
  EXPECT_EQ(Option(socket, IPPROTO_TCP, TCP_NODELAY), 1);
  EXPECT_EQ(Option(socket, SOL_SOCKET, SO_KEEPALIVE), 1);
  EXPECT_EQ(Option(socket, IPPROTO_TCP, TCP_KEEPIDLE), 60);
  EXPECT_EQ(Option(socket, IPPROTO_TCP, TCP_KEEPCNT), 3);
  EXPECT_EQ(Option(socket, IPPROTO_TCP, TCP_KEEPINTVL), 10);
}

TEST(OpenSocket, GivesANonBlockingStreamOfItsOwn) {
  for (const auto& [kind, family] :
       {std::pair(Endpoint::kLocal, AF_UNIX), {Endpoint::kTcp4, AF_INET}, {Endpoint::kTcp6, AF_INET6}}) {
    const int socket = OpenSocket(kind);
    ASSERT_GE(socket, 0);
    EXPECT_EQ(Option(socket, SOL_SOCKET, SO_DOMAIN), family);
    EXPECT_EQ(Option(socket, SOL_SOCKET, SO_TYPE), SOCK_STREAM);
    EXPECT_NE(fcntl(socket, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(socket, F_GETFD) & FD_CLOEXEC, 0);
    close(socket);
  }
}

TEST(OpenSocket, SetsTcpUpForCallsAndWhatItAccepts) {
  for (const Endpoint::Kind kind : {Endpoint::kTcp4, Endpoint::kTcp6}) {
    const int listening = OpenSocket(kind);
    const int connecting = OpenSocket(kind);
    SocketAddress address;
    ASSERT_EQ(ToSocketAddress({kind, "0", kind == Endpoint::kTcp4 ? "127.0.0.1" : "::1"}, &address), 0);
    ASSERT_EQ(bind(listening, address.get(), address.size), 0);
    ASSERT_EQ(listen(listening, 1), 0);
    ASSERT_EQ(getsockname(listening, reinterpret_cast<sockaddr*>(&address.storage), &address.size), 0);
    fcntl(connecting, F_SETFL, 0);
    ASSERT_EQ(connect(connecting, address.get(), address.size), 0);
    const int accepted = accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
    ASSERT_GE(accepted, 0);
    ExpectSetUpForCalls(connecting);
    ExpectSetUpForCalls(accepted);
    for (const int socket : {listening, connecting, accepted})
      close(socket);
  }
}

TEST(OpenSocket, SaysWhyThereIsNone) {
  const ScopedFault fault(Fault::kSocketCall, 1, 1, -ENFILE);
  EXPECT_EQ(OpenSocket(Endpoint::kTcp4), -ENFILE);
}

}  // namespace
}  // namespace mivo
