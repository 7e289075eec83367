#include <mivo/mivo.h>

#include "support/background.h"
#include "support/event.h"
#include "support/raw_served_client.h"
#include "support/raw_server.h"
#include "support/stdout_capture.h"
#include "support/test_client.h"
#include "support/test_server.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <memory>
#include <thread>
#include <vector>

using namespace mivo_test;

namespace {

// Time for a client to do what it must not do.
constexpr std::chrono::milliseconds kMoment{100};

class Posts : public testing::TestWithParam<Transport> {
 protected:
  void SetUp() override { ASSERT_TRUE(pair_.Connect()); }

  ClientOfRawServer pair_{GetParam()};
  TestClient& client_ = pair_.client();
  RawPeer& peer_ = pair_.peer();
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, Posts, kEveryTransport, TransportName);

TEST_P(Posts, ReturnZero) {
  EXPECT_EQ(client_->PostMsg("foo", nullptr, 9), 0);
  EXPECT_EQ(client_->PostMsgFast("foo", nullptr, 9), 0);
}

TEST_P(Posts, CarryNameKeyAndArgumentsAndNameNoWaiter) {
  MIVOParams params;
  params.AddInt(5);
  client_->PostMsg("foo", &params, 77);
  EXPECT_EQ(peer_.ReadFrame(), Request({"foo", 77, Wire().Int(5).bytes()}));
  client_->PostMsgFast("bar", &params, -5);
  EXPECT_EQ(peer_.ReadFrame(), Request({"bar", -5, Wire().Int(5).bytes()}));
}

TEST_P(Posts, WithoutArgumentsCarryOnlyNameAndKey) {
  client_->PostMsg("foo", nullptr, 9);
  EXPECT_EQ(Hex(peer_.ReadFrame().value_or("")), Hex(FromHex(exact::kPost)));
}

TEST_P(Posts, WithAnEmptySetCarryAnEmptyStream) {
  MIVOParams params;
  client_->PostMsg("foo", &params, 9);
  EXPECT_EQ(peer_.ReadFrame(), Request({"foo", 9, ""}));
}

TEST_P(Posts, WithKeyZeroGoUnderTheThreadsId) {
  client_->PostMsg("foo", nullptr, 0);
  EXPECT_EQ(IntOf(peer_.ReadFrame().value_or(""), "s_c_sw_threadid"), ThreadId());
  Background<int> elsewhere([&] { return client_->PostMsgFast("foo", nullptr, 0); });
  EXPECT_EQ(elsewhere.Get(), 0);
  EXPECT_EQ(IntOf(peer_.ReadFrame().value_or(""), "s_c_sw_threadid"), elsewhere.thread_id());
}

TEST_P(Posts, ReturnAfterTheFrameWasWritten) {
  client_->PostMsg("foo", nullptr, 9);
  // Over TCP the kernel may still be carrying it.
  EXPECT_TRUE(peer_.WaitReadable(GetParam() == Transport::Local ? std::chrono::milliseconds(0) : kPatience));
  EXPECT_EQ(peer_.ReadFrame(), Request({"foo", 9}));
}

TEST_P(Posts, GoOutBeforeTheCallThatFollowsOnTheSameThread) {
  Background<Reply> call([&] {
    client_->PostMsg("first", nullptr, 9);
    return Reply(client_->SendMsg("second", nullptr, 9, 0));
  });
  EXPECT_EQ(TextOf(peer_.ReadFrame().value_or(""), "s_c_sw_name"), "first");
  const std::string second = peer_.ReadFrame().value_or("");
  EXPECT_EQ(TextOf(second, "s_c_sw_name"), "second");
  ASSERT_TRUE(peer_.SendFrame(ServerReply("", 9, TextOf(second, "s_c_sw_semid"))));
  EXPECT_FALSE(call.Get().error());
}

TEST_P(Posts, AnswersToThemWakeNobodyAndAreNotTakenForTheReplyOfACall) {
  client_->PostMsg("post", nullptr, 9);
  Background<Reply> call([&] { return client_.Call("call", nullptr, 9, 700); });
  ASSERT_TRUE(peer_.ReadFrame());
  ASSERT_TRUE(peer_.ReadFrame());
  ASSERT_TRUE(peer_.SendFrame(ServerReply(Wire().String("the post's"), 9, std::nullopt)));
  EXPECT_EQ(call.Get().error(), kNoReply);
  EXPECT_GE(call.ElapsedMs(), 700);
}

TEST_P(Posts, AnswersToThemDoNotDisplaceTheReplyOfACall) {
  client_->PostMsg("post", nullptr, 9);
  Background<Reply> call([&] { return client_.Call("call", nullptr, 9, 0); });
  ASSERT_TRUE(peer_.ReadFrame());
  const std::string request = peer_.ReadFrame().value_or("");
  // Both in one chunk, the post's answer last.
  ASSERT_TRUE(peer_.SendBytes(Frame(ServerReply(Wire().String("the call's"), 9, TextOf(request, "s_c_sw_semid"))) +
                              Frame(ServerReply(Wire().String("the post's"), 9, std::nullopt))));
  EXPECT_EQ(TextAt(call.Get().get(), 0), "the call's");
  // The next reply shows that the post's answer was read.
  Background<Reply> next([&] { return client_.Call("next", nullptr, 10, 0); });
  const std::string next_request = peer_.ReadFrame().value_or("");
  ASSERT_TRUE(peer_.SendFrame(ServerReply("", 10, TextOf(next_request, "s_c_sw_semid"))));
  EXPECT_FALSE(next.Get().error());
  EXPECT_EQ(TextAt(call.Get().get(), 0), "the call's");
}

TEST_P(Posts, TenThousandArriveInOrder) {
  constexpr int kPosts = 10000;
  Background<int> poster([&] {
    int sum = 0;
    for (int i = 1; i <= kPosts; ++i) {
      MIVOParams params;
      params.AddInt(i);
      sum += client_->PostMsg("count", &params, i);
    }
    return sum;
  });
  for (int i = 1; i <= kPosts; ++i)
    ASSERT_EQ(peer_.ReadFrame(), Request({"count", i, Wire().Int(i).bytes()}));
  EXPECT_EQ(poster.Get(), 0);
  EXPECT_TRUE(peer_.ExpectSilence(kMoment));
}

TEST_P(Posts, OfEightThreadsArriveInTheOrderOfEach) {
  constexpr int kThreads = 8;
  constexpr int kPosts = 1000;
  std::vector<std::unique_ptr<Background<int>>> posters;
  for (int thread = 0; thread < kThreads; ++thread) {
    posters.push_back(std::make_unique<Background<int>>([this, thread] {
      for (int i = 0; i < kPosts; ++i) {
        MIVOParams params;
        params.AddInt(i);
        client_->PostMsgFast("count", &params, 1 + thread);
      }
      return 0;
    }));
  }
  std::map<int, int> next;
  for (int i = 0; i < kThreads * kPosts; ++i) {
    const std::string frame = peer_.ReadFrame().value_or("");
    const int thread = IntOf(frame, "s_c_sw_threadid").value_or(0);
    ASSERT_EQ(TextOf(frame, "s_c_sw_data"), Wire().Int(next[thread]++).bytes()) << "thread " << thread;
  }
  EXPECT_EQ(next.size(), static_cast<std::size_t>(kThreads));
  for (const auto& [thread, count] : next)
    EXPECT_EQ(count, kPosts) << "thread " << thread;
}

TEST_P(Posts, FastOnesDoNotWaitForARunningCall) {
  Background<Reply> call([&] { return Reply(client_->SendMsg("slow", nullptr, 9, 0)); });
  const std::string request = peer_.ReadFrame().value_or("");
  EXPECT_EQ(client_->PostMsgFast("fast", nullptr, 8), 0);
  EXPECT_EQ(peer_.ReadFrame(), Request({"fast", 8}));
  EXPECT_FALSE(call.IsDone());
  ASSERT_TRUE(peer_.SendFrame(ServerReply("", 9, TextOf(request, "s_c_sw_semid"))));
  EXPECT_FALSE(call.Get().error());
}

TEST_P(Posts, SerialisedOnesWaitForARunningCallAlsoOfAnotherClient) {
  ClientOfRawServer other(GetParam());
  ASSERT_TRUE(other.Connect());
  Background<Reply> call([&] { return Reply(client_->SendMsg("slow", nullptr, 9, 0)); });
  const std::string request = peer_.ReadFrame().value_or("");
  Background<int> post([&] { return client_->PostMsg("after", nullptr, 8); });
  Background<int> other_post([&] { return other.client()->PostMsg("after", nullptr, 8); });
  EXPECT_TRUE(peer_.ExpectSilence(kMoment));
  EXPECT_TRUE(other.peer().ExpectSilence(kMoment));
  EXPECT_FALSE(post.IsDone());
  EXPECT_FALSE(other_post.IsDone());
  ASSERT_TRUE(peer_.SendFrame(ServerReply("", 9, TextOf(request, "s_c_sw_semid"))));
  EXPECT_EQ(post.Get(), 0);
  EXPECT_EQ(other_post.Get(), 0);
  EXPECT_EQ(peer_.ReadFrame(), Request({"after", 8}));
  EXPECT_EQ(other.peer().ReadFrame(), Request({"after", 8}));
}

TEST_P(Posts, LeaveTheirArgumentsAsTheyWere) {
  MIVOParams params;
  params.AddInt(5);
  params.AddKeyValueString("key", "value");
  const std::string before = *params.GetParamas();
  client_->PostMsg("foo", &params, 9);
  EXPECT_EQ(params.Size(), static_cast<int>(before.size()));
  EXPECT_EQ(*params.GetParamas(), before);
}

TEST_P(Posts, AfterTheEndOfTheConnectionSaySoAndReturnZero) {
  peer_.Close();
  ASSERT_TRUE(Eventually([&] { return !client_->isok(); }));
  const StdoutCapture out;
  EXPECT_EQ(client_->PostMsg("foo", nullptr, 9), 0);
  EXPECT_EQ(client_->PostMsgFast("foo", nullptr, 9), 0);
  EXPECT_EQ(out.Count("send msg: disconnect... .. .\n"), 2);
  EXPECT_FALSE(out.Contains("SendMsg end: "));
}

TEST(PostsWithoutConnection, SaySoAndReturnZero) {
  TestClient client;
  const StdoutCapture out;
  EXPECT_EQ(client->PostMsg("foo", nullptr, 9), 0);
  EXPECT_EQ(out.Text(), "send msg: disconnect... .. .\n");
}

class PostsToAServer : public testing::TestWithParam<Transport> {
 protected:
  TestServer server_{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, PostsToAServer, kEveryTransport, TransportName);

TEST_P(PostsToAServer, RunItsHandler) {
  Journal journal;
  server_.On("note", [&](int, MIVOParams* request, MIVOParams*) { journal.Add(TextAt(request, 0).value_or("?")); });
  ASSERT_TRUE(server_.Init());
  TestClient client;
  ASSERT_TRUE(client.Init(server_.address()));
  MIVOParams params;
  params.AddString("hello");
  client->PostMsg("note", &params, 0);
  EXPECT_TRUE(journal.WaitFor("hello"));
  server_.Destroy();
}

TEST_P(PostsToAServer, AreAnsweredAndTheAnswerDoesNotDisturbACallThatTimesOut) {
  Event release;
  server_.On("quick", [](int, MIVOParams*, MIVOParams* reply) { reply->AddString("quick"); });
  server_.On("slow", [&](int, MIVOParams*, MIVOParams* reply) {
    release.WaitFor();
    reply->AddString("slow");
  });
  ASSERT_TRUE(server_.Init());
  TestClient client;
  ASSERT_TRUE(client.Init(server_.address()));
  client->PostMsg("quick", nullptr, 0);
  const Reply reply(client->SendMsg("slow", nullptr, 0, 300));
  release.Signal();
  EXPECT_EQ(reply.error(), kNoReply);
  server_.Destroy();
}

TEST_P(PostsToAServer, RacingWithTheCloseReturnZeroAndEnd) {
  ASSERT_TRUE(server_.Init());
  for (int round = 0; round < 5; ++round) {
    TestClient client;
    ASSERT_TRUE(client.Init(server_.address()));
    std::atomic<bool> stop{false};
    Event running;
    std::vector<std::unique_ptr<Background<int>>> posters;
    for (int thread = 0; thread < 4; ++thread) {
      posters.push_back(std::make_unique<Background<int>>([&, thread] {
        int sum = 0;
        do {
          MIVOParams params;
          params.AddInt(thread);
          sum += thread % 2 == 0 ? client->PostMsg("none", &params, 0) : client->PostMsgFast("none", &params, 0);
          running.Signal();
        } while (!stop);
        return sum;
      }));
    }
    ASSERT_TRUE(running.WaitFor(20));
    client->close();
    stop = true;
    for (const auto& poster : posters)
      EXPECT_EQ(poster->Get(), 0);
  }
}

}  // namespace
