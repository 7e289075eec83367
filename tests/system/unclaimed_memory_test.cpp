// Answers that never come, and those that nobody waits for, do not fill the memory.
#include <mivo/mivo.h>

#include "support/allocated_bytes.h"
#include "support/asked_peer.h"
#include "support/background.h"
#include "support/raw_served_client.h"
#include "support/sanitizers.h"
#include "support/test_client.h"
#include "support/test_server.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <string>
#include <vector>

using namespace mivo_test;

namespace {

// So many may well be kept, of each kind; those after them take the place of others.
constexpr int kKept = 100000;
constexpr int kMore = 40000;
// A table that grew by one entry for each would need several times as much.
constexpr long kBytesForEach = 16;

long Live() {
  return static_cast<long>(AllocatedBytes());
}

// `act(first, last)` does it for these keys and returns when all is done. What has just been sent may still be being
// freed then.
void ExpectABound(const std::function<void(int, int)>& act, int kept = kKept, int more = kMore) {
  act(1, kept);
  const long before = Live();
  act(kept + 1, kept + more);
  EXPECT_TRUE(Eventually([&] { return Live() - before < kBytesForEach * more; }, std::chrono::seconds(10)))
      << Live() - before << " bytes for " << more << " more";
}

// Takes this many posts under a name of four letters.
void TakePosts(RawPeer* peer, int count) {
  const std::size_t size = Frame(Request({"post", 1})).size();
  for (int left = count; left > 0;) {
    const int some = std::min(left, 500);
    ASSERT_TRUE(peer->ReadBytes(size * static_cast<std::size_t>(some)));
    left -= some;
  }
}

// Replies under these keys. Each is also of another token, if there is one.
void SendReplies(RawPeer* peer, int first, int last, const std::function<std::string(int)>& reply) {
  std::string frames;
  for (int key = first; key <= last; ++key) {
    frames += Frame(reply(key));
    if (frames.size() < 60000 && key < last) continue;
    ASSERT_TRUE(peer->SendBytes(frames));
    frames.clear();
  }
}

std::string UnknownToken(int key) {
  return "0x7f00000" + std::to_string(key);
}

TEST(UnclaimedMemory, PostsOfAClientThatNobodyAnswers) {
  ClientOfRawServer pair(Transport::Local);
  SetLog(pair.client().get(), "", 0);
  ASSERT_TRUE(pair.Connect());
  ExpectABound([&](int first, int last) {
    Background<bool> reading([&] {
      TakePosts(&pair.peer(), last - first + 1);
      return true;
    });
    for (int key = first; key <= last; ++key)
      pair.client()->PostMsgFast("post", nullptr, key);
  });
}

TEST(UnclaimedMemory, PostsOfAServerThatNobodyAnswers) {
  TestServer server(Transport::Local);
  SetLog(server.get(), "", 0);
  PeerIds ids(&server);
  ASSERT_TRUE(server.Init());
  AskedPeer asked = ids.Connect();
  ASSERT_NE(asked.id, 0);
  ExpectABound([&](int first, int last) {
    Background<bool> reading([&] {
      TakePosts(&asked.peer, last - first + 1);
      return true;
    });
    for (int key = first; key <= last; ++key)
      server->PostMsg(asked.id, "post", nullptr, key);
  });
}

class UnclaimedReplies : public testing::TestWithParam<bool> {
 protected:
  static std::optional<std::string> Token(int key) {
    return GetParam() ? std::optional(UnknownToken(key)) : std::nullopt;
  }
};

INSTANTIATE_TEST_SUITE_P(OfEveryKind, UnclaimedReplies, testing::Bool(), [](const testing::TestParamInfo<bool>& kind) {
  return std::string(kind.param ? "WithAToken" : "WithoutAToken");
});

TEST_P(UnclaimedReplies, ToAServer) {
  TestServer server(Transport::Local);
  SetLog(server.get(), "", 0);
  ASSERT_TRUE(server.Init());
  RawPeer peer = server.Connect();
  ExpectABound([&](int first, int last) {
    SendReplies(&peer, first, last, [](int key) { return ClientReply(Wire().Int(key), key, Token(key)); });
    ASSERT_TRUE(peer.AnswersInOrder());
  });
}

TEST_P(UnclaimedReplies, ToAClient) {
  ClientOfRawServer pair(Transport::Local);
  SetLog(pair.client().get(), "", 0);
  ASSERT_TRUE(pair.Connect());
  ExpectABound([&](int first, int last) {
    SendReplies(&pair.peer(), first, last, [](int key) { return ServerReply(Wire().Int(key), key, Token(key)); });
    // A call to the client is answered behind them.
    ASSERT_TRUE(pair.peer().Exchange(Request({"nobody", 1, std::nullopt, "0xab"})));
  });
}

TEST_P(UnclaimedReplies, ToAServerGoWithTheirClient) {
  constexpr int kPeers = 20;
  constexpr int kEach = 5000;
  TestServer server(Transport::Local);
  SetLog(server.get(), "", 0);
  PeerIds ids(&server);
  ASSERT_TRUE(server.Init());
  ASSERT_NE(ids.Connect().id, 0);
  ASSERT_TRUE(ids.WaitForCloses(1));
  const long before = Live();
  for (int i = 0; i < kPeers; ++i) {
    AskedPeer asked = ids.Connect();
    ASSERT_NE(asked.id, 0);
    const int first = 1 + i * kEach;
    SendReplies(&asked.peer, first, first + kEach - 1,
                [](int key) { return ClientReply(Wire().Int(key), key, Token(key)); });
    ASSERT_TRUE(asked.peer.AnswersInOrder());
  }
  ASSERT_TRUE(ids.WaitForCloses(1 + kPeers));
  EXPECT_TRUE(
      Eventually([&] { return Live() - before < kBytesForEach * kPeers * kEach; }, std::chrono::milliseconds(5000)))
      << Live() - before << " bytes are left";
}

TEST(UnclaimedMemory, KeysOfAServersCallsThatGotNothing) {
  TestServer server(Transport::Local);
  SetLog(server.get(), "", 0);
  ASSERT_TRUE(server.Init());
  ExpectABound(
      [&](int first, int last) {
        for (int key = first; key <= last; ++key)
          EXPECT_EQ(server->SendMsg(12345, "nobody", nullptr, key, 1000), nullptr);
      },
      1000, 20000);
}

}  // namespace
