#include "calls/line_sink.h"

#include <gtest/gtest.h>
#include <mivo/handler.h>
#include <mivo/params.h>

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "base/handler_scope.h"
#include "support/background.h"
#include "support/event.h"
#include "support/handlers.h"

namespace mivo {
namespace {

using mivo_test::Background;
using mivo_test::Deletions;
using mivo_test::Event;
using mivo_test::LambdaMethod;

constexpr std::chrono::milliseconds kMoment{50};

ClosedHandlers Closing(IServerMethod* handler) {
  ClosedHandlers closed;
  closed.Add(handler);
  return closed;
}

TEST(LineSink, TakesNoLineWhenThereIsNone) {
  LineSink host(nullptr);
  EXPECT_EQ(host.Get(), nullptr);
  EXPECT_FALSE(host.Take("line\n"));
}

TEST(LineSink, ForgetsAHandlerThatIsAboutToGo) {
  LineSink host(nullptr);
  int lines = 0;
  Deletions deletions;
  auto* const both = new LambdaMethod([&](int, MIVOParams*, MIVOParams*) { ++lines; }, &deletions);
  LambdaMethod other([&](int, MIVOParams*, MIVOParams*) { ++lines; });
  ClosedHandlers closed = Closing(both);
  host.Set(&other);
  host.Remove(closed);
  EXPECT_EQ(host.Get(), &other);
  host.Set(both);
  EXPECT_TRUE(host.Take("line\n"));
  host.Remove(closed);
  EXPECT_EQ(host.Get(), nullptr);
  EXPECT_FALSE(host.Take("line\n"));
  EXPECT_EQ(lines, 1);
  host.Delete(std::move(closed));
  EXPECT_EQ(deletions.count, 1);
}

TEST(LineSink, ForgetsWhatItDeletes) {
  LineSink host(nullptr);
  auto* const both = new LambdaMethod(nullptr);
  host.Set(both);
  host.Delete(Closing(both));
  EXPECT_EQ(host.Get(), nullptr);
}

// A sink that stays where it is until it is let go.
struct StayingSink {
  Event entered;
  Event leave;
  Deletions deletions;
  LambdaMethod* const sink = new LambdaMethod(
      [this](int, MIVOParams*, MIVOParams*) {
        entered.Signal();
        leave.WaitFor();
        EXPECT_EQ(deletions.count, 0);
      },
      &deletions);
};

TEST(LineSink, DeletesAHandlerWhenNoLineIsWithIt) {
  StayingSink both;
  LineSink host(nullptr);
  host.Set(both.sink);
  std::thread first([&] { host.Take("line\n"); });
  std::thread second([&] { host.Take("line\n"); });
  ASSERT_TRUE(both.entered.WaitFor(2));
  Background<bool> close([&] {
    host.Delete(Closing(both.sink));
    return true;
  });
  EXPECT_FALSE(close.WaitFor(kMoment));
  EXPECT_EQ(both.deletions.count, 0);
  both.leave.Signal();
  EXPECT_TRUE(close.WaitFor());
  EXPECT_EQ(both.deletions.count, 1);
  first.join();
  second.join();
}

TEST(LineSink, DeletesAHandlerThatTheApplicationHasReplacedWhileALineWasWithIt) {
  StayingSink both;
  LambdaMethod other(nullptr);
  LineSink host(nullptr);
  host.Set(both.sink);
  std::thread first([&] { host.Take("line\n"); });
  ASSERT_TRUE(both.entered.WaitFor());
  host.Set(&other);
  Background<bool> close([&] {
    host.Delete(Closing(both.sink));
    return true;
  });
  EXPECT_FALSE(close.WaitFor(kMoment));
  both.leave.Signal();
  EXPECT_TRUE(close.WaitFor());
  EXPECT_EQ(both.deletions.count, 1);
  EXPECT_EQ(host.Get(), &other);
  first.join();
}

TEST(LineSink, DoesNotWaitForLinesThatAreWithOthers) {
  StayingSink other;
  const std::unique_ptr<LambdaMethod> owned(other.sink);
  LineSink host(nullptr);
  host.Set(other.sink);
  std::thread first([&] { host.Take("line\n"); });
  ASSERT_TRUE(other.entered.WaitFor());
  Deletions deletions;
  host.Delete(Closing(new LambdaMethod(nullptr, &deletions)));
  EXPECT_EQ(deletions.count, 1);
  other.leave.Signal();
  first.join();
}

TEST(LineSink, LeavesADeletionFromInsideToTheEndOfThatCall) {
  const int owner = 0;
  LineSink host(&owner);
  Deletions deletions;
  Deletions again;
  bool inside = false;
  LambdaMethod* both = nullptr;
  both = new LambdaMethod(
      [&](int, MIVOParams*, MIVOParams*) {
        host.Delete(Closing(both));
        EXPECT_EQ(deletions.count, 0);
        // What is not this sink has no reason to stay.
        host.Delete(Closing(new LambdaMethod(nullptr, &again)));
        EXPECT_EQ(again.count, 1);
        inside = HandlerScope::Inside(&owner);
      },
      &deletions);
  host.Set(both);
  EXPECT_TRUE(host.Take("line\n"));
  EXPECT_TRUE(inside);
  EXPECT_EQ(deletions.count, 1);
  EXPECT_EQ(host.Get(), nullptr);
}

TEST(LineSink, WaitsAtTheEndOfThatCallForTheOthers) {
  LineSink host(nullptr);
  Deletions deletions;
  Event entered;
  Event leave;
  LambdaMethod* both = nullptr;
  both = new LambdaMethod(
      [&](int, MIVOParams* request, MIVOParams*) {
        if (std::string(request->GetValue(0)->GetString()) == "close") {
          host.Delete(Closing(both));
        } else {
          entered.Signal();
          leave.WaitFor();
          EXPECT_EQ(deletions.count, 0);
        }
      },
      &deletions);
  host.Set(both);
  std::thread other([&] { host.Take("stay"); });
  ASSERT_TRUE(entered.WaitFor());
  Background<bool> closing([&] { return host.Take("close"); });
  EXPECT_FALSE(closing.WaitFor(kMoment));
  leave.Signal();
  EXPECT_TRUE(closing.WaitFor());
  EXPECT_EQ(deletions.count, 1);
  other.join();
}

TEST(LineSink, OutlivesTheLinesOfOtherThreads) {
  StayingSink staying;
  const std::unique_ptr<LambdaMethod> owned(staying.sink);
  std::optional<LineSink> host(nullptr);
  host->Set(staying.sink);
  std::thread bringing([&] { host->Take("line\n"); });
  ASSERT_TRUE(staying.entered.WaitFor());
  Background<bool> end([&] {
    host.reset();
    return true;
  });
  EXPECT_FALSE(end.WaitFor(kMoment));
  staying.leave.Signal();
  EXPECT_TRUE(end.WaitFor());
  bringing.join();
}

}  // namespace
}  // namespace mivo
