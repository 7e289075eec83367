// Clients and servers together, from their beginnings to their ends, in the orders nobody plans.
#include <mivo/mivo.h>

#include "support/event.h"
#include "support/raw_server.h"
#include "support/stdout_capture.h"
#include "support/teardown.h"
#include "support/test_client.h"
#include "support/test_server.h"
#include "support/transport.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace mivo_test;

namespace {

class Lifecycle : public testing::TestWithParam<Transport> {
 protected:
  static std::unique_ptr<TestServer> QuietServer() {
    auto server = std::make_unique<TestServer>(GetParam());
    SetLog(server->get(), "", 0);
    server->On("echo", [](int, MIVOParams* request, MIVOParams* reply) {
      const MIVOValue* const value = request->GetValue(0);
      reply->AddInt(value != nullptr && value->IsInt() ? value->GetInt() : -1);
    });
    return server;
  }

  // A port stays reserved for its test program, by a descriptor.
  static int DescriptorsOf(int addresses) { return GetParam() == Transport::Local ? 0 : addresses; }

  static int Echo(IClient* client, int value, int timeout) {
    MIVOParams params;
    params.AddInt(value);
    return TakeInt(client->SendMsgFast("echo", &params, 0, timeout)).value_or(-1);
  }
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, Lifecycle, kEveryTransport, TransportName);

// --- Beginnings that are cut short

TEST_P(Lifecycle, ACloseMayMeetTheConnectAtAnyPoint) {
  StdoutCapture quiet;
  const auto server = QuietServer();
  ASSERT_TRUE(server->Init());
  // libuv takes a descriptor in reserve with a loop's first stream.
  ASSERT_TRUE(server->Connect().AnswersInOrder());
  const Resources before = CountResourcesWhenWarm();
  {
    TestClient client;
    SetLog(client.get(), "", 0);
    for (int round = 0; round < 6; ++round) {
      std::atomic<bool> go{false};
      std::thread closing([&] {
        while (!go)
          std::this_thread::yield();
        // Each round a little later: before the thread is there, while it connects, while the version is checked.
        const auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(150 * round);
        while (std::chrono::steady_clock::now() < until)
          std::this_thread::yield();
        client->close();
      });
      go = true;
      client.Init(server->address());
      closing.join();
      client->close();
      EXPECT_FALSE(client->isok());
      ASSERT_TRUE(client.Init(server->address())) << "usable again";
      EXPECT_EQ(Echo(client.get(), round, 0), round);
      client->close();
    }
  }
  ExpectSameResources(before);
}

TEST_P(Lifecycle, ACloseEndsAVersionCheckThatIsNotAnswered) {
  RawServer server(GetParam());
  TestClient client;
  const Stopwatch watch;
  std::atomic<bool> connected{true};
  std::thread connecting([&] { connected = client.Init(server.address()); });
  RawPeer silent = server.Accept();
  ASSERT_TRUE(silent.ReadFrame().has_value());
  client->close();
  connecting.join();
  EXPECT_FALSE(connected);
  EXPECT_LT(watch.ElapsedMs(), 9000);
  EXPECT_TRUE(silent.ReadEof());
  EXPECT_TRUE(client.InitAgainst(server).connected());
}

TEST_P(Lifecycle, TwoThreadsMayInitAtOnce) {
  const auto server = QuietServer();
  ASSERT_TRUE(server->Init());
  // libuv takes a descriptor in reserve with a loop's first stream.
  ASSERT_TRUE(server->Connect().AnswersInOrder());
  const Resources before = CountResourcesWhenWarm();
  const std::set<int> threads_before = Threads();
  {
    TestClient client;
    std::vector<std::thread> threads;
    std::atomic<int> connected{0};
    for (int i = 0; i < 2; ++i)
      threads.emplace_back([&] { connected += client.Init(server->address()) ? 1 : 0; });
    for (std::thread& thread : threads)
      thread.join();
    EXPECT_EQ(connected, 2);
    EXPECT_EQ(Echo(client.get(), 1, 0), 1);
    EXPECT_TRUE(HasNewThreads(threads_before, 1)) << "one connection, one thread";
  }
  ExpectSameResources(before);
}

TEST_P(Lifecycle, ThousandsThatNeverStartLeaveNothingBehind) {
  const Resources before = CountResourcesWhenWarm();
  StdoutCapture quiet;
  for (int i = 0; i < 1000; ++i) {
    IClient* const client = CreateClient();
    IServer* const server = CreateServer();
    // Without the pause that a close of the client takes.
    delete client;
    DestroyServer(server);
  }
  ExpectSameResources({before.threads, before.descriptors + 2});
}

TEST_P(Lifecycle, AHundredLivesOfClientAndServerLeaveNothingBehind) {
  constexpr int kAtOnce = 10;
  std::vector<Address> addresses;
  for (int i = 0; i < kAtOnce; ++i)
    addresses.push_back(FreeAddress(GetParam()));
  const Resources before = CountResourcesWhenWarm();
  {
    StdoutCapture quiet;
    std::vector<std::thread> threads;
    for (int i = 0; i < kAtOnce; ++i) {
      threads.emplace_back([&, i] {
        for (int life = 0; life < 10; ++life) {
          TestServer server(addresses[static_cast<std::size_t>(i)]);
          SetLog(server.get(), "", 0);
          server.On("echo",
                    [](int, MIVOParams* request, MIVOParams* reply) { reply->AddInt(request->GetValue(0)->GetInt()); });
          EXPECT_TRUE(server.Init());
          TestClient client;
          SetLog(client.get(), "", 0);
          EXPECT_TRUE(client.Init(server.address()));
          EXPECT_EQ(Echo(client.get(), life, 0), life);
          // In turns the client or the server goes first.
          if (life % 2 == 0) server.Destroy();
        }
      });
    }
    for (std::thread& thread : threads)
      thread.join();
  }
  ExpectSameResources(before);
}

// --- Ends while something is going on

TEST_P(Lifecycle, AClientMayCloseWithWritesQueued) {
  const Resources before = CountResourcesWhenWarm();
  {
    RawServer server(GetParam());
    TestClient client;
    SetLog(client.get(), "", 0);
    RawPeer peer = client.InitAgainst(server);
    ASSERT_TRUE(peer.connected());
    StdoutCapture quiet;
    const std::string much(8 * 1024 * 1024, 'm');
    MIVOParams params;
    params.AddStream(much.data(), static_cast<long>(much.size()));
    // More than the kernel takes: nobody reads.
    for (int i = 0; i < 3; ++i)
      EXPECT_EQ(client->PostMsgFast("much", &params, 1), 0);
    PendingCall call([&] { return client->SendMsgFast("silence", nullptr, 0, 0); });
    const Stopwatch watch;
    client->close();
    EXPECT_LT(watch.ElapsedMs(), 20000);
    const int error = TakeError(call.Wait());
    EXPECT_TRUE(error == -1000 || error == -1001) << error;
    while (peer.ReadFrame().has_value()) {
    }
  }
  ExpectSameResources(before);
}

TEST_P(Lifecycle, BothEndsMayCloseAtOnceUnderLoad) {
  const Resources before = CountResourcesWhenWarm();
  for (int round = 0; round < 5; ++round) {
    StdoutCapture quiet;
    const auto server = QuietServer();
    ASSERT_TRUE(server->Init());
    const Address address = server->address();
    TestClient client;
    SetLog(client.get(), "", 0);
    ASSERT_TRUE(client.Init(address));
    Event working;
    std::vector<std::thread> callers;
    for (int i = 0; i < 3; ++i) {
      callers.emplace_back([&] {
        for (;;) {
          MIVOParams params;
          params.AddInt(1);
          MIVOParams* const reply = client->SendMsgFast("echo", &params, 0, 0);
          working.Signal();
          if (TakeError(reply) != 0) return;
        }
      });
    }
    ASSERT_TRUE(working.WaitFor(10));
    std::thread closing([&] { client->close(); });
    server->Destroy();
    closing.join();
    for (std::thread& caller : callers)
      caller.join();
    EXPECT_FALSE(client->isok());
  }
  ExpectSameResources({before.threads, before.descriptors + DescriptorsOf(5)});
}

TEST_P(Lifecycle, AClientMayGoWhileTheServersHandlerRunsForIt) {
  const Resources before = CountResourcesWhenWarm();
  {
    Event called;
    Event release;
    TestServer server(GetParam());
    server.On("slow", [&](int, MIVOParams*, MIVOParams* reply) {
      called.Signal();
      release.WaitFor();
      reply->AddInt(1);
    });
    server.On("six", [](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(6); });
    ASSERT_TRUE(server.Init());
    StdoutCapture quiet;
    auto first = std::make_unique<TestClient>();
    ASSERT_TRUE(first->Init(server.address()));
    IClient* const raw = first->get();
    PendingCall call([raw] { return raw->SendMsgFast("slow", nullptr, 1, 0); });
    ASSERT_TRUE(called.WaitFor());
    first.reset();
    EXPECT_EQ(TakeError(call.Wait()), -1001);
    // Whoever comes next, with the same key, is not given the reply.
    TestClient second;
    ASSERT_TRUE(second.Init(server.address()));
    release.Signal();
    EXPECT_EQ(TakeInt(second->SendMsgFast("six", nullptr, 1, 0)), 6);
  }
  ExpectSameResources({before.threads, before.descriptors + DescriptorsOf(1)});
}

TEST_P(Lifecycle, AClientOutlivesItsServersOneAfterTheOther) {
  const Resources before = CountResourcesWhenWarm();
  {
    TestClient client;
    for (int life = 0; life < 3; ++life) {
      const auto server = QuietServer();
      ASSERT_TRUE(server->Init());
      ASSERT_TRUE(client.Init(server->address()));
      EXPECT_EQ(Echo(client.get(), life, 0), life);
      server->Destroy();
      EXPECT_TRUE(Eventually([&] { return !client->isok(); }));
    }
  }
  ExpectSameResources({before.threads, before.descriptors + DescriptorsOf(3)});
}

TEST_P(Lifecycle, NobodyIsLeftBehindByACloseAmongManyCallers) {
  for (int round = 0; round < 5; ++round) {
    StdoutCapture quiet;
    const auto server = QuietServer();
    ASSERT_TRUE(server->Init());
    TestClient client;
    SetLog(client.get(), "", 0);
    ASSERT_TRUE(client.Init(server->address()));
    std::atomic<bool> stop{false};
    std::atomic<int> strange{0};
    Event working;
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
      threads.emplace_back([&, i] {
        for (int value = 0; !stop; ++value) {
          MIVOParams params;
          params.AddInt(value);
          if (i % 2 == 0) {
            MIVOParams* const reply = client->SendMsgFast("echo", &params, 0, 0);
            const int error = TakeError(reply);
            const bool fine = error == 0 ? reply->ParamsSize() == 1 && reply->GetValue(0)->GetInt() == value
                                         : error == -1000 || error == -1001;
            strange += fine ? 0 : 1;
          } else {
            strange += client->PostMsgFast("echo", &params, 0) == 0 ? 0 : 1;
          }
          working.Signal();
        }
      });
    }
    ASSERT_TRUE(working.WaitFor(50));
    client->close();
    const int count = working.count();
    EXPECT_TRUE(working.WaitFor(count + 50)) << "they go on, without a connection";
    stop = true;
    for (std::thread& thread : threads)
      thread.join();
    EXPECT_EQ(strange, 0);
  }
}

TEST_P(Lifecycle, EightThreadsCallTenThousandTimesEachWithoutAnError) {
  // Over one transport in full; the road is the same.
  const int calls = kSanitized ? 300 : GetParam() == Transport::Local ? 10000 : 2000;
  const auto server = QuietServer();
  ASSERT_TRUE(server->Init());
  TestClient client;
  ASSERT_TRUE(client.Init(server->address()));
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 8; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; i < calls; ++i) {
        const int value = thread * 100000 + i;
        wrong += Echo(client.get(), value, 5000) == value ? 0 : 1;
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(wrong, 0);
}

// --- The thread that calls

TEST_P(Lifecycle, TheCallersSignalMaskAndTheDispositionsAreLeftAlone) {
  sigset_t mask_before;
  struct sigaction before {};
  pthread_sigmask(SIG_SETMASK, nullptr, &mask_before);
  sigaction(SIGPIPE, nullptr, &before);
  {
    StdoutCapture quiet;
    RawServer raw(GetParam());
    const auto server = QuietServer();
    ASSERT_TRUE(server->Init());
    TestClient client;
    ASSERT_TRUE(client.Init(server->address()));
    EXPECT_EQ(Echo(client.get(), 1, 0), 1);
    client->close();
    RawPeer peer = client.InitAgainst(raw);
    peer.Reset();
    for (int i = 0; i < 10; ++i)
      client->PostMsg("echo", nullptr, 0);
  }
  sigset_t mask_after;
  struct sigaction after {};
  pthread_sigmask(SIG_SETMASK, nullptr, &mask_after);
  sigaction(SIGPIPE, nullptr, &after);
  for (int number = 1; number <= 64; ++number)
    EXPECT_EQ(sigismember(&mask_before, number), sigismember(&mask_after, number)) << number;
  EXPECT_EQ(before.sa_handler, after.sa_handler);
  EXPECT_EQ(before.sa_flags, after.sa_flags);
}

}  // namespace
