// Binary data that looks like a frame. While part of a message is pending, a chunk whose first four bytes are the
// length of the rest is a frame only if it can be one: a whole, well-formed set with a name.
#include <mivo/mivo.h>

#include "support/background.h"
#include "support/raw_served_client.h"
#include "support/reply.h"
#include "support/sanitizers.h"
#include "support/test_client.h"
#include "support/test_server.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

using namespace mivo_test;

namespace {

constexpr std::chrono::milliseconds kSoon{5000 * kSlowdown};

std::string Ints(std::int32_t value, std::size_t count) {
  std::string bytes;
  for (std::size_t i = 0; i < count; ++i)
    bytes += LittleEndian(value);
  return bytes;
}

// A message, and where to cut it into what the receiver reads at a time.
struct Chunks {
  const char* name;
  std::string data;         // a stream in the message
  std::size_t chunk_at;     // in `data`: where the misleading chunk begins
  std::size_t chunk_bytes;  // and how long it is
};

Chunks Around(const char* name, const std::string& chunk) {
  return {name, Ints(-1, 10) + chunk + Ints(-1, 10), 40, chunk.size()};
}

std::vector<Chunks> Misleading() {
  return {
      {"an int array of 65,532", Ints(65532, 40000), 400, 65536},
      {"an int array of 100, with a chunk of 104 bytes", Ints(100, 200), 40, 104},
      {"an int array of 100, with a last chunk of 104 bytes", Ints(100, 200), 800 - 104, 104},
      {"zeroes", Ints(0, 100), 40, 4},
      Around("a well-formed set without a name", Frame(Wire().Int(5))),
      Around("a name of another type", Frame(Wire().KeyInt("s_c_sw_name", 5))),
      Around("a name, and then a fault", Frame(Wire().KeyString("s_c_sw_name", "echo").Raw("\x09"))),
      Around("a name, and then a record cut off", Frame(Wire().KeyString("s_c_sw_name", "echo").Raw({"\0\1", 2}))),
  };
}

// Sends the frame so that the other side reads the misleading chunk by itself. Where the data itself ends with it, what
// is behind the data in the frame comes in a chunk of its own as well.
::testing::AssertionResult SendCut(RawPeer* peer, const std::string& frame, const Chunks& chunks) {
  const std::size_t begin = frame.find(chunks.data) + chunks.chunk_at;
  const std::size_t ends[] = {begin, begin + chunks.chunk_bytes, frame.size()};
  std::size_t at = 0;
  for (const std::size_t end : ends) {
    if (!peer->SendBytes(std::string_view(frame).substr(at, end - at)) || !peer->WaitUntilTaken()) {
      return ::testing::AssertionFailure() << "not taken: " << at << " to " << end << " of " << chunks.name;
    }
    at = end;
  }
  return ::testing::AssertionSuccess();
}

class FramesInData : public testing::TestWithParam<Transport> {};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, FramesInData, kEveryTransport, TransportName);

TEST_P(FramesInData, AreDataToAServer) {
  TestServer server(GetParam());
  SetLog(server.get(), "", 0);
  server.On("echo", [](int, MIVOParams* request, MIVOParams* reply) {
    const std::string bytes = StreamAt(request, 0).value_or("");
    reply->AddStream(bytes.data(), static_cast<long>(bytes.size()));
  });
  ASSERT_TRUE(server.Init());
  for (const Chunks& chunks : Misleading()) {
    RawPeer peer = server.Connect();
    ASSERT_TRUE(SendCut(&peer, Frame(Request({"echo", 9, Wire().Stream(chunks.data).bytes(), "0x1"})), chunks));
    EXPECT_TRUE(peer.ReadFrame(kSoon) == ServerReply(Wire().Stream(chunks.data), 9, "0x1")) << chunks.name;
  }
}

TEST_P(FramesInData, DoNotShiftWhatFollowsToAServer) {
  TestServer server(GetParam());
  SetLog(server.get(), "", 0);
  ASSERT_TRUE(server.Init());
  for (const Chunks& chunks : Misleading()) {
    RawPeer peer = server.Connect();
    ASSERT_TRUE(SendCut(&peer, Frame(Request({"nobody", 9, Wire().Stream(chunks.data).bytes(), "0x1"})), chunks));
    const std::string reply = ServerReply(Wire().String("no event: nobody"), 9, "0x1");
    EXPECT_TRUE(peer.ReadFrame(kSoon) == reply) << chunks.name;
    ASSERT_TRUE(peer.SendFrame(Request({"nobody", 9, std::nullopt, "0x1"})));
    EXPECT_TRUE(peer.ReadFrame(kSoon) == reply) << "after " << chunks.name;
  }
}

TEST_P(FramesInData, AreDataToAClient) {
  for (const Chunks& chunks : Misleading()) {
    ClientOfRawServer pair(GetParam());
    SetLog(pair.client().get(), "", 0);
    ASSERT_TRUE(pair.Connect());
    Background<Reply> call(
        [&] { return Reply(pair.client()->SendMsgFast("f", nullptr, 9, static_cast<int>(kSoon.count()))); });
    const std::string request = pair.peer().ReadFrame().value_or("");
    const std::string reply = ServerReply(Wire().Stream(chunks.data), 9, TextOf(request, "s_c_sw_semid"));
    ASSERT_TRUE(SendCut(&pair.peer(), Frame(reply), chunks));
    EXPECT_TRUE(StreamAt(call.Get().get(), 0) == chunks.data) << chunks.name;
  }
}

TEST_P(FramesInData, AWholeWellFormedFrameWithANameIsStillOneWhileAnotherIsPending) {
  TestServer server(GetParam());
  SetLog(server.get(), "", 0);
  ASSERT_TRUE(server.Init());
  RawPeer peer = server.Connect();
  const std::string pending = Frame(Request({"pending", 9, Wire().Stream(Ints(-1, 100)).bytes(), "0x1"}));
  ASSERT_TRUE(peer.SendBytes(pending.substr(0, 200)));
  ASSERT_TRUE(peer.WaitUntilTaken());
  ASSERT_TRUE(peer.SendFrame(Request({"between", 10, std::nullopt, "0x2"})));
  EXPECT_EQ(peer.ReadFrame(kSoon), ServerReply(Wire().String("no event: between"), 10, "0x2"));
  ASSERT_TRUE(peer.SendBytes(pending.substr(200)));
  EXPECT_EQ(peer.ReadFrame(kSoon), ServerReply(Wire().String("no event: pending"), 9, "0x1"));
}

}  // namespace
