// A peer may put a NUL into a name. It belongs to the name in a large call as in a plain one.
#include <mivo/mivo.h>

#include "support/large_peer.h"
#include "support/slices.h"
#include "support/test_client.h"
#include "support/test_server.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <string>

using namespace mivo_test;

namespace {

class NamesWithNul : public testing::TestWithParam<Transport> {};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, NamesWithNul, kEveryTransport, TransportName);

TEST_P(NamesWithNul, ReachTheSameHandlerInALargeCallAsInAPlainOne) {
  TestServer server(GetParam());
  SetLog(server.get(), "", 0);
  server.On("foo", [](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(1); });
  ASSERT_TRUE(server.Init());
  RawPeer peer = server.Connect();
  const std::string name("foo\0bar", 7);
  const std::string plain = peer.Exchange(Request({name, 9, std::nullopt, "0x1"})).value_or("");
  const std::string large = LargeCall(&peer, 9, Whole("", name, 9));
  ASSERT_EQ(Describe(plain).front(), "\"no event: foo\"") << "a text ends at its NUL, the name does not";
  EXPECT_EQ(Describe(large).front(), Describe(plain).front());
}

}  // namespace
