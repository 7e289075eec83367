#include "client/mivo_client.h"

#include <gtest/gtest.h>
#include <mivo/params.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/one_shot.h"
#include "support/background.h"
#include "support/golden.h"
#include "support/handlers.h"
#include "support/stdout_capture.h"
#include "support/thread_state.h"
#include "support/transport.h"
#include "unit/slice_size_scope.h"

namespace mivo {
namespace {

using mivo_test::Deletions;
using mivo_test::Golden;
using mivo_test::LambdaMethod;
using mivo_test::LambdaMethodAll;
using mivo_test::StdoutCapture;
using mivo_test::ToHex;

// A server that is silent about what it does.
struct QuietServer {
  QuietServer() : server(CreateServer()) {
    char nothing[] = "";
    server->log(nothing, 0);
    EXPECT_TRUE(mivo_test::InitServer(server, address));
  }
  ~QuietServer() { DestroyServer(server); }
  QuietServer(const QuietServer&) = delete;
  QuietServer& operator=(const QuietServer&) = delete;

  const mivo_test::Address address = mivo_test::FreeAddress(mivo_test::Transport::Local);
  IServer* const server;
};

TEST(MIVOClient, CallsThroughTheTableSoThatASubclassCanStandIn) {
  class Subclass : public MIVOClient {
   public:
    MIVOParams* SendMsgFast(const char* name, MIVOParams* params, int key, int timeout) override {
      EXPECT_STREQ(name, "foo");
      EXPECT_EQ(params, &arguments);
      EXPECT_EQ(key, 7);
      EXPECT_EQ(timeout, 1234);
      ++calls;
      return &result;
    }
    int PostMsgFast(const char* name, MIVOParams* params, int key) override {
      EXPECT_STREQ(name, "bar");
      EXPECT_EQ(params, &arguments);
      EXPECT_EQ(key, 8);
      ++posts;
      return 5;
    }
    MIVOParams arguments;
    MIVOParams result;
    int calls = 0;
    int posts = 0;
  };
  Subclass client;
  EXPECT_EQ(client.SendMsg("foo", &client.arguments, 7, 1234), &client.result);
  EXPECT_EQ(client.calls, 1);
  EXPECT_EQ(client.PostMsg("bar", &client.arguments, 8), 5);
  EXPECT_EQ(client.posts, 1);
}

TEST(MIVOClient, LetsOneCallOrPostRunAtATimeInTheProcess) {
  class Subclass : public MIVOClient {
   public:
    explicit Subclass(std::atomic<int>& running) : running_(running) {}
    MIVOParams* SendMsgFast(const char*, MIVOParams*, int, int) override {
      Enter();
      return nullptr;
    }
    int PostMsgFast(const char*, MIVOParams*, int) override {
      Enter();
      return 0;
    }
    std::atomic<int> together{0};

   private:
    void Enter() {
      if (++running_ > 1) ++together;
      std::this_thread::yield();
      --running_;
    }
    std::atomic<int>& running_;
  };
  std::atomic<int> running{0};
  Subclass one(running);
  Subclass other(running);
  std::vector<std::thread> threads;
  for (Subclass* const client : {&one, &other}) {
    threads.emplace_back([client] {
      for (int i = 0; i < 200; ++i)
        client->SendMsg("foo", nullptr, 0, 0);
    });
    threads.emplace_back([client] {
      for (int i = 0; i < 200; ++i)
        client->PostMsg("foo", nullptr, 0);
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(one.together + other.together, 0);
}

// Whose call takes the turn of the process and keeps it.
class BlockingClient : public MIVOClient {
 public:
  MIVOParams* SendMsgFast(const char*, MIVOParams*, int, int) override {
    is_running.Set();
    may_end.Wait();
    return nullptr;
  }
  OneShot is_running;
  OneShot may_end;
};

TEST(MIVOClient, DoesNotHoldUpTheFastFormsBehindARunningCall) {
  BlockingClient blocking;
  std::thread caller([&] { blocking.SendMsg("foo", nullptr, 0, 0); });
  blocking.is_running.Wait();
  MIVOClient other;
  const StdoutCapture out;
  const std::unique_ptr<MIVOParams> error(other.SendMsgFast("foo", nullptr, 0, 0));
  EXPECT_EQ(error->GetMap("errorCode")->GetInt(), -1000);
  EXPECT_EQ(other.PostMsgFast("foo", nullptr, 0), 0);
  blocking.may_end.Set();
  caller.join();
}

TEST(MIVOClient, IsDestroyedWhileACallOfItWaitsForItsTurn) {
  const StdoutCapture out;
  BlockingClient blocking;
  std::thread running([&] { blocking.SendMsg("foo", nullptr, 0, 0); });
  blocking.is_running.Wait();
  IClient* const client = CreateClient();
  mivo_test::Background<MIVOParams*> called([&] { return client->SendMsg("foo", nullptr, 0, 0); });
  mivo_test::Background<int> posted([&] { return client->PostMsg("foo", nullptr, 0); });
  EXPECT_TRUE(mivo_test::WaitUntilAsleep(called.thread_id()));
  EXPECT_TRUE(mivo_test::WaitUntilAsleep(posted.thread_id()));
  EXPECT_FALSE(called.IsDone());
  EXPECT_FALSE(posted.IsDone());
  // The other client's call goes on all the while.
  DestroyClient(client);
  const std::unique_ptr<MIVOParams> error(called.Get());
  EXPECT_EQ(error->GetMap("errorCode")->GetInt(), -1000);
  EXPECT_EQ(posted.Get(), 0);
  blocking.may_end.Set();
  running.join();
}

TEST(MIVOClient, EndsACallThatWaitsForItsTurnWithItsConnection) {
  auto server = std::make_unique<QuietServer>();
  const StdoutCapture out;
  MIVOClient client;
  ASSERT_TRUE(mivo_test::InitClient(&client, server->address));
  BlockingClient blocking;
  std::thread running([&] { blocking.SendMsg("foo", nullptr, 0, 0); });
  blocking.is_running.Wait();
  mivo_test::Background<MIVOParams*> called([&] { return client.SendMsg("foo", nullptr, 0, 0); });
  EXPECT_TRUE(mivo_test::WaitUntilAsleep(called.thread_id()));
  EXPECT_FALSE(called.IsDone());
  server.reset();
  const std::unique_ptr<MIVOParams> error(called.Get());
  EXPECT_EQ(error->GetMap("errorCode")->GetInt(), -1000);
  blocking.may_end.Set();
  running.join();
  client.close();
}

TEST(MIVOClient, GivesTheCallerAnErrorSetOfItsOwnWhenNotConnected) {
  MIVOClient client;
  const StdoutCapture out;
  const std::unique_ptr<MIVOParams> called(client.SendMsg("foo", nullptr, 0, 1000));
  const std::string lines = "SendMsg end: IsOk Flase\nsend msg: disconnect... .. .\n";
  EXPECT_EQ(out.Text(), lines);
  const std::unique_ptr<MIVOParams> called_fast(client.SendMsgFast("foo", nullptr, 0, 1000));
  EXPECT_EQ(out.Text(), lines + lines);
  for (const auto* const set : {&called, &called_fast}) {
    EXPECT_EQ((*set)->ParamsSize(), 0);
    EXPECT_EQ((*set)->MapSize(), 1);
    EXPECT_EQ(ToHex(*(*set)->GetParamas()), ToHex(Golden("error_not_connected")));
  }
}

TEST(MIVOClient, KeepsTheArgumentsOfALargeCallWhenNotConnected) {
  MIVOClient client;
  const StdoutCapture out;
  MIVOParams params;
  params.AddInt(5);
  const std::unique_ptr<MIVOParams> set(client.SendMsgEx("foo", &params, 0, 1000));
  EXPECT_EQ(out.Text(), "sendmsgex: disconnect... .. .\n");
  EXPECT_EQ(ToHex(*set->GetParamas()), ToHex(Golden("error_not_connected")));
  EXPECT_EQ(params.Size(), 9);
}

TEST(MIVOClient, DropsAPostWhenNotConnectedAndSaysSoAtAnyLevel) {
  MIVOClient client;
  char nothing[] = "";
  EXPECT_EQ(client.log(nothing, 0), 0);
  const StdoutCapture out;
  EXPECT_EQ(client.PostMsg("foo", nullptr, 0), 0);
  EXPECT_EQ(client.PostMsgFast("foo", nullptr, 0), 0);
  EXPECT_EQ(out.Text(), "send msg: disconnect... .. .\nsend msg: disconnect... .. .\n");
}

TEST(MIVOClient, AsksTheTableWhetherItIsConnectedForALargeCall) {
  class Subclass : public MIVOClient {
   public:
    bool isok() override { return says_connected && MIVOClient::isok(); }
    std::atomic<bool> says_connected{true};
  };
  const QuietServer server;
  Subclass client;
  const StdoutCapture out;
  ASSERT_TRUE(mivo_test::InitClient(&client, server.address));
  client.says_connected = false;
  MIVOParams params;
  const std::unique_ptr<MIVOParams> set(client.SendMsgEx("foo", &params, 0, 1000));
  EXPECT_EQ(set->GetMap("errorCode")->GetInt(), -1000);
  client.says_connected = true;
  client.close();
}

TEST(MIVOClient, SharesTheSliceSizeOfTheProcess) {
  const SliceSizeScope restored(32768);
  MIVOClient one;
  MIVOClient other;
  EXPECT_EQ(one.GetBigfileBufferSize(), 32768);
  one.SetBigfileBufferSize(-5);
  EXPECT_EQ(other.GetBigfileBufferSize(), -5);
  const std::unique_ptr<IServer, void (*)(IServer*)> server(CreateServer(), DestroyServer);
  const StdoutCapture out;
  server->SetBigfileBufferSize(1000);
  EXPECT_EQ(one.GetBigfileBufferSize(), 1000);
}

TEST(MIVOClient, ReleasesHandlersOfAClientThatNeverConnected) {
  Deletions deletions;
  {
    const StdoutCapture out;
    IClient* const client = CreateClient();
    auto* const handler = new LambdaMethod(nullptr, &deletions);
    client->method("one", handler);
    client->method("two", handler);
    client->methodall(new LambdaMethodAll(nullptr, &deletions));
    client->close();
    EXPECT_EQ(out.Text(), "Closing!\nClosed!\n");
    EXPECT_EQ(deletions.count, 2);
    DestroyClient(client);
  }
  EXPECT_EQ(deletions.count, 2);
  DestroyClient(nullptr);
}

TEST(MIVOClient, MayBeDeletedWithoutAClose) {
  const QuietServer server;
  Deletions deletions;
  const StdoutCapture out;
  auto client = std::make_unique<MIVOClient>();
  client->method("name", new LambdaMethod(nullptr, &deletions));
  ASSERT_TRUE(mivo_test::InitClient(client.get(), server.address));
  client.reset();
  EXPECT_EQ(deletions.count, 1);
}

TEST(MIVOClient, SendsALargeMessageInSlicesAndSaysThatItDid) {
  const QuietServer server;
  const SliceSizeScope size(16);
  const StdoutCapture out;
  MIVOClient client;
  ASSERT_TRUE(mivo_test::InitClient(&client, server.address));
  MIVOParams params;
  params.AddInt(5);
  EXPECT_TRUE(client.SendMsgLargeData("nobody", &params, 4711, 5000));
  // The name and the key as given were added behind the arguments.
  ASSERT_TRUE(params.ToParams());
  EXPECT_STREQ(params.GetMap("s_c_sw_name")->GetString(), "nobody");
  EXPECT_EQ(params.GetMap("s_c_sw_threadid")->GetInt(), 4711);
  client.close();
}

}  // namespace
}  // namespace mivo
