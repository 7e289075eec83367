#include "largedata/recv_large_data_client.h"

#include <gtest/gtest.h>
#include <mivo/params.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "largedata/slice.h"

namespace mivo {
namespace {

struct Receiver {
  std::vector<std::pair<int, std::string>> results;
  RecvLargeDataClient receiver{[this](int key, std::string result) { results.emplace_back(key, std::move(result)); }};

  // The reply's encoding.
  std::string Receive(const Slice& slice) {
    MIVOParams request;
    WriteSlice(slice, &request);
    request.ToParams();
    MIVOParams reply;
    receiver.OnCall(42, &request, &reply);
    return *reply.GetParamas();
  }
};

TEST(RecvLargeDataClient, DeliversAResultWithItsLastSlice) {
  Receiver test;
  test.Receive({9, 10, "01234"});
  EXPECT_TRUE(test.results.empty());
  test.Receive({9, 10, "56789"});
  EXPECT_EQ(test.results, (std::vector<std::pair<int, std::string>>{{9, "0123456789"}}));
}

TEST(RecvLargeDataClient, AddsNothingToTheReply) {
  Receiver test;
  EXPECT_EQ(test.Receive({9, 10, "01234"}), "");
  EXPECT_EQ(test.Receive({9, 10, "56789"}), "");
}

TEST(RecvLargeDataClient, DeliversBytesThatAreNoEncodingAllTheSame) {
  Receiver test;
  test.Receive({9, 3, "\x7F\x7F\x7F"});
  ASSERT_EQ(test.results.size(), 1U);
  EXPECT_EQ(test.results.front().second, "\x7F\x7F\x7F");
}

TEST(RecvLargeDataClient, TakesASliceWithoutAnythingForAnEmptyResult) {
  Receiver test;
  MIVOParams request;
  MIVOParams reply;
  test.receiver.OnCall(42, &request, &reply);
  EXPECT_EQ(test.results, (std::vector<std::pair<int, std::string>>{{0, ""}}));
}

TEST(RecvLargeDataClient, PutsSlicesTogetherInTheOrderOfTheirArrival) {
  Receiver test;
  MIVOParams slices[2];
  WriteSlice({9, 10, "01234"}, &slices[0]);
  WriteSlice({9, 10, "56789"}, &slices[1]);
  const std::unique_ptr<IServerMethod> first = test.receiver.Arrive(*slices[0].GetParamas());
  const std::unique_ptr<IServerMethod> last = test.receiver.Arrive(*slices[1].GetParamas());
  MIVOParams arguments;
  MIVOParams reply;
  last->OnCall(42, &arguments, &reply);
  EXPECT_EQ(test.results, (std::vector<std::pair<int, std::string>>{{9, "0123456789"}}));
  first->OnCall(42, &arguments, &reply);
  EXPECT_EQ(test.results.size(), 1U);
  EXPECT_EQ(reply.Size(), 0);
}

TEST(RecvLargeDataClient, KeepsTransfersOfDifferentKeysApart) {
  Receiver test;
  test.Receive({1, 4, "ab"});
  test.Receive({2, 4, "AB"});
  test.Receive({2, 4, "CD"});
  test.Receive({1, 4, "cd"});
  EXPECT_EQ(test.results, (std::vector<std::pair<int, std::string>>{{2, "ABCD"}, {1, "abcd"}}));
}

}  // namespace
}  // namespace mivo
