#include "calls/reply_table.h"

#include <gtest/gtest.h>
#include <mivo/params.h>

#include <cstddef>
#include <optional>
#include <string>

#include "unit/live_bytes.h"
#include "unit/payload.h"

namespace mivo {
namespace {

using mivo_test::Payload;
using Retention = ReplyTable::Retention;

constexpr int kKey = 9;

std::string Reply(int number) {
  return Payload().Int(number).KeyString("s_c_sw_name", "retval");
}

// Reads the set, which must be alive: the sanitizers see it if it is not.
int NumberIn(const MIVOParams* set) {
  return set == nullptr ? -1 : set->GetValue(0)->GetInt();
}

TEST(ServerReplies, ReturnTheEarlierReplyToACallThatGotNone) {
  ReplyTable replies(Retention::kStale);
  replies.BeginCall(kKey);
  MIVOParams* const first = replies.Collect(kKey, Reply(1));
  replies.BeginCall(kKey);
  EXPECT_EQ(replies.CollectStored(kKey), first);
  EXPECT_EQ(NumberIn(first), 1);
  // And again, as often as calls get none.
  for (int call = 0; call < 5; ++call) {
    replies.BeginCall(kKey);
    EXPECT_EQ(replies.CollectStored(kKey), first);
    EXPECT_EQ(NumberIn(first), 1);
  }
}

TEST(ServerReplies, ReturnWhatCameForNobodyAlsoFromBeforeTheCall) {
  ReplyTable replies(Retention::kStale);
  replies.Store(kKey, Reply(1));
  replies.BeginCall(kKey);
  MIVOParams* const set = replies.CollectStored(kKey);
  EXPECT_EQ(NumberIn(set), 1);
  // A late one displaces it for the next call.
  replies.Store(kKey, Reply(2));
  replies.BeginCall(kKey);
  EXPECT_EQ(NumberIn(replies.CollectStored(kKey)), 2);
  EXPECT_EQ(NumberIn(set), 1);
}

TEST(ServerReplies, ReturnNothingUnderAKeyThatNeverGotAny) {
  ReplyTable replies(Retention::kStale);
  EXPECT_EQ(replies.CollectStored(kKey), nullptr);
  replies.BeginCall(kKey);
  EXPECT_EQ(replies.CollectStored(kKey), nullptr);
  replies.Collect(kKey + 1, Reply(1));
  EXPECT_EQ(replies.CollectStored(kKey), nullptr);
}

TEST(ServerReplies, KeepADisplacedSetUntilTheSecondCallAfterIt) {
  ReplyTable replies(Retention::kStale);
  replies.BeginCall(kKey);
  MIVOParams* const first = replies.Collect(kKey, Reply(1));
  replies.BeginCall(kKey);
  MIVOParams* const second = replies.Collect(kKey, Reply(2));
  EXPECT_EQ(NumberIn(first), 1);
  replies.BeginCall(kKey);
  EXPECT_EQ(NumberIn(first), 1);
  EXPECT_EQ(NumberIn(second), 2);
  MIVOParams* const third = replies.Collect(kKey, Reply(3));
  // From here on the first is gone; the second still has a call to go.
  replies.BeginCall(kKey);
  EXPECT_EQ(NumberIn(second), 2);
  EXPECT_EQ(NumberIn(third), 3);
}

TEST(ServerReplies, HoldABoundedNumberOfSetsUnderAKey) {
  ReplyTable replies(Retention::kStale);
  const std::string large(100000, 'x');
  const std::string payload = Payload().String(large);
  const auto call = [&] {
    replies.BeginCall(kKey);
    replies.Collect(kKey, payload);
  };
  for (int i = 0; i < 5; ++i)
    call();
  const std::size_t before = mivo_test::LiveBytes();
  for (int i = 0; i < 50; ++i)
    call();
  EXPECT_LT(mivo_test::LiveBytes(), before + 5 * large.size());
}

TEST(ServerReplies, OfOnePeerAreNotReturnedToCallsOfAnother) {
  ReplyTable replies(Retention::kStale);
  const ReplyPlace of_one(kKey, 16);
  const ReplyPlace of_other(kKey, 32);
  replies.BeginCall(of_one);
  MIVOParams* const returned = replies.Collect(of_one, Reply(1));
  replies.Store(of_one, Reply(2));
  replies.BeginCall(of_other);
  EXPECT_EQ(replies.CollectStored(of_other), nullptr);
  EXPECT_EQ(replies.TakeUnread(of_other), std::nullopt);
  EXPECT_EQ(NumberIn(returned), 1);
  EXPECT_EQ(NumberIn(replies.CollectStored(of_one)), 2);
}

TEST(ServerReplies, OfAPeerThatHasGoneAreReturnedToNobody) {
  ReplyTable replies(Retention::kStale);
  const ReplyPlace gone(kKey, 16);
  const ReplyPlace stays(kKey, 32);
  for (const ReplyPlace place : {gone, stays}) {
    replies.BeginCall(place);
    replies.Collect(place, Reply(place.peer));
  }
  replies.Store({kKey + 1, 16}, Reply(1));
  replies.Store({kKey + 1, 32}, Reply(2));
  replies.ForgetPeer(16);
  replies.BeginCall(gone);
  EXPECT_EQ(replies.CollectStored(gone), nullptr);
  EXPECT_EQ(replies.CollectStored({kKey + 1, 16}), nullptr);
  EXPECT_EQ(NumberIn(replies.CollectStored(stays)), 32);
  EXPECT_EQ(NumberIn(replies.CollectStored({kKey + 1, 32})), 2);
}

TEST(ServerReplies, OfAPeerThatHasGoneMayStillBeReadByWhoeverGotThem) {
  ReplyTable replies(Retention::kStale);
  const ReplyPlace gone(kKey, 16);
  replies.BeginCall(gone);
  MIVOParams* const displaced = replies.Collect(gone, Reply(1));
  replies.BeginCall(gone);
  MIVOParams* const returned = replies.Collect(gone, Reply(2));
  replies.ForgetPeer(16);
  // Calls under other keys, and the first under theirs, whichever client that goes to.
  for (int other = 100; other < 120; ++other)
    replies.BeginCall({other, 32});
  EXPECT_EQ(NumberIn(displaced), 1);
  EXPECT_EQ(NumberIn(returned), 2);
  replies.BeginCall({kKey, 32});
  EXPECT_EQ(NumberIn(displaced), 1);
  EXPECT_EQ(NumberIn(returned), 2);
}

TEST(ServerReplies, OfPeersThatHaveGoneAreFreedBySecondCallsUnderTheirKeys) {
  ReplyTable replies(Retention::kStale);
  const std::string large(1 << 20, 'x');
  const std::size_t before = mivo_test::LiveBytes();
  for (int peer = 16; peer <= 128; peer += 16) {
    replies.BeginCall({kKey, peer});
    replies.Collect({kKey, peer}, Payload().String(large));
    replies.ForgetPeer(peer);
  }
  replies.BeginCall({kKey, 1});
  replies.BeginCall({kKey, 1});
  EXPECT_LT(mivo_test::LiveBytes(), before + large.size());
}

TEST(ServerReplies, OfManyPeersThatHaveGoneAreBounded) {
  ReplyTable replies(Retention::kStale);
  const std::string large(10000, 'x');
  // Each under a key of its own, so that no call frees them.
  const auto come_and_go = [&](int peer) {
    replies.BeginCall({peer, peer});
    MIVOParams* const set = replies.Collect({peer, peer}, Payload().String(large));
    replies.ForgetPeer(peer);
    return set;
  };
  for (int peer = 1; peer <= 1500; ++peer)
    come_and_go(peer);
  const std::size_t before = mivo_test::LiveBytes();
  MIVOParams* latest = nullptr;
  for (int peer = 1501; peer <= 4000; ++peer)
    latest = come_and_go(peer);
  EXPECT_LT(mivo_test::LiveBytes(), before + 100 * large.size());
  EXPECT_EQ(latest->GetValue(0)->GetString(), large) << "the latest are still there";
}

TEST(ServerReplies, ThatNobodyTakesGiveWayToLaterOnes) {
  ReplyTable replies(Retention::kStale);
  for (int key = 1; key <= 5000; ++key)
    replies.Store({key, 16}, Reply(key));
  EXPECT_EQ(replies.TakeUnread({1, 16}), std::nullopt);
  EXPECT_EQ(replies.TakeUnread({3900, 16}), std::nullopt);
  EXPECT_EQ(replies.TakeUnread({5000, 16}), Reply(5000));
  EXPECT_EQ(replies.TakeUnread({4100, 16}), Reply(4100));
}

TEST(ServerReplies, ThatNobodyTakesAreBoundedByTheirBytes) {
  ReplyTable replies(Retention::kStale);
  const std::string large(std::size_t{8} << 20, 'x');
  const std::size_t before = mivo_test::LiveBytes();
  for (int key = 1; key <= 40; ++key)
    replies.Store({key, 16}, large);
  EXPECT_LT(mivo_test::LiveBytes(), before + 10 * large.size());
  EXPECT_EQ(replies.TakeUnread({1, 16}), std::nullopt);
  EXPECT_EQ(replies.TakeUnread({40, 16}), large);
  // One alone is kept, however long.
  const std::string longest(std::size_t{80} << 20, 'y');
  replies.Store({41, 16}, longest);
  EXPECT_EQ(replies.TakeUnread({39, 16}), std::nullopt);
  EXPECT_TRUE(replies.TakeUnread({41, 16}) == longest);
}

TEST(ServerReplies, AreStillReturnedWhenWhatCameForNobodyHadToGiveWay) {
  ReplyTable replies(Retention::kStale);
  replies.BeginCall({1, 16});
  MIVOParams* const set = replies.Collect({1, 16}, Reply(1));
  replies.Store({1, 16}, Reply(2));
  for (int key = 2; key <= 3000; ++key)
    replies.Store({key, 16}, Reply(key));
  EXPECT_EQ(replies.CollectStored({1, 16}), set);
  EXPECT_EQ(NumberIn(set), 1);
}

}  // namespace
}  // namespace mivo
