#include "largedata/recv_large_data_client.h"

#include <gtest/gtest.h>
#include <mivo/params.h>

#include <string>
#include <utility>
#include <vector>

#include "largedata/slice.h"

namespace mivo {
namespace {

constexpr int kServer = 42;

struct Receiver {
  std::vector<std::pair<int, std::string>> results;
  RecvLargeDataClient receiver{[this](int key, std::string result) { results.emplace_back(key, std::move(result)); }};

  // The reply's encoding.
  std::string Receive(const Slice& slice) {
    MIVOParams request;
    WriteSlice(slice, &request);
    request.ToParams();
    MIVOParams reply;
    receiver.OnCall(kServer, &request, &reply);
    return *reply.GetParamas();
  }

  // As the thread that reads does.
  void Take(int connection_id, const Slice& slice) {
    MIVOParams encoded;
    WriteSlice(slice, &encoded);
    receiver.Take(connection_id, *encoded.GetParamas());
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
  test.receiver.OnCall(kServer, &request, &reply);
  EXPECT_EQ(test.results, (std::vector<std::pair<int, std::string>>{{0, ""}}));
}

TEST(RecvLargeDataClient, TakesSlicesAsTheyAreReadLikeCallsOfTheMethod) {
  Receiver test;
  test.Take(kServer, {9, 15, "01234"});
  test.Receive({9, 15, "56789"});
  EXPECT_TRUE(test.results.empty());
  test.Take(kServer, {9, 15, "ABCDE"});
  EXPECT_EQ(test.results, (std::vector<std::pair<int, std::string>>{{9, "0123456789ABCDE"}}));
}

TEST(RecvLargeDataClient, TakesWhatStandsBeforeAFaultInASlice) {
  Receiver test;
  MIVOParams encoded;
  WriteSlice({9, 3, "abc"}, &encoded);
  test.receiver.Take(kServer, *encoded.GetParamas() + "\x7F");
  EXPECT_EQ(test.results, (std::vector<std::pair<int, std::string>>{{9, "abc"}}));
}

TEST(RecvLargeDataClient, ForgetsTheUnfinishedResultsOfAConnectionThatHasGone) {
  Receiver test;
  test.Take(kServer, {9, 4, "ol"});
  test.Take(kServer + 16, {9, 4, "ab"});
  test.receiver.Forget(kServer);
  test.Take(kServer, {9, 4, "newe"});
  test.Take(kServer + 16, {9, 4, "cd"});
  EXPECT_EQ(test.results, (std::vector<std::pair<int, std::string>>{{9, "newe"}, {9, "abcd"}}));
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
