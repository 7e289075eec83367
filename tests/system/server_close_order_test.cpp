// A handler may own a thread that uses its server, and end that thread in its destructor: the close lets the thread go
// before it deletes the handler.
#include <mivo/mivo.h>

#include "support/asked_peer.h"
#include "support/child_program.h"
#include "support/event.h"
#include "support/role_outcome.h"
#include "support/test_client.h"
#include "support/test_server.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <utility>

using namespace mivo_test;

namespace {

class Worker : public IServerMethod {
 public:
  explicit Worker(std::function<void()> work) : thread_(std::move(work)) {}
  ~Worker() override { thread_.join(); }
  void OnCall(int, MIVOParams*, MIVOParams*) override {}

 private:
  std::thread thread_;
};

// Takes what comes, until the end.
class Drain {
 public:
  explicit Drain(RawPeer* peer)
      : thread_([peer, this] {
          while (peer->ReadBytes(1))
            read_.Signal();
        }) {}
  ~Drain() { thread_.join(); }
  bool WaitForSomething() { return read_.WaitFor(); }

 private:
  Event read_;
  std::thread thread_;
};

// `argument` is what the thread does and how the server is closed, as in "post close".
int CloseWithAWorker(const std::string& argument) {
  const std::string work = argument.substr(0, argument.find(' '));
  const std::string end = argument.substr(argument.find(' ') + 1);
  TestServer server(Transport::Local);
  SetLog(server.get(), "", 0);
  PeerIds ids(&server);
  std::thread serving;
  if (end == "run") {
    if (!server.Start()) return 2;
    serving = std::thread([&] { server->run(); });
  } else if (!server.Init()) {
    return 2;
  }
  AskedPeer asked = ids.Connect();
  if (asked.id == 0) return 3;
  Event working;
  IServer* const used = server.get();
  server->method("worker", new Worker([used, work, &working, id = asked.id] {
                   if (work == "send") {
                     used->SendMsg(id, "never answered", nullptr, 5, -1);
                     return;
                   }
                   while (used->isok()) {
                     if (work == "post") used->PostMsg(id, "a post", nullptr, 5);
                     working.Signal();
                     std::this_thread::sleep_for(std::chrono::milliseconds(1));
                   }
                 }));
  Drain drain(&asked.peer);
  const bool is_working = work == "isok" ? working.WaitFor() : drain.WaitForSomething();
  if (end == "destroy") {
    server.Destroy();
  } else if (end == "run") {
    server->closeasync();
    serving.join();
  } else {
    server->close();
  }
  server.Destroy();
  return is_working ? 0 : 4;
}

const Role kCloseWithAWorker("closes with a worker", CloseWithAWorker);

class ServerCloseOrder : public testing::TestWithParam<const char*> {};

INSTANTIATE_TEST_SUITE_P(HoweverItEnds, ServerCloseOrder, testing::Values("close", "run"),
                         [](const testing::TestParamInfo<const char*>& kind) { return std::string(kind.param); });

TEST_P(ServerCloseOrder, AThreadThatAsksWhetherItRunsIsToldBeforeItsHandlerIsDeleted) {
  ExpectRoleSucceeds("closes with a worker", std::string("isok ") + GetParam());
}

TEST_P(ServerCloseOrder, AThreadThatPostsIsLetGoBeforeItsHandlerIsDeleted) {
  ExpectRoleSucceeds("closes with a worker", std::string("post ") + GetParam());
}

TEST_P(ServerCloseOrder, AThreadThatWaitsForAReplyIsWokenBeforeItsHandlerIsDeleted) {
  ExpectRoleSucceeds("closes with a worker", std::string("send ") + GetParam());
}

TEST(ServerDestroyOrder, AThreadThatWaitsForAReplyIsWokenBeforeItsHandlerIsDeleted) {
  ExpectRoleSucceeds("closes with a worker", "send destroy");
}

}  // namespace
