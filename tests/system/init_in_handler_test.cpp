// Connecting a client that is connected, in a handler of its own.
#include <mivo/mivo.h>

#include "support/event.h"
#include "support/raw_served_client.h"
#include "support/test_client.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <string>

using namespace mivo_test;

namespace {

class InitInHandler : public testing::TestWithParam<Transport> {};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, InitInHandler, kEveryTransport, TransportName);

TEST_P(InitInHandler, OfAConnectedClientIsTrueAndChangesNothing) {
  ClientOfRawServer pair(GetParam());
  SetLog(pair.client().get(), "", 0);
  pair.client().On("connect again", [&](int, MIVOParams*, MIVOParams* reply) {
    reply->AddBool(pair.client().Init(pair.server().address()));
  });
  ASSERT_TRUE(pair.Connect());
  EXPECT_EQ(pair.peer().Exchange(Request({"connect again", 5, std::nullopt, "0xab"})),
            ClientReply(Wire().Bool(true), 5, "0xab"));
  EXPECT_TRUE(pair.client()->isok());
  EXPECT_FALSE(pair.server().Accept(std::chrono::milliseconds(0)).connected());
}

TEST_P(InitInHandler, OfAConnectedClientIsTrueOnEveryTransport) {
  ClientOfRawServer pair(GetParam());
  SetLog(pair.client().get(), "", 0);
  pair.client().On("connect elsewhere", [&](int, MIVOParams*, MIVOParams* reply) {
    for (const Transport transport : {Transport::Local, Transport::Tcp4, Transport::Tcp6})
      reply->AddBool(pair.client().Init({transport, transport == Transport::Tcp4 ? "127.0.0.1" : "::1", "1"}));
  });
  ASSERT_TRUE(pair.Connect());
  EXPECT_EQ(pair.peer().Exchange(Request({"connect elsewhere", 5, std::nullopt, "0xab"})),
            ClientReply(Wire().Bool(true).Bool(true).Bool(true), 5, "0xab"));
}

}  // namespace
