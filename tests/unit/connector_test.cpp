#include "client/connector.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "support/event.h"
#include "support/stdout_capture.h"
#include "support/teardown.h"
#include "support/transport.h"
#include "support/uv_faults.h"
#include "transport/socket.h"

namespace mivo {
namespace {

using mivo_test::Fault;
using mivo_test::ScopedFault;
using mivo_test::ScopedHook;
using mivo_test::StdoutCapture;
using mivo_test::Transport;

Endpoint EndpointOf(const mivo_test::Address& address) {
  switch (address.transport) {
    case Transport::Tcp4:
      return {Endpoint::kTcp4, address.name, address.host};
    case Transport::Tcp6:
      return {Endpoint::kTcp6, address.name, address.host};
    case Transport::Local:
      break;
  }
  return {Endpoint::kLocal, address.name, ""};
}

class ConnectorOnEveryTransport : public testing::TestWithParam<Transport> {
 protected:
  ~ConnectorOnEveryTransport() override {
    for (const int socket : sockets_)
      close(socket);
    if (endpoint_.kind == Endpoint::kLocal) unlink(SocketPath(endpoint_).c_str());
  }

  void Listen(int backlog) {
    listening_ = Keep(OpenSocket(endpoint_.kind));
    const int on = 1;
    setsockopt(listening_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    SocketAddress address;
    ASSERT_EQ(ToSocketAddress(endpoint_, &address), 0);
    ASSERT_EQ(bind(listening_, address.get(), address.size), 0);
    ASSERT_EQ(listen(listening_, backlog), 0);
  }

  // Nobody is accepted, until the kernel lets further ones wait or turns them away.
  void Fill() {
    Listen(0);
    Keep(Connector().Connect(endpoint_));
  }

  int Keep(int socket) {
    EXPECT_GE(socket, 0);
    sockets_.push_back(socket);
    return socket;
  }

  const Endpoint endpoint_ = EndpointOf(mivo_test::FreeAddress(GetParam()));
  int listening_ = -1;
  Connector connector_;

 private:
  std::vector<int> sockets_;
};

INSTANTIATE_TEST_SUITE_P(All, ConnectorOnEveryTransport, mivo_test::kEveryTransport, mivo_test::TransportName);

class ConnectorOverTcp : public ConnectorOnEveryTransport {};

INSTANTIATE_TEST_SUITE_P(All, ConnectorOverTcp, mivo_test::kTcpOnly, mivo_test::TransportName);

TEST_P(ConnectorOnEveryTransport, GivesAConnectedSocketThatDoesNotBlock) {
  Listen(8);
  const int socket = Keep(connector_.Connect(endpoint_));
  const int accepted = Keep(accept4(listening_, nullptr, nullptr, SOCK_CLOEXEC));
  EXPECT_NE(fcntl(socket, F_GETFL) & O_NONBLOCK, 0);
  char byte = 0;
  EXPECT_EQ(recv(socket, &byte, 1, 0), -1);
  EXPECT_EQ(errno, EAGAIN);
  ASSERT_EQ(send(accepted, "x", 1, MSG_NOSIGNAL), 1);
  EXPECT_EQ(recv(socket, &byte, 1, 0), 1);
}

TEST_P(ConnectorOnEveryTransport, SaysWhyThereIsNoConnectionAndKeepsNothing) {
  const mivo_test::Resources before = mivo_test::CountResources();
  EXPECT_EQ(connector_.Connect(endpoint_), endpoint_.kind == Endpoint::kLocal ? -ENOENT : -ECONNREFUSED);
  for (const Fault fault : {Fault::kSocketCall, Fault::kConnectCall}) {
    const StdoutCapture output;
    const ScopedFault failing(fault, 1, 1, -ENOMEM);
    EXPECT_EQ(connector_.Connect(endpoint_), -ENOMEM);
    const std::string line = fault == Fault::kSocketCall ? "uv_tcp_init error\n" : "uv_tcp_connect error\n";
    EXPECT_EQ(output.Text(), endpoint_.kind == Endpoint::kTcp4 ? line : "");
  }
  mivo_test::ExpectSameResources(before);
}

TEST_P(ConnectorOnEveryTransport, DoesNotBeginAfterAClose) {
  Listen(8);
  connector_.Close();
  EXPECT_EQ(connector_.Connect(endpoint_), -ECANCELED);
  connector_.Close();
}

TEST_P(ConnectorOnEveryTransport, IsEndedByACloseAtTheLastMoment) {
  Listen(8);
  const mivo_test::Resources before = mivo_test::CountResources();
  const ScopedHook hook(Fault::kConnectCall, [this] { connector_.Close(); });
  EXPECT_EQ(connector_.Connect(endpoint_), -ECANCELED);
  mivo_test::ExpectSameResources(before);
}

TEST_P(ConnectorOverTcp, IsEndedByACloseWhileNobodyAnswers) {
  Fill();
  int result = 0;
  mivo_test::Event connecting;
  mivo_test::Event over;
  std::thread thread([&] {
    const ScopedHook hook(Fault::kConnectCall, [&] { connecting.Signal(); });
    result = connector_.Connect(endpoint_);
    over.Signal();
  });
  ASSERT_TRUE(connecting.WaitFor());
  EXPECT_FALSE(over.WaitFor(1, std::chrono::milliseconds(50))) << "it waits";
  connector_.Close();
  EXPECT_TRUE(over.WaitFor());
  thread.join();
  EXPECT_EQ(result, -ECANCELED);
}

TEST(ConnectorToALocalSocket, FailsWhenNobodyElseMayWaitThere) {
  const Endpoint endpoint = EndpointOf(mivo_test::FreeAddress(Transport::Local));
  SocketAddress address;
  ASSERT_EQ(ToSocketAddress(endpoint, &address), 0);
  const int listening = OpenSocket(endpoint.kind);
  ASSERT_EQ(bind(listening, address.get(), address.size), 0);
  ASSERT_EQ(listen(listening, 0), 0);
  const int first = Connector().Connect(endpoint);
  EXPECT_GE(first, 0);
  EXPECT_EQ(Connector().Connect(endpoint), -EAGAIN);
  close(first);
  close(listening);
  unlink(SocketPath(endpoint).c_str());
}

TEST(ConnectorToALocalSocket, DoesNotCutAPath) {
  EXPECT_EQ(Connector().Connect({Endpoint::kLocal, std::string(108, 'x'), ""}), -ENAMETOOLONG);
}

}  // namespace
}  // namespace mivo
