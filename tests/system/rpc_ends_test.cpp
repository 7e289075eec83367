// The end of serving, and looking on: drain, signals, observation, what there is.
#include <mivo/rpc.h>
#include <mivo/rpc/recorder.h>
#include <mivo/rpc/signals.h>

#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include "support/background.h"
#include "support/event.h"
#include "support/transport.h"

namespace {

using mivo_test::Background;
using mivo_test::Event;
using mivo_test::Eventually;
using namespace std::chrono_literals;
using Direction = mivo::Observation::Direction;

std::string OwnAddress() {
  return "unix:" + mivo_test::UniqueSocketName();
}

TEST(RpcDrain, LetsRunningHandlersEndAndTheirAnswersLeave) {
  Event begun;
  Event go_on;
  const std::string address = OwnAddress();
  mivo::Server server;
  server.on("work", [&] {
    begun.Signal();
    go_on.WaitFor();
    return 42;
  });
  server.listen(address);
  mivo::Client client(address);
  std::future<int> working = client.async<int>("work");
  ASSERT_TRUE(begun.WaitFor());

  // Refuses what is new, tells what has not ended, ...
  EXPECT_EQ(server.drain(50ms), std::vector<std::string>{"work"});
  const mivo::Result<int> late = client.try_call<int>("work");
  ASSERT_FALSE(late);
  EXPECT_EQ(late.error().code(), mivo::kStoppingCode);
  EXPECT_TRUE(Eventually([&] {
    try {
      mivo::Client newcomer(address);
      return false;
    } catch (const mivo::NotConnected&) {
      return true;
    }
  }));

  // ... and returns when it has.
  Background<std::vector<std::string>> drain([&] { return server.drain(mivo_test::kPatience); });
  go_on.Signal();
  EXPECT_EQ(drain.Get(), std::vector<std::string>());
  server.close();
  EXPECT_EQ(working.get(), 42);
}

TEST(RpcDrain, RunsTheHandlersOfTheThreadsOwnLoop) {
  mivo::Loop loop;
  const std::string address = OwnAddress();
  mivo::Server server;
  server.on("work", loop([] { return 42; }));
  server.listen(address);
  mivo::Client client(address);
  std::future<int> working = client.async<int>("work");
  pollfd readable{loop.descriptor(), POLLIN, 0};
  ASSERT_EQ(poll(&readable, 1, static_cast<int>(mivo_test::kPatience.count())), 1);
  // Nobody runs it by himself.
  EXPECT_EQ(server.drain(50ms), std::vector<std::string>{"work"});
  EXPECT_TRUE(server.drain(mivo_test::kPatience, loop).empty());
  EXPECT_EQ(working.get(), 42);
}

TEST(RpcDrain, LosesNoAnswerOfManyCallers) {
  constexpr int kCallers = 4;
  const std::string address = OwnAddress();
  for (int round = 0; round < 20; ++round) {
    mivo::Server server;
    std::atomic<int> served{0};
    server.on("count", [&] { return ++served; });
    server.listen(address);
    std::atomic<int> answered{0};
    std::atomic<int> wrong{0};
    Event going;
    {
      std::vector<std::unique_ptr<Background<bool>>> callers;
      for (int i = 0; i < kCallers; ++i) {
        callers.push_back(std::make_unique<Background<bool>>([&] {
          mivo::Client client(address);
          for (int calls = 1;; ++calls) {
            const mivo::Result<int> result = client.try_call<int>("count");
            if (!result) {
              if (result.error().code() != mivo::kStoppingCode) ++wrong;
              return true;
            }
            ++answered;
            if (calls == 5) going.Signal();
          }
        }));
      }
      ASSERT_TRUE(going.WaitFor(kCallers));
      EXPECT_TRUE(server.drain(mivo_test::kPatience).empty());
      for (auto& caller : callers)
        caller->Get();
    }
    EXPECT_EQ(answered, served);
    EXPECT_EQ(wrong, 0);
  }
}

bool WaitsForSignals() {
  const mivo::Signals stop({SIGUSR1, SIGUSR2});
  if (stop.wait_for(0ms) != 0) return false;
  Background<int> waiting([&] { return stop.wait(); });
  kill(getpid(), SIGUSR2);
  if (waiting.Get() != SIGUSR2) return false;
  kill(getpid(), SIGUSR1);
  return stop.wait_for(mivo_test::kPatience) == SIGUSR1;
}

// In a process of its own: threads of earlier tests may be there that do not hold them back.
TEST(RpcSignalsDeathTest, AreWaitedForWithoutAHandler) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(_exit(WaitsForSignals() ? 0 : 1), testing::ExitedWithCode(0), "");
}

TEST(RpcSignals, AreGivenBack) {
  sigset_t mask;
  {
    const mivo::Signals stop({SIGUSR1});
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &mask), 0);
    EXPECT_EQ(sigismember(&mask, SIGUSR1), 1);
  }
  ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &mask), 0);
  EXPECT_EQ(sigismember(&mask, SIGUSR1), 0);
}

struct Seen {
  Direction direction;
  std::string method;
  std::size_t request_bytes;
  std::size_t reply_bytes;
  std::string error;
};

class RpcObservation : public testing::Test {
 protected:
  mivo::Observer Observer() {
    return [this](const mivo::Observation& observation) {
      EXPECT_GE(observation.duration.count(), 0);
      const std::lock_guard<std::mutex> lock(mutex_);
      seen_.push_back({observation.direction, std::string(observation.method), observation.request_bytes,
                       observation.reply_bytes, std::string(observation.error)});
    };
  }
  std::vector<Seen> WaitFor(std::size_t count) {
    EXPECT_TRUE(Eventually([&] {
      const std::lock_guard<std::mutex> lock(mutex_);
      return seen_.size() >= count;
    }));
    const std::lock_guard<std::mutex> lock(mutex_);
    return seen_;
  }

 private:
  std::mutex mutex_;
  std::vector<Seen> seen_;
};

TEST_F(RpcObservation, OfAClientSeesCallsAndPosts) {
  const std::string address = OwnAddress();
  mivo::Server server;
  server.on("fine", [](int) { return std::string(100, 'x'); });
  server.on("fails", [] { throw mivo::Error("own.code", "text"); });
  server.listen(address);
  mivo::Client client(address);
  client.call<std::string>("fine", 1);
  client.observe(Observer());
  client.call<std::string>("fine", 1);
  EXPECT_THROW(client.call("fails"), mivo::Error);
  client.async<std::string>("fine", 2).get();
  EXPECT_THROW(client.call<int>("fine", 2), mivo::WrongType);
  client.post("fine", 3);
  client.observe(nullptr);
  client.call<std::string>("fine", 1);

  const std::vector<Seen> seen = WaitFor(5);
  ASSERT_EQ(seen.size(), 5U);
  const std::vector<std::string> methods{"fine", "fails", "fine", "fine", "fine"};
  const std::vector<std::string> errors{"", "own.code", "", mivo::WrongType::kCode, ""};
  for (std::size_t i = 0; i < seen.size(); ++i) {
    EXPECT_EQ(seen[i].method, methods[i]);
    EXPECT_EQ(seen[i].error, errors[i]);
    EXPECT_EQ(seen[i].direction, i < 4 ? Direction::kCall : Direction::kPost);
    EXPECT_EQ(seen[i].request_bytes > 0, methods[i] == "fine");
  }
  EXPECT_GT(seen[0].reply_bytes, 100U);
  EXPECT_EQ(seen[4].reply_bytes, 0U);
}

TEST_F(RpcObservation, OfAServerSeesHandlersAndItsOwnCalls) {
  mivo::Serial in_order;
  const std::string address = OwnAddress();
  mivo::Server server;
  server.on("fine", [](int number) { return number; });
  server.on("queued", in_order([](const std::string& text) { return text; }));
  server.on("back", [](mivo::Caller& caller) { return caller.call<int>("yours"); });
  server.observe(Observer());
  server.listen(address);
  mivo::Client client(address);
  client.on("yours", [] { return 7; });
  client.call<int>("fine", 1);
  EXPECT_EQ(WaitFor(1)[0].direction, Direction::kHandler);
  EXPECT_THROW(client.call<int>("fine", "text"), mivo::WrongType);
  EXPECT_EQ(WaitFor(2)[1].error, mivo::WrongType::kCode);
  client.call<std::string>("queued", "text");
  EXPECT_EQ(WaitFor(3)[2].method, "queued");
  client.call<int>("back");
  const std::vector<Seen> seen = WaitFor(5);
  EXPECT_EQ(seen[3].direction, Direction::kCall);
  EXPECT_EQ(seen[3].method, "yours");
  EXPECT_EQ(seen[4].method, "back");
}

TEST(RpcRecorder, CountsByMethodAndTellsItAsText) {
  mivo::Recorder recorder;
  const std::string address = OwnAddress();
  mivo::Server server;
  server.on("say \"it\"", [](int number) {
    if (number < 0) throw mivo::Error("own.code", "text");
  });
  server.listen(address);
  mivo::Client client(address);
  client.observe(recorder.observer());
  client.call("say \"it\"", 1);
  client.call("say \"it\"", 2);
  EXPECT_THROW(client.call("say \"it\"", -1), mivo::Error);
  const std::vector<mivo::Recorder::Entry> entries = recorder.entries();
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries[0].count, 3U);
  EXPECT_EQ(entries[0].errors, 1U);
  EXPECT_GT(entries[0].total.count(), 0);
  std::uint64_t sum = 0;
  for (const std::uint64_t count : entries[0].by_duration)
    sum += count;
  EXPECT_EQ(sum, 3U);

  const std::string text = recorder.prometheus();
  const std::string labels = R"(direction="call",method="say \"it\"")";
  for (const std::string& line :
       {"mivo_errors_total{" + labels + "} 1\n", "mivo_duration_seconds_count{" + labels + "} 3\n",
        "mivo_duration_seconds_bucket{" + labels + ",le=\"+Inf\"} 3\n",
        std::string("# TYPE mivo_duration_seconds histogram\n")}) {
    EXPECT_NE(text.find(line), std::string::npos) << line << "in\n" << text;
  }
}

TEST(RpcMethods, OfClientsAreToldAndThoseTheyLackAreKnownAtOnce) {
  std::promise<std::vector<mivo::Method>> told;
  const std::string address = OwnAddress();
  mivo::Server server;
  server.on("look", [&](mivo::Caller& caller) {
    told.set_value(mivo::methods(caller));
    const mivo::Result<int> result = caller.try_call<int>("nothing of that name");
    return result ? "answered" : result.error().code();
  });
  server.listen(address);
  mivo::Client client(address);
  client.on("done", [](std::int64_t, bool) {}, {"A job has ended.", {"id", "ok"}});
  EXPECT_EQ(client.call<std::string>("look"), mivo::NoSuchMethod::kCode);
  const std::vector<mivo::Method> methods = told.get_future().get();
  ASSERT_EQ(methods.size(), 1U);
  EXPECT_EQ(methods[0].name, "done");
  EXPECT_EQ(methods[0].parameters, (std::vector<std::string>{"int64", "bool"}));
  EXPECT_EQ(methods[0].text, "A job has ended.");
}

TEST(RpcMethods, AreToldWithTheirTypes) {
  const std::string address = OwnAddress();
  mivo::Server server;
  server.on(
      "add", [](int a, std::uint64_t b) { return a + static_cast<double>(b); },
      mivo::About{"Adds two numbers.", {"a", "b"}});
  server.on("list", [](mivo::Caller&, const std::vector<std::string>&) {});
  server.listen(address);
  const mivo::Client client(address);
  const std::vector<mivo::Method> methods = mivo::methods(client);
  ASSERT_EQ(methods.size(), 2U);
  EXPECT_EQ(methods[0].name, "add");
  EXPECT_EQ(methods[0].result, "double");
  EXPECT_EQ(methods[0].parameters, (std::vector<std::string>{"int32", "uint64"}));
  EXPECT_EQ(methods[0].parameter_names, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(methods[0].text, "Adds two numbers.");
  EXPECT_EQ(methods[1].name, "list");
  EXPECT_EQ(methods[1].result, "nothing");
  EXPECT_EQ(methods[1].parameters, std::vector<std::string>{"list of text"});
  EXPECT_TRUE(methods[1].text.empty());

  server.describe(false);
  EXPECT_THROW(mivo::methods(client), mivo::NoSuchMethod);
}

}  // namespace
