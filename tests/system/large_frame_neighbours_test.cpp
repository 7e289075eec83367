// A frame that takes long to look through holds up nobody but the connection it came over.
#include <mivo/mivo.h>

#include "support/background.h"
#include "support/many_records.h"
#include "support/reply.h"
#include "support/sanitizers.h"
#include "support/test_client.h"
#include "support/test_server.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

using namespace mivo_test;

namespace {

constexpr std::size_t kFrameBytes = 64u * 1024 * 1024 / mivo_test::kScaledown;
constexpr int kFrames = kSanitized ? 4 : 10;
constexpr long long kBoundMs = 150 * kSlowdown;

// A call of a method that nobody offers, with tiny records around its envelope. Behind it
// they are empty lists, in front of it bools.
std::string RequestAmongRecords(bool records_first) {
  Wire wire;
  if (records_first) wire.Raw(Bools(kFrameBytes));
  wire.KeyString("s_c_sw_name", "nobody").KeyInt("s_c_sw_threadid", 9).KeyString("s_c_sw_semid", "0x1");
  if (!records_first) wire.Raw(EmptyLists(kFrameBytes));
  return wire;
}

class LargeFrameNeighbours : public testing::TestWithParam<Transport> {
 protected:
  // The longest wait for one of the calls made while each frame is on its way and is answered.
  std::vector<long long> LongestWaitsMs(const std::string& request) {
    TestServer server(GetParam());
    SetLog(server.get(), "", 0);
    server.On("echo", [](int, MIVOParams* params, MIVOParams* reply) { reply->AddInt(IntAt(params, 0).value_or(-1)); });
    EXPECT_TRUE(server.Init());
    RawPeer neighbour = server.Connect();
    EXPECT_TRUE(neighbour.AnswersInOrder());
    RawPeer sender = server.Connect();
    std::vector<long long> waits;
    int number = 0;
    for (int i = 0; i < kFrames; ++i) {
      Background<bool> answered(
          [&] { return sender.Exchange(request) == ServerReply(Wire().String("no event: nobody"), 9, "0x1"); });
      long long longest = 0;
      while (!answered.IsDone()) {
        const Stopwatch watch;
        ++number;
        EXPECT_EQ(neighbour.Exchange(Request({"echo", 3, Wire().Int(number).bytes(), "0x2"})),
                  ServerReply(Wire().Int(number), 3, "0x2"));
        longest = std::max<long long>(longest, watch.ElapsedMs());
      }
      EXPECT_TRUE(answered.Get());
      waits.push_back(longest);
    }
    return waits;
  }

  void Expect(const std::string& request) {
    std::vector<long long> waits = LongestWaitsMs(request);
    std::sort(waits.begin(), waits.end());
    EXPECT_LT(waits[waits.size() * 9 / 10 - 1], kBoundMs) << "at the worst " << waits.back();
  }
};

INSTANTIATE_TEST_SUITE_P(OnSomeTransports, LargeFrameNeighbours, testing::Values(Transport::Local, Transport::Tcp4),
                         TransportName);

TEST_P(LargeFrameNeighbours, AreNotHeldUpByAFrameOfTinyRecordsBehindItsEnvelope) {
  Expect(RequestAmongRecords(false));
}

TEST_P(LargeFrameNeighbours, AreNotHeldUpByAFrameOfTinyRecordsInFrontOfItsEnvelope) {
  Expect(RequestAmongRecords(true));
}

}  // namespace
