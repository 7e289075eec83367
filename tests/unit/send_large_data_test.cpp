#include "client/mivo_client.h"

#include "largedata/slice_sender.h"
#include "largedata/slice_size.h"

#include "support/background.h"
#include "support/raw_served_client.h"
#include "support/raw_server.h"
#include "support/slices.h"
#include "support/test_client.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace mivo_test;

namespace {

// ---- The sender by itself
// ---------------------------------------------------------------------------------------------

std::vector<std::string> SlicesOf(const std::string& whole, int key) {
  std::vector<std::string> slices;
  EXPECT_TRUE(mivo::SendInSlices(whole, key, [&](MIVOParams* slice) {
    slices.push_back(*slice->GetParamas());
    return true;
  }));
  return slices;
}

TEST(SendInSlices, WritesASliceByteForByte) {
  const ScopedSliceSize size(10);
  const std::vector<std::string> slices = SlicesOf("ABCDEFGHIJ" + std::string(90, '.'), 9);
  ASSERT_EQ(slices.size(), 10u);
  EXPECT_EQ(Hex(slices[0]), Hex(FromHex(exact::kSlice)));
}

TEST(SendInSlices, CutsAtTheSizeAndSendsTheRestAsTheLast) {
  const ScopedSliceSize size(10);
  EXPECT_EQ(SlicesOf("", 9), (std::vector<std::string>{SliceSet(9, 0, "")}));
  EXPECT_EQ(SlicesOf("0123456789", 9), (std::vector<std::string>{SliceSet(9, 10, "0123456789")}));
  EXPECT_EQ(SlicesOf("0123456789x", 9),
            (std::vector<std::string>{SliceSet(9, 11, "0123456789"), SliceSet(9, 11, "x")}));
}

TEST(SendInSlices, StopsWhereASliceIsRefused) {
  const ScopedSliceSize size(10);
  int sent = 0;
  EXPECT_FALSE(mivo::SendInSlices(std::string(35, '.'), 9, [&](MIVOParams*) { return ++sent < 2; }));
  EXPECT_EQ(sent, 2);
  EXPECT_FALSE(mivo::SendInSlices("", 9, [&](MIVOParams*) { return false; }));
}

TEST(SendInSlices, KeepsTheSizeWithWhichItBegan) {
  const ScopedSliceSize size(10);
  std::vector<int> lengths;
  EXPECT_TRUE(mivo::SendInSlices(std::string(35, '.'), 9, [&](MIVOParams* slice) {
    mivo::SetSliceSize(3);
    slice->ToParams();
    lengths.push_back(static_cast<int>(StreamAt(slice, 1).value_or("").size()));
    return true;
  }));
  EXPECT_EQ(lengths, (std::vector<int>{10, 10, 10, 5}));
}

// ---- SendMsgLargeData
// -------------------------------------------------------------------------------------------------

class SendMsgLargeData : public testing::TestWithParam<Transport> {
 protected:
  void SetUp() override {
    Background<bool> connected([this] { return InitClient(&client_, server_.address()); });
    peer_ = server_.AcceptAndAnswerHandshake();
    ASSERT_TRUE(connected.Get() && peer_.connected());
  }
  void TearDown() override { client_.close(); }

  RawServer server_{GetParam()};
  mivo::MIVOClient client_;
  RawPeer peer_;
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, SendMsgLargeData, kEveryTransport, TransportName);

TEST_P(SendMsgLargeData, SendsTheSetWithNameAndKeyAndReturnsTrue) {
  MIVOParams params;
  params.AddInt(5);
  Background<bool> sent([&] { return client_.SendMsgLargeData("method", &params, 9, 60000); });
  const TakenTransfer transfer = TakeTransfer(&peer_, AsServer);
  EXPECT_TRUE(sent.Get());
  EXPECT_EQ(transfer.whole, Whole(Wire().Int(5), "method", 9));
  ASSERT_EQ(transfer.slices.size(), 1u);
  EXPECT_EQ(transfer.slices[0].key, 9);
  EXPECT_EQ(transfer.slices[0].envelope_key, 9);
}

TEST_P(SendMsgLargeData, ReturnsTrueAlsoWhenNoSliceIsAnswered) {
  const ScopedSliceSize size(40);
  MIVOParams params;
  Background<bool> sent([&] { return client_.SendMsgLargeData("f", &params, 9, 100); });
  EXPECT_TRUE(sent.Get());
  EXPECT_TRUE(ReadSliceRequest(peer_.ReadFrame().value_or("")).valid);
  EXPECT_TRUE(ReadSliceRequest(peer_.ReadFrame().value_or("")).valid);
}

TEST_P(SendMsgLargeData, WithKeyZeroWritesZeroInsideAndTheThreadsIdOutside) {
  MIVOParams params;
  Background<bool> sent([&] { return client_.SendMsgLargeData("f", &params, 0, 60000); });
  const TakenTransfer transfer = TakeTransfer(&peer_, AsServer);
  EXPECT_TRUE(sent.Get());
  ASSERT_EQ(transfer.slices.size(), 1u);
  EXPECT_EQ(transfer.slices[0].key, 0);
  EXPECT_EQ(transfer.slices[0].envelope_key, sent.thread_id());
  EXPECT_EQ(transfer.whole, Whole("", "f", 0));
}

TEST_P(SendMsgLargeData, WithKeyZeroUsesTheKeyAmongTheArgumentsOutside) {
  MIVOParams params;
  params.AddKeyValueInt("s_c_sw_threadid", 4242);
  params.ToParams();
  Background<bool> sent([&] { return client_.SendMsgLargeData("f", &params, 0, 60000); });
  const TakenTransfer transfer = TakeTransfer(&peer_, AsServer);
  EXPECT_TRUE(sent.Get());
  ASSERT_EQ(transfer.slices.size(), 1u);
  EXPECT_EQ(transfer.slices[0].key, 0);
  EXPECT_EQ(transfer.slices[0].envelope_key, 4242);
}

TEST_P(SendMsgLargeData, EndsAlsoWhenTheConnectionEnds) {
  const ScopedSliceSize size(1);
  MIVOParams params;
  Background<bool> sent([&] { return client_.SendMsgLargeData("f", &params, 9, 60000); });
  ASSERT_TRUE(peer_.ReadFrame());
  peer_.Close();
  EXPECT_TRUE(sent.WaitFor());
}

// ---- The serialised operations go through the table
// -------------------------------------------------------------------

class Overriding : public mivo::MIVOClient {
 public:
  MIVOParams* SendMsgFast(const char* name, MIVOParams*, int key, int timeout) override {
    called_with = std::string(name) + " " + std::to_string(key) + " " + std::to_string(timeout);
    return nullptr;
  }
  int PostMsgFast(const char* name, MIVOParams*, int key) override {
    called_with = std::string(name) + " " + std::to_string(key);
    return 42;
  }

  std::string called_with;
};

TEST(MIVOClientTable, SendMsgCallsSendMsgFastThroughIt) {
  Overriding client;
  EXPECT_EQ(client.SendMsg("name", nullptr, 7, 8), nullptr);
  EXPECT_EQ(client.called_with, "name 7 8");
}

TEST(MIVOClientTable, PostMsgCallsPostMsgFastThroughIt) {
  Overriding client;
  EXPECT_EQ(client.PostMsg("name", nullptr, 7), 42);
  EXPECT_EQ(client.called_with, "name 7");
}

}  // namespace
