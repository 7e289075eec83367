#include "server/listener.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <uv.h>

#include <functional>
#include <vector>

#include "calls/diagnostics.h"
#include "support/raw_client.h"
#include "support/stdout_capture.h"
#include "support/teardown.h"
#include "support/transport.h"
#include "support/uv_faults.h"
#include "unit/test_loop.h"

namespace mivo {
namespace {

using mivo_test::Fault;
using mivo_test::RawPeer;
using mivo_test::ScopedFault;
using mivo_test::Transport;

class ListenerOnEveryTransport : public testing::TestWithParam<Transport> {
 protected:
  ListenerOnEveryTransport() {
    const auto take = [this](int descriptor) {
      accepted_.push_back(descriptor);
      if (on_incoming_) on_incoming_();
    };
    EXPECT_EQ(listener_.Listen({KindOf(GetParam()), address_.name, address_.host}, take), 0);
  }
  ~ListenerOnEveryTransport() override {
    listener_.Close();
    for (const int descriptor : accepted_) {
      if (descriptor >= 0) close(descriptor);
    }
  }

  static Endpoint::Kind KindOf(Transport transport) {
    switch (transport) {
      case Transport::Tcp4:
        return Endpoint::kTcp4;
      case Transport::Tcp6:
        return Endpoint::kTcp6;
      case Transport::Local:
        break;
    }
    return Endpoint::kLocal;
  }

  void Connect(int count) {
    for (int i = 0; i < count; ++i)
      peers_.push_back(RawPeer::ConnectTo(address_));
  }

  const mivo_test::Address address_ = mivo_test::FreeAddress(GetParam());
  TestLoop loop_;
  Diagnostics print_{this};
  Listener listener_{loop_, print_};
  std::vector<int> accepted_;
  std::function<void()> on_incoming_;
  std::vector<RawPeer> peers_;
};

INSTANTIATE_TEST_SUITE_P(All, ListenerOnEveryTransport, mivo_test::kEveryTransport, mivo_test::TransportName);

TEST_P(ListenerOnEveryTransport, HandsOverSocketsThatDoNotBlock) {
  Connect(1);
  ASSERT_TRUE(loop_.RunUntil([&] { return accepted_.size() == 1; }));
  EXPECT_NE(fcntl(accepted_[0], F_GETFL) & O_NONBLOCK, 0);
  EXPECT_NE(fcntl(accepted_[0], F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_EQ(listener_.kind(), KindOf(GetParam()));
}

TEST_P(ListenerOnEveryTransport, LeavesOthersTheirTurnBetweenManyNewcomers) {
  Connect(100);
  uv_run(loop_.uv(), UV_RUN_NOWAIT);
  EXPECT_GT(accepted_.size(), 0U);
  EXPECT_LT(accepted_.size(), 100U);
  EXPECT_TRUE(loop_.RunUntil([&] { return accepted_.size() == 100; }));
}

TEST_P(ListenerOnEveryTransport, MayBeClosedByItsCallee) {
  on_incoming_ = [this] { listener_.Close(); };
  Connect(3);
  ASSERT_TRUE(loop_.RunUntil([&] { return !accepted_.empty(); }));
  loop_.Shut();
  loop_.Run();
  EXPECT_EQ(accepted_.size(), 1U);
  EXPECT_TRUE(peers_[2].ReadEof());
}

TEST_P(ListenerOnEveryTransport, MayBeClosedByItsCalleeAfterAPause) {
  {
    const ScopedFault fault(Fault::kAcceptCall, 1, 2, UV_EMFILE);
    Connect(3);
    ASSERT_TRUE(loop_.RunUntil([&] { return fault.failures() == 2; }));
    EXPECT_EQ(accepted_, std::vector<int>{UV_EMFILE});
  }
  on_incoming_ = [this] { listener_.Close(); };
  ASSERT_TRUE(loop_.RunUntil([&] { return accepted_.size() == 2; }));
  loop_.Shut();
  loop_.Run();
  EXPECT_EQ(accepted_.size(), 2U);
}

TEST_P(ListenerOnEveryTransport, DoesNotMissWhoHasComeDuringAPause) {
  {
    const ScopedFault fault(Fault::kAcceptCall, 1, 2, UV_EMFILE);
    Connect(1);
    ASSERT_TRUE(loop_.RunUntil([&] { return fault.failures() == 2; }));
    Connect(50);
  }
  EXPECT_TRUE(loop_.RunUntil([&] { return accepted_.size() == 52; }));
  Connect(1);
  EXPECT_TRUE(loop_.RunUntil([&] { return accepted_.size() == 53; }));
}

TEST_P(ListenerOnEveryTransport, ReportsOtherErrorsAndGoesOn) {
  const ScopedFault fault(Fault::kAcceptCall, 1, 2, UV_EPROTO);
  Connect(1);
  ASSERT_TRUE(loop_.RunUntil([&] { return accepted_.size() == 3; }));
  EXPECT_EQ(accepted_[0], UV_EPROTO);
  EXPECT_EQ(accepted_[1], UV_EPROTO);
  EXPECT_GE(accepted_[2], 0);
}

TEST_P(ListenerOnEveryTransport, SaysNothingOfWhoHasGoneBeforeTheirTurn) {
  const ScopedFault fault(Fault::kAcceptCall, 1, 2, UV_ECONNABORTED);
  Connect(1);
  ASSERT_TRUE(loop_.RunUntil([&] { return accepted_.size() == 1; }));
  EXPECT_EQ(fault.failures(), 2);
  EXPECT_GE(accepted_[0], 0);
}

}  // namespace
}  // namespace mivo
