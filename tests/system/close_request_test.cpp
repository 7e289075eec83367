// "s_c_close_server" is answered at once and without a token, so its answer may overtake those to posts on its key.
#include <mivo/mivo.h>

#include "support/event.h"
#include "support/raw_served_client.h"
#include "support/reply.h"
#include "support/test_client.h"
#include "support/test_server.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <string>

using namespace mivo_test;

namespace {

constexpr int kKey = 7;
constexpr int kLimitMs = 2000 * kSlowdown;

bool IsTrueAlone(const MIVOParams* reply) {
  MIVOValue* const value = reply->GetValue(0);
  return reply->ParamsSize() == 1 && value != nullptr && value->IsBool() && value->GetBool();
}

class CloseRequest : public testing::TestWithParam<Transport> {};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, CloseRequest, kEveryTransport, TransportName);

TEST_P(CloseRequest, GetsItsOwnAnswerWhileAPostOnItsKeyIsHandled) {
  Event entered;
  Event leave;
  TestServer server(GetParam());
  SetLog(server.get(), "", 0);
  server.On("slow", [&](int, MIVOParams*, MIVOParams* reply) {
    entered.Signal();
    leave.WaitFor();
    reply->AddInt(5);
  });
  ASSERT_TRUE(server.Init());
  TestClient client;
  SetLog(client.get(), "", 0);
  ASSERT_TRUE(client.Init(server.address()));
  ASSERT_EQ(client->PostMsg("slow", nullptr, kKey), 0);
  ASSERT_TRUE(entered.WaitFor());
  const Reply reply(client->SendMsg("s_c_close_server", nullptr, kKey, kLimitMs));
  EXPECT_FALSE(reply.error());
  EXPECT_TRUE(IsTrueAlone(reply.get()));
  leave.Signal();
}

TEST_P(CloseRequest, GetsItsOwnAnswerWhicheverComesFirst) {
  for (const bool post_first : {false, true}) {
    ClientOfRawServer pair(GetParam());
    SetLog(pair.client().get(), "", 0);
    ASSERT_TRUE(pair.Connect());
    ASSERT_EQ(pair.client()->PostMsg("slow", nullptr, kKey), 0);
    ASSERT_TRUE(pair.peer().ReadFrame());
    PendingCall call([&] { return pair.client()->SendMsg("s_c_close_server", nullptr, kKey, kLimitMs); });
    ASSERT_TRUE(pair.peer().ReadFrame());
    const std::string to_post = ServerReply(Wire().Int(5), kKey, std::nullopt);
    const std::string to_close = ServerReply(Wire().Bool(true), kKey, std::nullopt);
    ASSERT_TRUE(pair.peer().SendFrame(post_first ? to_post : to_close));
    ASSERT_TRUE(pair.peer().SendFrame(post_first ? to_close : to_post));
    const Reply reply(call.Wait());
    EXPECT_FALSE(reply.error()) << "post first: " << post_first;
    EXPECT_TRUE(reply.get() != nullptr && IsTrueAlone(reply.get())) << "post first: " << post_first;
  }
}

}  // namespace
