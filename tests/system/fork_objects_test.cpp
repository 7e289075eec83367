// The objects of the parent in a child of fork: not connected, and they say so at once.
#include <mivo/mivo.h>

#include "support/event.h"
#include "support/raw_client.h"
#include "support/reply.h"
#include "support/sanitizers.h"
#include "support/test_client.h"
#include "support/test_server.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <thread>

using namespace mivo_test;

namespace {

// An end, for a call that does not return.
constexpr unsigned int kChildSeconds = 5 * kSlowdown;

// In a child: 0 when `check` is true before the alarm goes off.
int InAChild(const std::function<bool()>& check) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(kChildSeconds);
    _exit(check() ? 0 : 1);
  }
  int status = -1;
  if (child < 0 || waitpid(child, &status, 0) != child) return -1;
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

class ForkedObjects : public testing::TestWithParam<Transport> {
 protected:
  void SetUp() override {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer does not follow the locks of a child of fork";
#endif
    SetLog(server_.get(), "", 0);
    SetLog(client_.get(), "", 0);
    server_.On("six", [](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(6); });
    server_.On("s_c_connect", [this](int id, MIVOParams*, MIVOParams*) { id_ = id; });
    server_.On("hold", [this](int, MIVOParams*, MIVOParams* reply) {
      held_.Signal();
      released_.WaitFor();
      reply->AddInt(1);
    });
    ASSERT_TRUE(server_.Init());
    ASSERT_TRUE(client_.Init(server_.address()));
    ASSERT_EQ(TakeInt(client_->SendMsg("six", nullptr, 0, 0)), 6);
  }

  void ExpectAsBefore() {
    EXPECT_EQ(TakeInt(client_->SendMsg("six", nullptr, 0, 60000)), 6);
  }

  std::atomic<int> id_{0};
  Event held_;
  Event released_;
  TestServer server_{GetParam()};
  TestClient client_;
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, ForkedObjects, kEveryTransport, TransportName);

TEST_P(ForkedObjects, AreNotConnected) {
  EXPECT_EQ(InAChild([&] { return !client_->isok(); }), 0);
  EXPECT_EQ(InAChild([&] { return !server_->isok(); }), 0);
  ExpectAsBefore();
}

TEST_P(ForkedObjects, ReturnFromCallsOfAClientAtOnce) {
  EXPECT_EQ(InAChild([&] { return TakeError(client_->SendMsg("six", nullptr, 0, 0)) == kNotConnected; }), 0);
  EXPECT_EQ(InAChild([&] { return TakeError(client_->SendMsgFast("six", nullptr, 0, 0)) == kNotConnected; }), 0);
  EXPECT_EQ(InAChild([&] { return TakeError(client_->SendMsgEx("six", nullptr, 0, 0)) == kNotConnected; }), 0);
  ExpectAsBefore();
}

TEST_P(ForkedObjects, ReturnFromPostsOfAClientAtOnce) {
  EXPECT_EQ(InAChild([&] { return client_->PostMsg("six", nullptr, 0) == 0; }), 0);
  EXPECT_EQ(InAChild([&] { return client_->PostMsgFast("six", nullptr, 0) == 0; }), 0);
  ExpectAsBefore();
}

TEST_P(ForkedObjects, ReturnFromCallsOfAServerAtOnce) {
  EXPECT_EQ(InAChild([&] { return server_->SendMsg(id_, "six", nullptr, 0, 1000000) == nullptr; }), 0);
  EXPECT_EQ(InAChild([&] { return server_->PostMsg(id_, "six", nullptr, 0) == 0; }), 0);
  ExpectAsBefore();
}

TEST_P(ForkedObjects, ReturnAtOnceAlsoWhereACallOfTheParentHasTheTurn) {
  std::thread caller([&] { EXPECT_EQ(TakeInt(client_->SendMsg("hold", nullptr, 0, 0)), 1); });
  EXPECT_TRUE(held_.WaitFor());
  EXPECT_EQ(InAChild([&] {
              return !client_->isok() && TakeError(client_->SendMsg("six", nullptr, 0, 0)) == kNotConnected &&
                     TakeError(client_->SendMsgEx("six", nullptr, 0, 0)) == kNotConnected &&
                     client_->PostMsg("six", nullptr, 0) == 0;
            }),
            0);
  released_.Signal();
  caller.join();
  ExpectAsBefore();
}

}  // namespace
