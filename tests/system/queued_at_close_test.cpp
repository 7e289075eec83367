// What is queued on a connection when it is closed: still sent to a peer that reads, and counted in one line for a peer
// that does not.
#include <mivo/mivo.h>

#include "support/asked_peer.h"
#include "support/background.h"
#include "support/event.h"
#include "support/raw_served_client.h"
#include "support/sanitizers.h"
#include "support/stdout_capture.h"
#include "support/test_client.h"
#include "support/test_server.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <string>
#include <vector>

using namespace mivo_test;

namespace {

constexpr int kPosts = 2000;
// Together more than the kernel takes.
constexpr int kLargePosts = 800;
constexpr std::size_t kLargeBytes = 20000;
// Half a second, and a generous time for all else.
constexpr long long kOnceMs = 1500 * kSlowdown;

// The posts' numbers, in order, until the stream ends; -1 for what is no post of them.
std::vector<int> ReadPosts(RawPeer* peer) {
  std::vector<int> numbers;
  while (const auto frame = peer->ReadFrame())
    numbers.push_back(TextOf(*frame, "s_c_sw_name") == "post" ? IntOf(*frame, "s_c_sw_threadid").value_or(-1) : -1);
  return numbers;
}

std::vector<int> AllNumbers() {
  std::vector<int> numbers;
  for (int i = 1; i <= kPosts; ++i)
    numbers.push_back(i);
  return numbers;
}

int Lines(const std::string& text) {
  return static_cast<int>(std::count(text.begin(), text.end(), '\n'));
}

bool HasANumber(const std::string& text) {
  return std::any_of(text.begin(), text.end(), [](unsigned char letter) { return std::isdigit(letter) != 0; });
}

int WriteErrors(const StdoutCapture& out) {
  return out.Count("rite error") + out.Count("rite Error");
}

class QueuedAtClose : public testing::TestWithParam<Transport> {};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, QueuedAtClose, kEveryTransport, TransportName);

TEST_P(QueuedAtClose, ByAServerReachesAPeerThatReads) {
  StdoutCapture out;
  TestServer server(GetParam());
  SetLog(server.get(), "", 0);
  PeerIds ids(&server);
  ASSERT_TRUE(server.Init());
  AskedPeer asked = ids.Connect();
  ASSERT_NE(asked.id, 0);
  for (int i = 1; i <= kPosts; ++i)
    server->PostMsg(asked.id, "post", nullptr, i);
  Background<std::vector<int>> reading([&] { return ReadPosts(&asked.peer); });
  server->close();
  EXPECT_EQ(reading.Get(), AllNumbers());
  EXPECT_EQ(WriteErrors(out), 0);
}

TEST_P(QueuedAtClose, ByANoticeOfAServerReachesAPeerThatReads) {
  StdoutCapture out;
  TestServer server(GetParam());
  SetLog(server.get(), "", 0);
  std::atomic<int> id{0};
  Event connected;
  Event closing;
  server.On("s_c_connect", [&](int client, MIVOParams*, MIVOParams*) {
    if (id == 0) id = client;
    connected.Signal();
  });
  server.On("s_c_closed", [&, raw = server.get()](int client, MIVOParams*, MIVOParams*) {
    if (client == id) return;
    // All in one turn of the loop.
    for (int i = 1; i <= kPosts; ++i)
      raw->PostMsg(id, "post", nullptr, i);
    closing.Signal();
    raw->close();
  });
  ASSERT_TRUE(server.Init());
  RawPeer reader = server.Connect();
  ASSERT_TRUE(connected.WaitFor(1) && reader.AnswersInOrder());
  RawPeer leaver = server.Connect();
  ASSERT_TRUE(connected.WaitFor(2) && leaver.AnswersInOrder());
  Background<std::vector<int>> reading([&] { return ReadPosts(&reader); });
  leaver.Close();
  ASSERT_TRUE(closing.WaitFor());
  EXPECT_EQ(reading.Get(), AllNumbers());
  EXPECT_EQ(WriteErrors(out), 0);
}

TEST_P(QueuedAtClose, AnswersOfAServerReachAPeerThatReads) {
  StdoutCapture out;
  TestServer server(GetParam());
  SetLog(server.get(), "", 0);
  std::atomic<int> handled{0};
  server.On("echo", [&](int, MIVOParams*, MIVOParams*) { ++handled; });
  ASSERT_TRUE(server.Init());
  RawPeer peer = server.Connect();
  std::string requests;
  for (int i = 1; i <= kPosts; ++i)
    requests += Frame(Request({"echo", i}));
  ASSERT_TRUE(peer.SendBytes(requests));
  ASSERT_TRUE(Eventually([&] { return handled == kPosts; }));
  // The last handlers may still be on their way out, one on each thread of the pool: their replies may be dropped.
  Background<int> reading([&] {
    int answers = 0;
    while (peer.ReadFrame())
      ++answers;
    return answers;
  });
  server->close();
  EXPECT_GE(reading.Get(), kPosts - 4);
  EXPECT_EQ(WriteErrors(out), 0);
}

TEST_P(QueuedAtClose, ByAClientReachesAPeerThatReads) {
  StdoutCapture out;
  ClientOfRawServer pair(GetParam());
  SetLog(pair.client().get(), "", 0);
  ASSERT_TRUE(pair.Connect());
  for (int i = 1; i <= kPosts; ++i)
    pair.client()->PostMsgFast("post", nullptr, i);
  Background<std::vector<int>> reading([&] { return ReadPosts(&pair.peer()); });
  pair.client()->close();
  EXPECT_EQ(reading.Get(), AllNumbers());
  EXPECT_EQ(WriteErrors(out), 0);
}

TEST_P(QueuedAtClose, ForPeersThatDoNotReadCostsAServerHalfASecondOnce) {
  constexpr int kPeers = 6;
  StdoutCapture out;
  TestServer server(GetParam());
  SetLog(server.get(), "", 0);
  PeerIds ids(&server);
  ASSERT_TRUE(server.Init());
  MIVOParams params;
  const std::string bytes(kLargeBytes, 'x');
  params.AddStream(bytes.data(), static_cast<long>(bytes.size()));
  std::vector<AskedPeer> peers;
  for (int i = 0; i < kPeers; ++i) {
    peers.push_back(ids.Connect());
    ASSERT_NE(peers.back().id, 0);
    for (int post = 0; post < kLargePosts; ++post)
      server->PostMsg(peers.back().id, "post", &params, 5);
  }
  const std::size_t before = out.Size();
  const Stopwatch watch;
  server->close();
  EXPECT_LT(watch.ElapsedMs(), kOnceMs);
  const std::string text = out.TextFrom(before);
  EXPECT_GE(Lines(text), 1) << "what was dropped is told";
  EXPECT_LE(Lines(text), kPeers) << "once for a connection at most";
  EXPECT_TRUE(HasANumber(text)) << "with its count";
}

TEST_P(QueuedAtClose, ForAPeerThatDoesNotReadCostsAClientHalfASecondAndALine) {
  StdoutCapture out;
  ClientOfRawServer pair(GetParam());
  SetLog(pair.client().get(), "", 0);
  ASSERT_TRUE(pair.Connect());
  MIVOParams params;
  const std::string bytes(kLargeBytes, 'x');
  params.AddStream(bytes.data(), static_cast<long>(bytes.size()));
  for (int post = 0; post < kLargePosts; ++post)
    pair.client()->PostMsgFast("post", &params, 5);
  const std::size_t before = out.Size();
  const Stopwatch watch;
  pair.client()->close();
  EXPECT_LT(watch.ElapsedMs(), kOnceMs);
  // A TCP client says "run out" as well.
  std::string text = out.TextFrom(before);
  const std::size_t run_out = text.find("run out");
  if (run_out != std::string::npos) text.erase(run_out, text.find('\n', run_out) + 1 - run_out);
  EXPECT_EQ(Lines(text), 1) << text;
  EXPECT_TRUE(HasANumber(text)) << "with its count";
}

}  // namespace
