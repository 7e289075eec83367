// Servers of the typed layer: who is connected, what belongs to whom, where handlers run, the end of serving.
#include <mivo/rpc.h>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/event.h"
#include "support/sanitizers.h"
#include "support/transport.h"

namespace {

using mivo_test::Event;
using mivo_test::Eventually;
using namespace std::chrono_literals;

std::string OwnAddress() {
  return "unix:" + mivo_test::UniqueSocketName();
}

std::string OwnPath() {
  return "/tmp/" + mivo_test::UniqueSocketName() + ".sock";
}

TEST(RpcServer, ListensAtAPathOfItsOwn) {
  const std::string path = OwnPath();
  const mode_t before = umask(0077);
  {
    mivo::Server server;
    server.on("add", [](int a, int b) { return a + b; });
    server.listen("unix:" + path);
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0700U);
    EXPECT_EQ(status.st_uid, geteuid());
    mivo::Client client("unix:" + path);
    EXPECT_EQ(client.call<int>("add", 2, 40), 42);
  }
  umask(before);
  EXPECT_NE(access(path.c_str(), F_OK), 0);
}

TEST(RpcServer, DoesNotTakeAPathFromAServerThatAnswers) {
  const std::string address = "unix:" + OwnPath();
  mivo::Server first;
  first.on("who", [] { return 1; });
  first.listen(address);
  mivo::Server second;
  try {
    second.listen(address);
    FAIL() << "it listens";
  } catch (const mivo::Error& error) {
    EXPECT_EQ(error.code(), "mivo.cannot_listen");
    EXPECT_EQ(error.what(), address + ": cannot listen there: Address already in use");
  }
  mivo::Client client(address);
  EXPECT_EQ(client.call<int>("who"), 1);
}

TEST(RpcServer, TellsTheUserOfACaller) {
  const std::string local = OwnAddress();
  const std::string tcp = "tcp:127.0.0.1:" + std::to_string(mivo_test::FreePort(mivo_test::Transport::Tcp4));
  for (const std::string& address : {local, tcp}) {
    mivo::Server server;
    server.on("uid", [](mivo::Caller& caller) { return caller.uid(); });
    server.listen(address);
    EXPECT_EQ(mivo::Client(address).call<int>("uid"), address == local ? static_cast<int>(geteuid()) : -1);
  }
}

TEST(RpcServer, TellsWhoComesAndGoes) {
  std::mutex mutex;
  std::vector<std::string> told;
  const auto tell = [&](const std::string& what, int id) {
    const std::lock_guard<std::mutex> lock(mutex);
    told.push_back(what + std::to_string(id));
  };
  const std::string address = OwnAddress();
  mivo::Server server;
  server.on_connect([&](mivo::Caller& caller) { tell("come ", caller.id()); });
  server.on_disconnect([&](mivo::Caller& caller) { tell("gone ", caller.id()); });
  server.on("me", [&](mivo::Caller& caller) {
    tell("call ", caller.id());
    return caller.id();
  });
  server.listen(address);
  int id = 0;
  {
    mivo::Client client(address);
    id = client.call<int>("me");
  }
  const std::string number = std::to_string(id);
  EXPECT_TRUE(Eventually([&] {
    const std::lock_guard<std::mutex> lock(mutex);
    return told.size() == 3;
  }));
  const std::lock_guard<std::mutex> lock(mutex);
  EXPECT_EQ(told, (std::vector<std::string>{"come " + number, "call " + number, "gone " + number}));
}

// Counts those that are there.
struct Counted {
  Counted() { ++alive; }
  ~Counted() { --alive; }
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;
  std::atomic<int> calls{0};
  static std::atomic<int> alive;
};
std::atomic<int> Counted::alive{0};

TEST(RpcPerClient, IsOnePerConnectionAndGoneWithIt) {
  const std::string address = OwnAddress();
  {
    mivo::PerClient<Counted> states;
    mivo::Server server;
    server.on("count", [&](mivo::Caller& caller) { return ++states.of(caller)->calls; });
    server.listen(address);
    mivo::Client first(address);
    {
      mivo::Client second(address);
      EXPECT_EQ(Counted::alive, 0);
      EXPECT_EQ(first.call<int>("count"), 1);
      EXPECT_EQ(first.call<int>("count"), 2);
      EXPECT_EQ(second.call<int>("count"), 1);
      EXPECT_EQ(Counted::alive, 2);
    }
    EXPECT_TRUE(Eventually([] { return Counted::alive == 1; }));
    EXPECT_EQ(first.call<int>("count"), 3);
    // A close tells nobody of an end.
    server.close();
    EXPECT_EQ(Counted::alive, 0);
  }
  EXPECT_EQ(Counted::alive, 0);
}

TEST(RpcPerClient, StaysForTheHandlersThatUseItAndIsNotLeftBehindByLateOnes) {
  const std::string address = OwnAddress();
  Event running;
  Event gone;
  std::atomic<bool> was_the_same{false};
  std::atomic<int> alive_in_handler{-1};
  mivo::PerClient<Counted> states;
  mivo::Server server;
  // One that throws keeps nobody from hearing of it.
  server.on_disconnect([&](mivo::Caller&) { throw 1; });
  server.on_disconnect([&](mivo::Caller&) { gone.Signal(); });
  Event ended;
  server.on("stay", [&](mivo::Caller& caller) {
    const std::shared_ptr<Counted> state = states.of(caller);
    running.Signal();
    gone.WaitFor();
    alive_in_handler = Counted::alive.load();
    // As in a handler that begins now.
    was_the_same = states.of(caller) == state;
    ended.Signal();
  });
  server.listen(address);
  {
    mivo::Client client(address);
    client.post("stay");
    ASSERT_TRUE(running.WaitFor());
  }
  ASSERT_TRUE(ended.WaitFor());
  EXPECT_EQ(alive_in_handler, 1);
  EXPECT_TRUE(was_the_same);
  EXPECT_TRUE(Eventually([] { return Counted::alive == 0; }));
}

TEST(RpcPerClient, LeavesNothingBehindWhenClientsDieAtAnyMoment) {
  constexpr int kRounds = 300 / mivo_test::kScaledown;
  const std::string address = OwnAddress();
  {
    mivo::PerClient<Counted> states;
    std::atomic<int> served{0};
    mivo::Server server;
    server.on("touch", [&](mivo::Caller& caller) {
      ++states.of(caller)->calls;
      ++served;
    });
    server.listen(address);
    for (int i = 0; i < kRounds; ++i) {
      mivo::Client client(address);
      for (int post = 0; post < i % 7; ++post)
        client.post("touch");
    }
    EXPECT_TRUE(Eventually([&] { return server.clients().empty() && Counted::alive == 0; }));
    EXPECT_GT(served, 0);
  }
  EXPECT_EQ(Counted::alive, 0);
}

TEST(RpcSerial, RunsHandlersOnOneThreadInTheOrderOfTheirRequests) {
  constexpr int kPosts = 2000;
  std::vector<int> numbers;
  std::set<std::thread::id> threads;
  mivo::Serial in_order;
  const std::string address = OwnAddress();
  mivo::Server server;
  server.on("append", in_order([&](int number) {
              numbers.push_back(number);
              threads.insert(std::this_thread::get_id());
            }));
  server.on("count", in_order([&] { return static_cast<int>(numbers.size()); }));
  server.listen(address);
  mivo::Client client(address);
  for (int i = 0; i < kPosts; ++i)
    client.post("append", i);
  EXPECT_EQ(client.call<int>("count"), kPosts);
  ASSERT_EQ(numbers.size(), static_cast<std::size_t>(kPosts));
  for (int i = 0; i < kPosts; ++i)
    ASSERT_EQ(numbers[static_cast<std::size_t>(i)], i);
  EXPECT_EQ(threads.size(), 1U);
}

TEST(RpcSerial, KeepsNoThreadOfThePoolWaiting) {
  Event go_on;
  mivo::Serial in_order;
  const std::string address = OwnAddress();
  mivo::Server server;
  server.on("slow", in_order([&] { go_on.WaitFor(); }));
  server.on("quick", [] { return 1; });
  server.listen(address);
  mivo::Client client(address);
  std::vector<std::future<void>> slow;
  for (int i = 0; i < 50; ++i)
    slow.push_back(client.async("slow"));
  EXPECT_EQ(client.call<int>("quick"), 1);
  for (int i = 0; i < 50; ++i)
    go_on.Signal();
  for (auto& call : slow)
    call.get();
}

TEST(RpcSerial, BringsErrorsAndCallsBack) {
  mivo::Serial in_order;
  const std::string address = OwnAddress();
  mivo::Server server;
  server.on("throws", in_order([] { throw mivo::Error("own.code", "own text"); }));
  server.on("typed", in_order([](int number) { return number; }));
  server.on("back", in_order([](mivo::Caller& caller) { return caller.call<int>("yours"); }));
  server.listen(address);
  mivo::Client client(address);
  client.on("yours", [] { return 7; });
  EXPECT_EQ(client.call<int>("back"), 7);
  try {
    client.call("throws");
    FAIL();
  } catch (const mivo::Error& error) {
    EXPECT_EQ(error.code(), "own.code");
    EXPECT_STREQ(error.what(), "own text");
  }
  EXPECT_THROW(client.call<int>("typed", "text"), mivo::WrongType);
}

TEST(RpcSerial, AnswersWhatComesAfterItsEnd) {
  auto in_order = std::make_unique<mivo::Serial>();
  const std::string address = OwnAddress();
  mivo::Server server;
  server.on("call", (*in_order)([] { return 1; }));
  server.listen(address);
  mivo::Client client(address);
  EXPECT_EQ(client.call<int>("call"), 1);
  in_order.reset();
  const mivo::Result<int> result = client.try_call<int>("call");
  ASSERT_FALSE(result);
  EXPECT_EQ(result.error().code(), mivo::kStoppingCode);
}

TEST(RpcSerial, ServesLargeMessages) {
  mivo::Serial in_order;
  const std::string address = OwnAddress();
  mivo::Server server;
  server.on("size", in_order([](const std::string& text) { return static_cast<int>(text.size()); }));
  server.listen(address);
  std::unique_ptr<IClient, void (*)(IClient*)> client(CreateClient(), &DestroyClient);
  mivo::BeQuiet(*client);
  ASSERT_TRUE(client->InitMIVOClient(address.substr(5).c_str(), true));
  MIVOParams arguments;
  arguments.AddString(std::string(200000, 'x').c_str());
  const MIVOParams* const reply = client->SendMsgEx("size", &arguments, 5, 20000);
  ASSERT_NE(reply->GetValue(0), nullptr);
  EXPECT_EQ(reply->GetValue(0)->GetInt(), 200000);
}

TEST(RpcLoop, RunsHandlersWhereItIsDrained) {
  mivo::Loop loop;
  std::thread::id ran_on;
  const std::string address = OwnAddress();
  mivo::Server server;
  server.on("show", loop([&](const std::string& text) {
              ran_on = std::this_thread::get_id();
              return text + "!";
            }));
  server.listen(address);
  mivo::Client client(address);
  EXPECT_EQ(loop.drain(), 0U);
  std::future<std::string> shown = client.async<std::string>("show", "text");
  pollfd readable{loop.descriptor(), POLLIN, 0};
  ASSERT_EQ(poll(&readable, 1, static_cast<int>(mivo_test::kPatience.count())), 1);
  EXPECT_EQ(loop.drain(), 1U);
  EXPECT_EQ(shown.get(), "text!");
  EXPECT_EQ(ran_on, std::this_thread::get_id());
  readable.revents = 0;
  EXPECT_EQ(poll(&readable, 1, 0), 0);
}

TEST(RpcLoop, OfAClientServesTheServersCalls) {
  mivo::Loop loop;
  const std::string address = OwnAddress();
  mivo::Server server;
  server.on("ask", [](mivo::Caller& caller) { return caller.call<int>("yours"); });
  server.listen(address);
  mivo::Client client(address);
  client.on("yours", loop([] { return 7; }));
  std::future<int> asked = client.async<int>("ask");
  EXPECT_TRUE(Eventually([&] { return loop.drain() == 1; }));
  EXPECT_EQ(asked.get(), 7);
}

// Not by a future: who has the exception that it shares is counted where a thread sanitizer does not see it.
TEST(RpcLoop, AnswersWhatItDrops) {
  std::string code;
  Event told;
  auto loop = std::make_unique<mivo::Loop>();
  const std::string address = OwnAddress();
  mivo::Server server;
  server.on("show", (*loop)([] { return 1; }));
  server.listen(address);
  mivo::Client client(address);
  const auto tell = [&](const mivo::Result<int>& result) {
    code = result ? "a result" : result.error().code();
    told.Signal();
  };
  client.then<int>(tell, "show");
  pollfd readable{loop->descriptor(), POLLIN, 0};
  ASSERT_EQ(poll(&readable, 1, static_cast<int>(mivo_test::kPatience.count())), 1);
  loop.reset();
  ASSERT_TRUE(told.WaitFor());
  EXPECT_EQ(code, mivo::kStoppingCode);
}

TEST(RpcLoop, RunsNothingOfAServerThatHasEnded) {
  mivo::Loop loop;
  std::atomic<int> runs{0};
  const std::string address = OwnAddress();
  auto server = std::make_unique<mivo::Server>();
  server->on("show", loop([&] { ++runs; }));
  server->listen(address);
  mivo::Client client(address);
  client.post("show");
  pollfd readable{loop.descriptor(), POLLIN, 0};
  ASSERT_EQ(poll(&readable, 1, static_cast<int>(mivo_test::kPatience.count())), 1);
  server.reset();
  loop.drain();
  EXPECT_EQ(runs, 0);
}

TEST(RpcLimited, AnswersAtOnceBeyondItsLimit) {
  Event begun;
  Event go_on;
  const std::string address = OwnAddress();
  mivo::Server server;
  server.on("work", mivo::limited(2, [&](int number) {
              begun.Signal();
              go_on.WaitFor();
              return number;
            }));
  server.listen(address);
  mivo::Client client(address);
  std::future<int> first = client.async<int>("work", 1);
  std::future<int> second = client.async<int>("work", 2);
  ASSERT_TRUE(begun.WaitFor(2));
  const mivo::Result<int> third = client.try_call<int>("work", 3);
  ASSERT_FALSE(third);
  EXPECT_EQ(third.error().code(), mivo::kOverloadedCode);
  for (int i = 0; i < 3; ++i)
    go_on.Signal();
  EXPECT_EQ(first.get() + second.get(), 3);
  EXPECT_EQ(client.call<int>("work", 4), 4);
}

}  // namespace
