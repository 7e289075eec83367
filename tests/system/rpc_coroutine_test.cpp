// Calls of coroutines. This source is compiled as C++20.
#include <mivo/rpc.h>
#include <mivo/rpc/coroutine.h>

#include <gtest/gtest.h>

#include <coroutine>
#include <exception>
#include <future>
#include <memory>
#include <string>

#include "support/event.h"
#include "support/transport.h"

namespace {

// Runs at once, and by itself from then on.
struct Detached {
  struct promise_type {
    Detached get_return_object() { return {}; }
    std::suspend_never initial_suspend() noexcept { return {}; }
    std::suspend_never final_suspend() noexcept { return {}; }
    void return_void() {}
    void unhandled_exception() { std::terminate(); }
  };
};

class RpcCoroutine : public testing::Test {
 protected:
  RpcCoroutine() {
    server_.on("add", [](int a, int b) { return a + b; });
    server_.on("touch", [] {});
    server_.on("fails", [] { throw mivo::Error("own.code", "own text"); });
    server_.on("text", [](const std::string& text) { return text + "!"; });
    server_.listen(address_);
  }
  const std::string address_ = "unix:" + mivo_test::UniqueSocketName();
  mivo::Server server_;
};

Detached AddUp(const mivo::Client& client, int count, std::promise<int>& done) {
  int sum = 0;
  for (int i = 0; i < count; ++i)
    sum = co_await mivo::awaited<int>(client, "add", sum, i);
  co_await mivo::awaited(client, "touch");
  done.set_value(sum);
}

TEST_F(RpcCoroutine, GoesOnWithTheResult) {
  mivo::Client client(address_);
  std::promise<int> done;
  AddUp(client, 100, done);
  EXPECT_EQ(done.get_future().get(), 4950);
}

Detached Fail(const mivo::Client& client, std::promise<std::string>& done) {
  std::string told;
  try {
    co_await mivo::awaited(client, "fails");
  } catch (const mivo::Error& error) {
    told = error.code() + ": " + error.what();
  }
  try {
    co_await mivo::awaited<int>(client, "nothing of that name");
  } catch (const mivo::NoSuchMethod&) {
    told += ", no such method";
  }
  const std::string text = co_await mivo::awaited<std::string>(client.within(std::chrono::seconds(20)), "text", told);
  done.set_value(text);
}

TEST_F(RpcCoroutine, IsThrownWhatHasComeOfACall) {
  mivo::Client client(address_);
  std::promise<std::string> done;
  Fail(client, done);
  EXPECT_EQ(done.get_future().get(), "own.code: own text, no such method!");
}

Detached Count(const mivo::Client& client, int number, mivo_test::Event& ended, std::atomic<int>& sum) {
  sum += co_await mivo::awaited<int>(client, "add", number, 1);
  ended.Signal();
}

TEST_F(RpcCoroutine, TakesNoThreadEach) {
  constexpr int kMany = 2000;
  mivo_test::Event ended;
  std::atomic<int> sum{0};
  mivo::Client client(address_);
  for (int i = 0; i < kMany; ++i)
    Count(client, i, ended, sum);
  ASSERT_TRUE(ended.WaitFor(kMany));
  EXPECT_EQ(sum, kMany * (kMany + 1) / 2);
}

}  // namespace
