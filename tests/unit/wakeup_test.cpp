#include "loop/wakeup.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "support/uv_faults.h"
#include "unit/test_loop.h"

namespace mivo {
namespace {

TEST(Wakeup, GoesNowhereBeforeItIsOpenAndAfterItWasClosed) {
  TestLoop loop;
  Wakeup wakeup;
  EXPECT_FALSE(wakeup.Send());
  ASSERT_EQ(wakeup.Open(loop.uv(), [] {}), 0);
  EXPECT_TRUE(wakeup.Send());
  wakeup.Close();
  EXPECT_FALSE(wakeup.Send());
  wakeup.Close();
}

TEST(Wakeup, CallsTheFunctionOnTheLoopThread) {
  TestLoop loop;
  Wakeup wakeup;
  int calls_here = 0;
  int calls_elsewhere = 0;
  ASSERT_EQ(wakeup.Open(loop.uv(), [&] { ++(loop.InThread() ? calls_here : calls_elsewhere); }), 0);
  bool sent = false;
  std::thread([&] { sent = wakeup.Send(); }).join();
  EXPECT_TRUE(sent);
  EXPECT_EQ(calls_here, 0);
  EXPECT_TRUE(loop.RunUntil([&] { return calls_here > 0; }));
  EXPECT_EQ(calls_elsewhere, 0);
  wakeup.Close();
}

TEST(Wakeup, CallsItAgainForASendAfterACall) {
  TestLoop loop;
  Wakeup wakeup;
  int calls = 0;
  ASSERT_EQ(wakeup.Open(loop.uv(), [&] { ++calls; }), 0);
  for (int round = 1; round <= 3; ++round) {
    wakeup.Send();
    const int before = calls;
    EXPECT_TRUE(loop.RunUntil([&] { return calls > before; })) << round;
  }
  wakeup.Close();
}

TEST(Wakeup, CallsNothingOnceClosed) {
  TestLoop loop;
  Wakeup wakeup;
  bool called = false;
  ASSERT_EQ(wakeup.Open(loop.uv(), [&] { called = true; }), 0);
  wakeup.Send();
  wakeup.Close();
  loop.Run();
  EXPECT_FALSE(called);
}

TEST(Wakeup, MayBeClosedFromItsFunction) {
  TestLoop loop;
  Wakeup wakeup;
  bool called = false;
  ASSERT_EQ(wakeup.Open(loop.uv(),
                        [&] {
                          called = true;
                          wakeup.Close();
                        }),
            0);
  wakeup.Send();
  loop.Run();
  EXPECT_TRUE(called);
  EXPECT_FALSE(wakeup.Send());
}

TEST(Wakeup, SaysWhatLibuvSaysWhenItCannotBeOpened) {
  TestLoop loop;
  Wakeup wakeup;
  {
    const mivo_test::ScopedFault fault(mivo_test::Fault::kAsyncInit, 1, 1, UV_EMFILE);
    EXPECT_EQ(wakeup.Open(loop.uv(), [] {}), UV_EMFILE);
  }
  EXPECT_FALSE(wakeup.Send());
  EXPECT_EQ(wakeup.Open(loop.uv(), [] {}), 0);
  wakeup.Close();
}

TEST(Wakeup, MayBeSentWhileItIsClosed) {
  TestLoop loop;
  for (int round = 0; round < 50; ++round) {
    Wakeup wakeup;
    ASSERT_EQ(wakeup.Open(loop.uv(), [] {}), 0);
    std::vector<std::thread> senders;
    for (int i = 0; i < 3; ++i) {
      senders.emplace_back([&] {
        while (wakeup.Send())
          std::this_thread::yield();
      });
    }
    wakeup.Close();
    for (std::thread& sender : senders)
      sender.join();
    loop.Run();
  }
}

}  // namespace
}  // namespace mivo
