// Clients that ask for large results and do not take them, because they are stopped, broken, hostile or gone: nobody
// else waits for them.
#include <mivo/mivo.h>

#include "support/asked_peer.h"
#include "support/background.h"
#include "support/child_program.h"
#include "support/event.h"
#include "support/large_peer.h"
#include "support/reply.h"
#include "support/sanitizers.h"
#include "support/slices.h"
#include "support/test_client.h"
#include "support/test_server.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <string>
#include <vector>

using namespace mivo_test;

namespace {

constexpr int kStopped = 6;  // more than the pool has threads
constexpr int kQuickMs = 400;

// A client that receives large results one after the other until it is killed. `argument` is the server's name.
const Role kReceiver("receives large results", [](const std::string& argument) {
  TestClient client;
  SetLog(client.get(), "", 0);
  if (!client.Init({Transport::Local, "", argument})) return 1;
  for (int key = 1;; ++key)
    Reply(client->SendMsgEx("large", nullptr, key, 60000));
});

class StoppedReceivers : public testing::Test {
 protected:
  void SetUp() override {
    SetLog(server_.get(), "", 0);
    server_.On("large", [this](int, MIVOParams*, MIVOParams* reply) {
      const std::string bytes = Pattern(result_bytes_);
      reply->AddStream(bytes.data(), static_cast<long>(bytes.size()));
      asked_.Signal();
    });
    server_.On("echo",
               [](int, MIVOParams* request, MIVOParams* reply) { reply->AddInt(IntAt(request, 0).value_or(-1)); });
    ASSERT_TRUE(server_.Init());
    healthy_ = server_.Connect();
    ASSERT_TRUE(healthy_.AnswersInOrder());
  }

  // Each of many calls of the healthy client returns soon.
  void ExpectNobodyIsHeldUp() {
    const std::chrono::milliseconds soon(kQuickMs * kSlowdown);
    for (int i = 0; i < 20; ++i) {
      ASSERT_TRUE(healthy_.SendFrame(Request({"echo", 3, Wire().Int(i).bytes(), "0x1"})));
      ASSERT_EQ(healthy_.ReadFrame(soon), ServerReply(Wire().Int(i), 3, "0x1")) << "call " << i;
    }
  }

  // Asks for the result under this key.
  static bool Ask(RawPeer* peer, int key) {
    return peer->SendFrame(SliceRequests(key, Whole("", "large", key), 32768).front());
  }

  std::atomic<std::size_t> result_bytes_{2000};
  Event asked_;
  TestServer server_{Transport::Local};
  PeerIds ids_{&server_};
  RawPeer healthy_;
};

TEST_F(StoppedReceivers, ThatDoNotAnswerDoNotHoldUpOthers) {
  const ScopedSliceSize size(100);
  std::vector<RawPeer> silent;
  for (int i = 0; i < kStopped; ++i)
    silent.push_back(server_.Connect());
  for (RawPeer& peer : silent) {
    for (int key = 1; key <= 8; ++key)
      ASSERT_TRUE(Ask(&peer, key));
  }
  ASSERT_TRUE(asked_.WaitFor(4));
  ExpectNobodyIsHeldUp();
}

TEST_F(StoppedReceivers, ThatHaveAnsweredInAdvanceDoNotHoldUpOthers) {
  const ScopedSliceSize size(100);
  std::vector<RawPeer> hostile;
  for (int i = 0; i < kStopped; ++i)
    hostile.push_back(server_.Connect());
  for (RawPeer& peer : hostile) {
    // Something is stored under every key: a slice without an answer is no reason to give up.
    for (int key = 1; key <= 4; ++key)
      ASSERT_TRUE(peer.SendFrame(ClientReply("", key, std::nullopt)));
    ASSERT_TRUE(peer.AnswersInOrder());
    for (int key = 1; key <= 4; ++key)
      ASSERT_TRUE(Ask(&peer, key));
  }
  ASSERT_TRUE(asked_.WaitFor(4));
  ExpectNobodyIsHeldUp();
}

TEST_F(StoppedReceivers, ThatAreStoppedBySignalDoNotHoldUpOthers) {
  // Long enough to be stopped in the middle.
  result_bytes_ = 4000000;
  const ScopedSliceSize size(200);
  std::vector<ChildProgram> clients;
  for (int i = 0; i < kStopped; ++i)
    clients.push_back(StartRole("receives large results", server_.address().name));
  ASSERT_TRUE(asked_.WaitFor(4));
  for (const ChildProgram& client : clients) {
    ASSERT_EQ(kill(client.pid(), SIGSTOP), 0);
    siginfo_t stopped{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(client.pid()), &stopped, WSTOPPED | WNOWAIT), 0);
    ASSERT_EQ(stopped.si_code, CLD_STOPPED);
  }
  ExpectNobodyIsHeldUp();
}

TEST_F(StoppedReceivers, ThatHaveGoneDoNotHoldUpOthers) {
  const ScopedSliceSize size(100);
  constexpr int kGone = 40;
  std::vector<RawPeer> leavers;
  for (int i = 0; i < kGone; ++i) {
    leavers.push_back(server_.Connect());
    ASSERT_TRUE(Ask(&leavers.back(), i + 1));
  }
  // Each goes when its first slice has come.
  Background<int> leaving([&] {
    int left = 0;
    for (RawPeer& leaver : leavers) {
      left += leaver.WaitReadable() ? 1 : 0;
      leaver.Close();
    }
    return left;
  });
  ASSERT_TRUE(ids_.WaitForCloses(4));
  ExpectNobodyIsHeldUp();
  EXPECT_EQ(leaving.Get(), kGone);
}

TEST_F(StoppedReceivers, ATransferWhoseClientHasGoneEnds) {
  // More slices than can be worked through in little time, even if none waits for an answer.
  result_bytes_ = 300000;
  const ScopedSliceSize size(1);
  constexpr int kGone = 4;
  for (int key = 1; key <= kGone; ++key) {
    RawPeer leaver = server_.Connect();
    ASSERT_TRUE(Ask(&leaver, key));
    const std::string slice = leaver.ReadFrame().value_or("");
    ASSERT_GT(ReadSliceRequest(slice).total, 300000);
    ASSERT_TRUE(leaver.SendFrame(AsClient(slice)));
    ASSERT_TRUE(ReadSliceRequest(leaver.ReadFrame().value_or("")).valid);
  }
  ASSERT_TRUE(ids_.WaitForCloses(kGone));
  ExpectNobodyIsHeldUp();
  const Stopwatch watch;
  server_.Destroy();
  EXPECT_LT(watch.ElapsedMs(), 2000 * kSlowdown);
}

}  // namespace
