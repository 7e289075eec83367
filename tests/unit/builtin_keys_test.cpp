#include "transport/builtin_keys.h"

#include <gtest/gtest.h>

namespace mivo {
namespace {

// Peers that were built elsewhere spell them so.
TEST(BuiltinKeys, AreSpelledAsPeersSpellThem) {
  EXPECT_STREQ(kVersionBanner, "MIVO Version: 1.1.0.12");
  EXPECT_EQ(sizeof kVersionBanner, 22U + 1U);
  EXPECT_STREQ(kNameKey, "s_c_sw_name");
  EXPECT_STREQ(kThreadIdKey, "s_c_sw_threadid");
  EXPECT_STREQ(kDataKey, "s_c_sw_data");
  EXPECT_STREQ(kSemIdKey, "s_c_sw_semid");
  EXPECT_STREQ(kRetval, "retval");
  EXPECT_STREQ(kVersionMethod, "s_c_version");
  EXPECT_STREQ(kCloseServerMethod, "s_c_close_server");
  EXPECT_STREQ(kSliceMethod, "s_c_req_body");
  EXPECT_STREQ(kSliceHeaderMethod, "s_c_req_header");
  EXPECT_STREQ(kVersionKey, "VERSION");
  EXPECT_STREQ(kLargeDataKey, "s_c_largedata");
  EXPECT_STREQ(kConnectNotice, "s_c_connect");
  EXPECT_STREQ(kClosedNotice, "s_c_closed");
  EXPECT_STREQ(kBuiltinClosedNotice, "s_c_buildin_closed");
  EXPECT_STREQ(kCreatePortNotice, "s_c_createport");
  EXPECT_STREQ(kLogSink, "s_c_log");
  EXPECT_STREQ(kErrorCodeKey, "errorCode");
  EXPECT_EQ(kErrorNotConnected, -1000);
  EXPECT_EQ(kErrorNoReply, -1001);
}

}  // namespace
}  // namespace mivo
