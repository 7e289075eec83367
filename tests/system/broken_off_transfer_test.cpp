// A connection that ends inside a large message: the message ends there too, and is told once.
#include <mivo/mivo.h>

#include "support/asked_peer.h"
#include "support/background.h"
#include "support/large_peer.h"
#include "support/raw_served_client.h"
#include "support/reply.h"
#include "support/sanitizers.h"
#include "support/slices.h"
#include "support/stdout_capture.h"
#include "support/test_client.h"
#include "support/test_server.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

using namespace mivo_test;

namespace {

// What a close prints of its own course, and the failure.
constexpr int kFewLines = 16;

int Lines(const std::string& text) {
  return static_cast<int>(std::count(text.begin(), text.end(), '\n'));
}

class BrokenOffTransfer : public testing::TestWithParam<Transport> {};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, BrokenOffTransfer, kEveryTransport, TransportName);

TEST_P(BrokenOffTransfer, OfAClientIsToldInFewLines) {
  const ScopedSliceSize size(10);
  StdoutCapture out;
  ClientOfRawServer pair(GetParam());
  ASSERT_TRUE(pair.Connect());
  const std::size_t before = out.Size();
  Background<Reply> call([&] {
    MIVOParams params;
    params.AddString(std::string(20000, 'x').c_str());
    return Reply(pair.client()->SendMsgEx("f", &params, 9, 60000));
  });
  // One slice answered, one under way, and 2,000 to go.
  const std::string first = pair.peer().ReadFrame().value_or("");
  ASSERT_TRUE(pair.peer().SendFrame(AsServer(first)));
  ASSERT_TRUE(pair.peer().ReadFrame());
  pair.peer().Close();
  EXPECT_EQ(call.Get().error(), kNotConnected);
  EXPECT_LE(Lines(out.TextFrom(before)), kFewLines);
  EXPECT_TRUE(out.Contains("sendmsgex: disconnect... .. .\n"));
}

TEST_P(BrokenOffTransfer, OfAClientThatIsClosedIsToldInFewLines) {
  const ScopedSliceSize size(10);
  StdoutCapture out;
  ClientOfRawServer pair(GetParam());
  ASSERT_TRUE(pair.Connect());
  const std::size_t before = out.Size();
  Background<Reply> call([&] {
    MIVOParams params;
    params.AddString(std::string(20000, 'x').c_str());
    return Reply(pair.client()->SendMsgEx("f", &params, 9, 60000));
  });
  const std::string first = pair.peer().ReadFrame().value_or("");
  ASSERT_TRUE(pair.peer().SendFrame(AsServer(first)));
  ASSERT_TRUE(pair.peer().ReadFrame());
  pair.client()->close();
  EXPECT_TRUE(call.Get().error());
  EXPECT_LE(Lines(out.TextFrom(before)), kFewLines);
}

TEST_P(BrokenOffTransfer, OfAServersResultIsToldInFewLines) {
  const ScopedSliceSize size(10);
  StdoutCapture out;
  TestServer server(GetParam());
  PeerIds ids(&server);
  server.On("large", [](int, MIVOParams*, MIVOParams* reply) { reply->AddString(std::string(20000, 'r').c_str()); });
  ASSERT_TRUE(server.Init());
  AskedPeer asked = ids.Connect();
  ASSERT_NE(asked.id, 0);
  const std::size_t before = out.Size();
  ASSERT_TRUE(asked.peer.SendFrame(SliceRequests(9, Whole("", "large", 9), 32768).front()));
  const std::string first = asked.peer.ReadFrame().value_or("");
  ASSERT_TRUE(asked.peer.SendFrame(AsClient(first)));
  ASSERT_TRUE(ReadSliceRequest(asked.peer.ReadFrame().value_or("")).valid);
  asked.peer.Close();
  ASSERT_TRUE(ids.WaitForCloses(1));
  server.Destroy();
  EXPECT_LE(Lines(out.TextFrom(before)), 2 * kFewLines);
}

}  // namespace
