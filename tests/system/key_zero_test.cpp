// Key 0 means the caller's thread id, also where the arguments hold a key that is 0 itself.
#include <mivo/mivo.h>

#include "support/background.h"
#include "support/raw_served_client.h"
#include "support/reply.h"
#include "support/slices.h"
#include "support/test_client.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <string>

using namespace mivo_test;

namespace {

class KeyZero : public testing::TestWithParam<Transport> {
 protected:
  void SetUp() override {
    SetLog(pair_.client().get(), "", 0);
    ASSERT_TRUE(pair_.Connect());
  }

  // Decoded, as a handler's set is that is passed on.
  static void AddZeroKey(MIVOParams* params) {
    params->AddKeyValueInt("s_c_sw_threadid", 0);
    params->ToParams();
  }

  ClientOfRawServer pair_{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, KeyZero, kEveryTransport, TransportName);

TEST_P(KeyZero, AmongTheArgumentsOfALargeCallIsTheThreadsId) {
  Background<Reply> call([&] {
    MIVOParams params;
    AddZeroKey(&params);
    return Reply(pair_.client()->SendMsgEx("f", &params, 0, 1));
  });
  const TakenTransfer transfer = TakeTransfer(&pair_.peer(), AsServer);
  ASSERT_EQ(transfer.slices.size(), 1u);
  EXPECT_EQ(transfer.slices[0].key, call.thread_id());
  EXPECT_EQ(transfer.slices[0].envelope_key, call.thread_id());
}

TEST_P(KeyZero, AmongTheArgumentsOfACallIsTheThreadsId) {
  Background<Reply> call([&] {
    MIVOParams params;
    AddZeroKey(&params);
    return Reply(pair_.client()->SendMsg("f", &params, 0, 1));
  });
  EXPECT_EQ(IntOf(pair_.peer().ReadFrame().value_or(""), "s_c_sw_threadid"), call.thread_id());
}

}  // namespace
