#include "calls/reply_table.h"

#include <gtest/gtest.h>
#include <mivo/params.h>

#include <cstddef>
#include <optional>
#include <string>
#include <thread>
#include <vector>

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

TEST(ReplyTable, GivesTheReplyAsADecodedSet) {
  for (const Retention retention : {Retention::kUntilNextCall, Retention::kStale}) {
    ReplyTable replies(retention);
    replies.BeginCall(kKey);
    const std::string payload = Payload().Int(5).KeyString("s_c_sw_name", "retval").KeyInt("s_c_sw_threadid", kKey);
    MIVOParams* const set = replies.Collect(kKey, payload);
    ASSERT_NE(set, nullptr);
    EXPECT_EQ(set->ParamsSize(), 1);
    EXPECT_EQ(set->GetValue(0)->GetInt(), 5);
    EXPECT_STREQ(set->GetMap("s_c_sw_name")->GetString(), "retval");
    EXPECT_EQ(set->GetMap("s_c_sw_threadid")->GetInt(), kKey);
    EXPECT_EQ(*set->GetParamas(), payload);
  }
}

TEST(ReplyTable, GivesWhatStandsBeforeAFault) {
  ReplyTable replies(Retention::kStale);
  MIVOParams* const set = replies.Collect(kKey, Payload().Int(5).Raw("\x7F"));
  ASSERT_NE(set, nullptr);
  EXPECT_EQ(NumberIn(set), 5);
}

TEST(ReplyTable, KeepsASetWhileCallsUnderOtherKeysComeAndGo) {
  for (const Retention retention : {Retention::kUntilNextCall, Retention::kStale}) {
    ReplyTable replies(retention);
    replies.BeginCall(kKey);
    MIVOParams* const set = replies.Collect(kKey, Reply(1));
    for (int other = 100; other < 120; ++other) {
      replies.BeginCall(other);
      replies.Collect(other, Reply(other));
    }
    EXPECT_EQ(NumberIn(set), 1);
  }
}

TEST(ReplyTable, NeverWritesIntoASetThatWasReturned) {
  for (const Retention retention : {Retention::kUntilNextCall, Retention::kStale}) {
    ReplyTable replies(retention);
    replies.BeginCall(kKey);
    MIVOParams* const set = replies.Collect(kKey, Reply(1));
    // What comes late, for nobody, or for a post.
    replies.Store(kKey, Reply(2));
    replies.Store(kKey, Reply(3));
    EXPECT_EQ(NumberIn(set), 1);
  }
}

TEST(ReplyTable, GivesTwoCallsUnderOneKeyASetEach) {
  for (const Retention retention : {Retention::kUntilNextCall, Retention::kStale}) {
    ReplyTable replies(retention);
    replies.BeginCall(kKey);
    replies.BeginCall(kKey);
    MIVOParams* const first = replies.Collect(kKey, Reply(1));
    MIVOParams* const second = replies.Collect(kKey, Reply(2));
    EXPECT_NE(first, second);
    EXPECT_EQ(NumberIn(first), 1);
    EXPECT_EQ(NumberIn(second), 2);
  }
}

TEST(ReplyTable, FreesEverythingOnClear) {
  // The leak checker sees what is not freed, the table sees what is: nothing is left to return.
  ReplyTable replies(Retention::kStale);
  replies.BeginCall(kKey);
  replies.Collect(kKey, Reply(1));
  replies.Store(kKey, Reply(2));
  replies.Store(kKey + 1, Reply(3));
  replies.Clear();
  EXPECT_EQ(replies.CollectStored(kKey), nullptr);
  EXPECT_EQ(replies.CollectStored(kKey + 1), nullptr);
  replies.Clear();
}

TEST(ReplyTable, KeepsReturnedSetsBeyondOneClose) {
  for (const Retention retention : {Retention::kUntilNextCall, Retention::kStale}) {
    ReplyTable replies(retention);
    replies.BeginCall(kKey);
    MIVOParams* const set = replies.Collect(kKey, Reply(1));
    replies.Store(kKey + 1, Reply(2));
    replies.Retire();
    EXPECT_EQ(NumberIn(set), 1);
    // But a new start finds nothing.
    EXPECT_EQ(replies.CollectStored(kKey), nullptr);
    EXPECT_EQ(replies.CollectStored(kKey + 1), nullptr);
    replies.BeginCall(kKey);
    MIVOParams* const next = replies.Collect(kKey, Reply(3));
    EXPECT_EQ(NumberIn(set), 1);
    replies.Retire();
    EXPECT_EQ(NumberIn(next), 3);
    replies.Clear();
  }
}

TEST(ReplyTable, ServesSeveralThreads) {
  for (const Retention retention : {Retention::kUntilNextCall, Retention::kStale}) {
    ReplyTable replies(retention);
    std::vector<std::thread> threads;
    for (int key = 1; key <= 4; ++key) {
      threads.emplace_back([&replies, key] {
        for (int call = 0; call < 200; ++call) {
          replies.BeginCall(key);
          replies.Store(key == 4 ? 1 : key + 1, Reply(-5));
          const MIVOParams* const set = replies.Collect(key, Reply(key));
          EXPECT_EQ(NumberIn(set), key);
        }
      });
    }
    for (std::thread& thread : threads)
      thread.join();
  }
}

TEST(ClientReplies, ReturnWhatCameForNobodyToTheCallUnderItsKey) {
  ReplyTable replies(Retention::kUntilNextCall);
  replies.BeginCall(kKey);
  replies.Store(kKey, Reply(1));
  const MIVOParams* const set = replies.CollectStored(kKey);
  EXPECT_EQ(NumberIn(set), 1);
}

TEST(ClientReplies, ReturnTheLatestOfThoseThatCameForNobody) {
  ReplyTable replies(Retention::kUntilNextCall);
  replies.BeginCall(kKey);
  replies.Store(kKey, Reply(1));
  replies.Store(kKey, Reply(2));
  EXPECT_EQ(NumberIn(replies.CollectStored(kKey)), 2);
}

TEST(ClientReplies, ReturnNothingWhenNothingCame) {
  ReplyTable replies(Retention::kUntilNextCall);
  EXPECT_EQ(replies.CollectStored(kKey), nullptr);
  replies.BeginCall(kKey);
  EXPECT_EQ(replies.CollectStored(kKey), nullptr);
  replies.Store(kKey + 1, Reply(1));
  EXPECT_EQ(replies.CollectStored(kKey), nullptr);
}

TEST(ClientReplies, AreNotReturnedTwice) {
  ReplyTable replies(Retention::kUntilNextCall);
  replies.BeginCall(kKey);
  replies.Collect(kKey, Reply(1));
  // A second call in flight under the key got nothing.
  EXPECT_EQ(replies.CollectStored(kKey), nullptr);
}

TEST(ClientReplies, ThatCameBeforeACallBeganAreDropped) {
  ReplyTable replies(Retention::kUntilNextCall);
  replies.Store(kKey, Reply(1));
  replies.BeginCall(kKey);
  EXPECT_EQ(replies.CollectStored(kKey), nullptr);
}

TEST(ClientReplies, ThatComeLateForASetInHandAreDropped) {
  ReplyTable replies(Retention::kUntilNextCall);
  replies.BeginCall(kKey);
  MIVOParams* const set = replies.Collect(kKey, Reply(1));
  replies.Store(kKey, Reply(2));
  EXPECT_EQ(replies.CollectStored(kKey), nullptr);
  EXPECT_EQ(NumberIn(set), 1);
}

TEST(ClientReplies, GiveWayToTheReplyOfTheCall) {
  ReplyTable replies(Retention::kUntilNextCall);
  replies.BeginCall(kKey);
  replies.Store(kKey, Reply(1));
  EXPECT_EQ(NumberIn(replies.Collect(kKey, Reply(2))), 2);
  EXPECT_EQ(replies.CollectStored(kKey), nullptr);
}

TEST(ReplyTable, KeepsNothingForKeysOfWhichNothingCame) {
  for (const Retention retention : {Retention::kUntilNextCall, Retention::kStale}) {
    ReplyTable replies(retention);
    const std::size_t before = mivo_test::LiveBytes();
    for (int key = 1; key <= 20000; ++key) {
      replies.BeginCall({key, 16});
      EXPECT_EQ(replies.CollectStored({key, 16}), nullptr);
      EXPECT_EQ(replies.TakeUnread({key, 16}), std::nullopt);
    }
    EXPECT_LT(mivo_test::LiveBytes(), before + 65536);
  }
}

TEST(ReplyTable, GivesWhatCameForNobodyAsItCameAndOnce) {
  for (const Retention retention : {Retention::kUntilNextCall, Retention::kStale}) {
    ReplyTable replies(retention);
    const std::string payload = Payload().Int(5).Raw("\x7F");
    replies.Store(kKey, payload);
    EXPECT_EQ(replies.TakeUnread(kKey), payload);
    EXPECT_EQ(replies.TakeUnread(kKey), std::nullopt);
    EXPECT_EQ(replies.CollectStored(kKey), nullptr);
    replies.Store(kKey, "");
    EXPECT_EQ(replies.TakeUnread(kKey), std::optional<std::string>(""));
  }
}

TEST(ReplyTable, ForgetsAPeerWhileOthersCallIt) {
  ReplyTable replies(Retention::kStale);
  std::vector<std::thread> threads;
  for (int key = 1; key <= 3; ++key) {
    threads.emplace_back([&replies, key] {
      for (int call = 0; call < 300; ++call) {
        const ReplyPlace place(key, 16 * (call % 3));
        replies.BeginCall(place);
        replies.Store(place, Reply(-5));
        // Somebody's forgetting does not take it from under its reader.
        EXPECT_EQ(NumberIn(replies.Collect(place, Reply(key))), key);
      }
    });
  }
  threads.emplace_back([&replies] {
    for (int round = 0; round < 300; ++round)
      replies.ForgetPeer(16 * (round % 3));
  });
  for (std::thread& thread : threads)
    thread.join();
}

}  // namespace
}  // namespace mivo
