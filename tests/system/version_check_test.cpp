// The version check of a newcomer needs none of the threads that run handlers.
#include <mivo/mivo.h>

#include "support/background.h"
#include "support/event.h"
#include "support/sanitizers.h"
#include "support/test_client.h"
#include "support/test_server.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>

using namespace mivo_test;

namespace {

int PoolThreads() {
  const char* const size = std::getenv("UV_THREADPOOL_SIZE");
  return size == nullptr ? 4 : std::max(1, std::atoi(size));
}

class VersionCheck : public testing::TestWithParam<Transport> {
 protected:
  void SetUp() override {
    SetLog(server_.get(), "", 0);
    server_.On("hold", [this](int, MIVOParams*, MIVOParams*) {
      held_.Signal();
      released_.WaitFor();
    });
    ASSERT_TRUE(server_.Init());
    holder_ = server_.Connect();
    for (int i = 0; i < PoolThreads(); ++i)
      ASSERT_TRUE(holder_.SendFrame(Request({"hold", i})));
    ASSERT_TRUE(held_.WaitFor(PoolThreads()));
  }
  void TearDown() override { released_.Signal(); }

  static constexpr std::chrono::milliseconds kSoon{2000 * kSlowdown};

  Event held_;
  Event released_;
  TestServer server_{GetParam()};
  RawPeer holder_;
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, VersionCheck, kEveryTransport, TransportName);

TEST_P(VersionCheck, IsAnsweredWhileEveryHandlerThreadIsBusy) {
  RawPeer newcomer = server_.Connect();
  const std::string check = HandshakeRequest(1234, "0x5a10");
  ASSERT_TRUE(newcomer.SendFrame(check));
  EXPECT_EQ(newcomer.ReadFrame(kSoon), HandshakeReply(check));
}

TEST_P(VersionCheck, LetsAClientInWhileEveryHandlerThreadIsBusy) {
  TestClient newcomer;
  SetLog(newcomer.get(), "", 0);
  Background<bool> connected([&] { return newcomer.Init(server_.address()); });
  EXPECT_TRUE(connected.WaitFor(kSoon));
  released_.Signal();
  EXPECT_TRUE(connected.Get());
}

TEST_P(VersionCheck, RefusesAnotherVersionWhileEveryHandlerThreadIsBusy) {
  RawPeer newcomer = server_.Connect();
  const std::string check = Request({"s_c_version", 1234, HandshakeData("MIVO Version: 0.0.0.0"), "0x5a10"});
  ASSERT_TRUE(newcomer.SendFrame(check));
  EXPECT_EQ(newcomer.ReadFrame(kSoon), HandshakeReply(check, false));
}

}  // namespace
