#include "transport/frame_reassembler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "support/golden.h"
#include "unit/live_bytes.h"

namespace mivo {
namespace {

using mivo_test::FromHex;
using Strings = std::vector<std::string>;

std::string Prefix(std::int32_t length) {
  std::string bytes(sizeof length, '\0');
  std::memcpy(bytes.data(), &length, sizeof length);
  return bytes;
}

std::string Framed(std::string_view payload) {
  return Prefix(static_cast<std::int32_t>(payload.size())).append(payload);
}

// What came out of a stream: the payloads, and whether it ended in nonsense.
struct Cut {
  Strings payloads;
  bool is_bad = false;

  bool operator==(const Cut& other) const { return payloads == other.payloads && is_bad == other.is_bad; }
};

std::ostream& operator<<(std::ostream& out, const Cut& cut) {
  for (const std::string& payload : cut.payloads)
    out << "[" << payload << "]";
  return out << (cut.is_bad ? " bad" : "");
}

// Each chunk lies in memory of its own size, so that the sanitizers see a byte read beside it, and ends with its turn.
FrameReassembler::Result FeedOne(FrameReassembler& reassembler, std::string_view chunk, Strings* payloads) {
  const std::vector<char> copy(chunk.begin(), chunk.end());
  reassembler.Feed(std::string_view(copy.data(), copy.size()));
  std::string_view payload;
  FrameReassembler::Result result = FrameReassembler::kFrame;
  while ((result = reassembler.Next(&payload)) == FrameReassembler::kFrame)
    payloads->emplace_back(payload);
  return result;
}

Cut Reassemble(const Strings& chunks, FrameReassembler::IsMessage is_message = nullptr) {
  FrameReassembler reassembler(is_message);
  Cut cut;
  for (const std::string& chunk : chunks) {
    if (FeedOne(reassembler, chunk, &cut.payloads) == FrameReassembler::kBadLength) {
      cut.is_bad = true;
      break;
    }
  }
  return cut;
}

// The rule, written down as plainly as it can be said.
Cut ByTheRule(const Strings& chunks, FrameReassembler::IsMessage is_message = nullptr) {
  const auto length_at_start = [](const std::string& bytes) {
    std::int32_t length = 0;
    std::memcpy(&length, bytes.data(), sizeof length);
    return static_cast<std::int64_t>(length);
  };
  Cut cut;
  std::string pending;
  for (const std::string& chunk : chunks) {
    const auto size = static_cast<std::int64_t>(chunk.size());
    if (size >= 4 && length_at_start(chunk) == size - 4 &&
        (pending.empty() || is_message == nullptr || is_message(std::string_view(chunk).substr(4)))) {
      cut.payloads.push_back(chunk.substr(4));
      continue;
    }
    pending += chunk;
    while (pending.size() >= 4) {
      const std::int64_t length = length_at_start(pending);
      if (length < 0) {
        cut.is_bad = true;
        return cut;
      }
      if (static_cast<std::int64_t>(pending.size()) - 4 < length) break;
      cut.payloads.push_back(pending.substr(4, static_cast<std::size_t>(length)));
      pending.erase(0, static_cast<std::size_t>(length) + 4);
    }
  }
  return cut;
}

const Strings& SomePayloads() {
  static const Strings payloads = {"first payload", "", "b", "another one, a little longer than the others", "", "end"};
  return payloads;
}

std::string Stream(const Strings& payloads) {
  std::string stream;
  for (const std::string& payload : payloads)
    stream += Framed(payload);
  return stream;
}

TEST(FrameReassembler, TakesAChunkThatIsOneFrame) {
  EXPECT_EQ(Reassemble({Framed("payload")}), (Cut{{"payload"}}));
  EXPECT_EQ(Reassemble({Framed("a"), Framed("b"), Framed("c")}), (Cut{{"a", "b", "c"}}));
}

TEST(FrameReassembler, TakesSeveralFramesOfOneChunkInOrder) {
  EXPECT_EQ(Reassemble({Framed("one") + Framed("two") + Framed("three")}), (Cut{{"one", "two", "three"}}));
}

TEST(FrameReassembler, HandsOnAFrameWithoutContent) {
  EXPECT_EQ(Reassemble({FromHex("00 00 00 00")}), (Cut{{""}}));
  EXPECT_EQ(Reassemble({FromHex("00 00 00 00 00 00 00 00")}), (Cut{{"", ""}}));
  EXPECT_EQ(Reassemble({FromHex("00 00"), FromHex("00 00")}), (Cut{{""}}));
}

TEST(FrameReassembler, SaysAtOnceThatItNeedsMoreWhenFedNothing) {
  FrameReassembler reassembler;
  std::string_view payload;
  EXPECT_EQ(reassembler.Next(&payload), FrameReassembler::kNeedMore);
  reassembler.Feed("");
  EXPECT_EQ(reassembler.Next(&payload), FrameReassembler::kNeedMore);
  EXPECT_EQ(reassembler.Next(&payload), FrameReassembler::kNeedMore);
}

TEST(FrameReassembler, RebuildsAFrameCutAtAnyByte) {
  const std::string frame = Framed("a payload of some length");
  for (std::size_t cut = 0; cut <= frame.size(); ++cut) {
    EXPECT_EQ(Reassemble({frame.substr(0, cut), frame.substr(cut)}), (Cut{{"a payload of some length"}})) << cut;
  }
}

TEST(FrameReassembler, RebuildsAStreamCutAtAnyByte) {
  const std::string stream = Stream(SomePayloads());
  for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
    EXPECT_EQ(Reassemble({stream.substr(0, cut), stream.substr(cut)}), (Cut{SomePayloads()})) << cut;
  }
}

TEST(FrameReassembler, RebuildsAStreamCutAtAnyTwoBytes) {
  const std::string stream = Stream(SomePayloads());
  for (std::size_t first = 0; first <= stream.size(); ++first) {
    for (std::size_t second = first; second <= stream.size(); ++second) {
      ASSERT_EQ(Reassemble({stream.substr(0, first), stream.substr(first, second - first), stream.substr(second)}),
                (Cut{SomePayloads()}))
          << first << ", " << second;
    }
  }
}

TEST(FrameReassembler, RebuildsAStreamThatComesByteByByte) {
  Strings chunks;
  for (const char byte : Stream(SomePayloads()))
    chunks.emplace_back(1, byte);
  EXPECT_EQ(Reassemble(chunks), (Cut{SomePayloads()}));
}

TEST(FrameReassembler, HandsAFrameOnWithItsLastByteAndNotBefore) {
  FrameReassembler reassembler;
  const std::string frame = Framed("payload");
  Strings payloads;
  for (std::size_t i = 0; i + 1 < frame.size(); ++i) {
    EXPECT_EQ(FeedOne(reassembler, frame.substr(i, 1), &payloads), FrameReassembler::kNeedMore);
    ASSERT_TRUE(payloads.empty()) << i;
  }
  FeedOne(reassembler, frame.substr(frame.size() - 1), &payloads);
  EXPECT_EQ(payloads, Strings{"payload"});
}

TEST(FrameReassembler, HandsOnTheFirstOfTwoFramesWhenTheSecondIsCut) {
  const std::string second = Framed("second");
  for (std::size_t cut = 0; cut < second.size(); ++cut) {
    FrameReassembler reassembler;
    Strings payloads;
    FeedOne(reassembler, Framed("first") + second.substr(0, cut), &payloads);
    EXPECT_EQ(payloads, Strings{"first"}) << cut;
    FeedOne(reassembler, second.substr(cut), &payloads);
    EXPECT_EQ(payloads, (Strings{"first", "second"})) << cut;
  }
}

TEST(FrameReassembler, TakesAWholeFrameAtOnceAndLeavesAPendingOneAlone) {
  const std::string pending = Framed("the pending one");
  for (std::size_t cut = 1; cut < pending.size(); ++cut) {
    EXPECT_EQ(Reassemble({pending.substr(0, cut), Framed("overtakes"), "", Framed(""), pending.substr(cut)}),
              (Cut{{"overtakes", "", "the pending one"}}))
        << cut;
  }
}

TEST(FrameReassembler, TakesWhatLooksLikeAWholeFrameForOne) {
  // The middle of a payload that carries a frame itself, when the chunks fall that way.
  const std::string inner = Framed("inner");
  EXPECT_EQ(Reassemble({Prefix(static_cast<std::int32_t>(inner.size() + 2)) + "a", inner, "b" + inner}),
            (Cut{{"inner", "ab" + inner}}));
}

TEST(FrameReassembler, ReportsANegativeLength) {
  EXPECT_EQ(Reassemble({FromHex("FF FF FF FF")}), (Cut{{}, true}));
  EXPECT_EQ(Reassemble({FromHex("00 00 00 80") + "more"}), (Cut{{}, true}));
  EXPECT_EQ(Reassemble({Framed("good") + FromHex("FE FF FF FF") + Framed("lost")}), (Cut{{"good"}, true}));
  EXPECT_EQ(Reassemble({Framed("good"), FromHex("FE FF FF FF")}), (Cut{{"good"}, true}));
}

TEST(FrameReassembler, ReportsANegativeLengthWithItsLastByte) {
  EXPECT_EQ(Reassemble({FromHex("FF FF FF")}), (Cut{{}, false}));
  EXPECT_EQ(Reassemble({FromHex("FF FF FF"), FromHex("FF")}), (Cut{{}, true}));
  EXPECT_EQ(Reassemble({FromHex("FF"), FromHex("FF"), FromHex("FF"), FromHex("80")}), (Cut{{}, true}));
  EXPECT_EQ(Reassemble({Framed("cut").substr(0, 5), "ut" + FromHex("FF FF FF FF")}), (Cut{{"cut"}, true}));
}

TEST(FrameReassembler, ReportsANegativeLengthBehindAWholeFrameThatOvertakes) {
  EXPECT_EQ(Reassemble({FromHex("FF FF"), Framed("overtakes"), FromHex("FF FF")}), (Cut{{"overtakes"}, true}));
}

TEST(FrameReassembler, WaitsForAHugeFrameWithoutMakingRoomForIt) {
  for (const char* length : {"FF FF FF 7F", "FC FF FF 7F", "00 00 00 40"}) {
    FrameReassembler reassembler;
    Strings payloads;
    const std::size_t before = mivo_test::LiveBytes();
    EXPECT_EQ(FeedOne(reassembler, FromHex(length), &payloads), FrameReassembler::kNeedMore);
    for (int i = 0; i < 100; ++i) {
      EXPECT_EQ(FeedOne(reassembler, "a few bytes of it", &payloads), FrameReassembler::kNeedMore);
    }
    EXPECT_LT(mivo_test::LiveBytes(), before + 65536);
    EXPECT_TRUE(payloads.empty());
  }
}

TEST(FrameReassembler, KeepsNoMoreRoomThanItNeedsWhileNothingIsPending) {
  FrameReassembler reassembler;
  Strings payloads;
  const std::string large(10 * 1000 * 1000, 'x');
  const std::string frame = Framed(large);
  const std::size_t before = mivo_test::LiveBytes();
  FeedOne(reassembler, std::string_view(frame).substr(0, frame.size() / 2), &payloads);
  EXPECT_GE(mivo_test::LiveBytes(), before + frame.size() / 2);
  FeedOne(reassembler, std::string_view(frame).substr(frame.size() / 2), &payloads);
  ASSERT_EQ(payloads.size(), 1U);
  EXPECT_EQ(payloads.front(), large);
  Strings().swap(payloads);
  EXPECT_LT(mivo_test::LiveBytes(), before + 128 * 1024);
}

TEST(FrameReassembler, WorksOnAfterALargeFrame) {
  const std::string large(200000, 'x');
  const std::string stream = Framed(large) + Framed("small") + Framed(large);
  EXPECT_EQ(Reassemble({stream.substr(0, 150000), stream.substr(150000, 100000), stream.substr(250000)}),
            (Cut{{large, "small", large}}));
}

void CompareWithTheRule(FrameReassembler::IsMessage is_message) {
  std::mt19937 random(20240229);
  const auto below = [&random](std::size_t limit) { return static_cast<std::size_t>(random()) % limit; };
  int bad = 0;
  for (int round = 0; round < 20000; ++round) {
    std::string stream;
    const std::size_t frames = below(6);
    for (std::size_t i = 0; i < frames; ++i) {
      // Payloads made of lengths, so that chunks often look like frames.
      std::string payload;
      const std::size_t size = below(12);
      for (std::size_t byte = 0; byte < size; ++byte)
        payload.push_back(below(4) == 0 ? '\4' : '\0');
      stream += Framed(payload);
    }
    if (below(4) == 0) stream += Prefix(below(2) == 0 ? -1 : 5);
    Strings chunks;
    std::string_view rest = stream;
    while (!rest.empty()) {
      const std::size_t size = 1 + below(below(2) == 0 ? 4 : 24);
      chunks.emplace_back(rest.substr(0, size));
      rest.remove_prefix(chunks.back().size());
    }
    const Cut expected = ByTheRule(chunks, is_message);
    bad += expected.is_bad ? 1 : 0;
    ASSERT_EQ(Reassemble(chunks, is_message), expected) << round << ": " << mivo_test::ToHex(stream);
  }
  EXPECT_GT(bad, 0);
}

TEST(FrameReassembler, DoesWhatTheRuleSaysForAnyStreamInAnyChunks) {
  CompareWithTheRule(nullptr);
  CompareWithTheRule([](std::string_view) { return false; });
  CompareWithTheRule([](std::string_view payload) { return payload.size() % 2 == 0; });
}

// Begins as the messages of these tests do.
bool BeginsLikeAMessage(std::string_view payload) {
  return !payload.empty() && payload.front() == 'M';
}

TEST(FrameReassembler, TakesWhatLooksLikeAFrameInTheMiddleOfOneOnlyIfItIsAMessage) {
  const std::string looks_like = Framed("no message");
  const std::string message = Framed("Message");
  const std::string begin = Prefix(static_cast<std::int32_t>(looks_like.size() + 2)) + "a";
  EXPECT_EQ(Reassemble({begin, looks_like, "b"}, BeginsLikeAMessage), (Cut{{"a" + looks_like + "b"}}));
  EXPECT_EQ(Reassemble({begin, message, looks_like, message, "b"}, BeginsLikeAMessage),
            (Cut{{"Message", "Message", "a" + looks_like + "b"}}));
}

TEST(FrameReassembler, TakesAnyWholeFrameWhileNothingIsPending) {
  EXPECT_EQ(Reassemble({Framed("no message"), Framed(""), Framed("Message")}, BeginsLikeAMessage),
            (Cut{{"no message", "", "Message"}}));
}

TEST(FrameReassembler, PutsWhatIsNoMessageBehindAPendingLength) {
  // Four bytes that say 0 are a frame without content, or the middle of something.
  const std::string zeros(4, '\0');
  EXPECT_EQ(Reassemble({Prefix(6).substr(0, 2), Prefix(6).substr(2) + "a", zeros, "b"}, BeginsLikeAMessage),
            (Cut{{"a" + zeros + "b"}}));
}

// Reads as a connection does: to where the bytes belong if there is room, else to anywhere. Checks the room.
void ReadAndFeed(FrameReassembler& reassembler, std::string_view* stream, std::size_t most, Strings* payloads,
                 std::size_t* in_room = nullptr) {
  const FrameReassembler::Room room = reassembler.RoomForMore();
  if (room.size == 0) {
    const std::size_t size = std::min(stream->size(), most);
    FeedOne(reassembler, stream->substr(0, size), payloads);
    stream->remove_prefix(size);
    return;
  }
  const std::size_t size = std::min({stream->size(), most, room.size});
  std::memcpy(room.bytes, stream->data(), size);
  stream->remove_prefix(size);
  if (in_room != nullptr) *in_room += size;
  reassembler.FeedInRoom(size);
  std::string_view payload;
  while (reassembler.Next(&payload) == FrameReassembler::kFrame)
    payloads->emplace_back(payload);
}

std::string SomeBytes(std::size_t size, unsigned int seed) {
  std::mt19937 random(seed);
  std::string bytes(size, '\0');
  for (char& byte : bytes)
    byte = static_cast<char>(random());
  return bytes;
}

TEST(FrameReassembler, HasRoomOnlyWhileMuchOfALongFrameIsMissing) {
  const auto room_behind = [](const std::string& bytes) {
    FrameReassembler reassembler;
    Strings payloads;
    FeedOne(reassembler, bytes, &payloads);
    return reassembler.RoomForMore().size;
  };
  const auto length = [](std::size_t size) { return Prefix(static_cast<std::int32_t>(size)); };
  EXPECT_EQ(FrameReassembler().RoomForMore().size, 0U);
  EXPECT_EQ(room_behind(length(1000000).substr(0, 3)), 0U);
  EXPECT_EQ(room_behind(Framed("whole")), 0U);
  EXPECT_EQ(room_behind(length(1000) + "a"), 0U);
  EXPECT_EQ(room_behind(length(65535)), 0U);
  EXPECT_EQ(room_behind(length(65536)), 65536U);
  EXPECT_EQ(room_behind(length(1000000) + std::string(1000000 - 65535, 'x')), 0U);
  EXPECT_GT(room_behind(length(1000000) + std::string(1000000 - 65536, 'x')), 0U);
  EXPECT_EQ(room_behind(FromHex("FF FF FF FF")), 0U);
}

TEST(FrameReassembler, BuildsTheSameBytesInItsRoom) {
  const Strings payloads = {SomeBytes(300000, 1), "short", SomeBytes(65537, 2), "", SomeBytes(1500000, 3), "end"};
  const std::string whole = Stream(payloads);
  for (const std::size_t most : {std::size_t{1000}, std::size_t{7777}, std::size_t{65536}, std::size_t{1000000}}) {
    FrameReassembler reassembler;
    Strings got;
    std::string_view stream = whole;
    std::size_t in_room = 0;
    while (!stream.empty())
      ReadAndFeed(reassembler, &stream, most, &got, &in_room);
    EXPECT_TRUE(got == payloads) << most;
    // Not by the other way.
    EXPECT_GT(in_room, 300000U) << most;
  }
}

TEST(FrameReassembler, LeavesItsRoomWhenItIsNotFilled) {
  // A read that has found nothing.
  FrameReassembler reassembler;
  Strings got;
  const std::string payload = SomeBytes(200000, 4);
  const std::string frame = Framed(payload);
  std::string_view stream = frame;
  while (!stream.empty()) {
    reassembler.RoomForMore();
    ReadAndFeed(reassembler, &stream, 10000, &got);
    reassembler.RoomForMore();
  }
  EXPECT_TRUE(got == Strings{payload});
}

TEST(FrameReassembler, TakesAMessageThatWasReadIntoItsRoomOutOfTheWay) {
  FrameReassembler reassembler(BeginsLikeAMessage);
  Strings got;
  const std::string payload = SomeBytes(200000, 5);
  const std::string looks_like = Framed("no message");
  const std::string inner = payload.substr(0, 100000) + looks_like + payload.substr(100000);
  const std::string frame = Framed(inner);
  for (const std::string& chunk :
       {frame.substr(0, 100004), looks_like, Framed("Message"), frame.substr(100004 + looks_like.size())}) {
    std::string_view stream = chunk;
    while (!stream.empty())
      ReadAndFeed(reassembler, &stream, stream.size(), &got);
  }
  ASSERT_EQ(got.size(), 2U);
  EXPECT_EQ(got.front(), "Message");
  EXPECT_TRUE(got.back() == inner);
}

TEST(FrameReassembler, TakesTwiceTheMemoryThatHasArrivedAtMostAndGivesItBack) {
  constexpr std::size_t kSlack = 256 * 1024;
  FrameReassembler reassembler;
  Strings got;
  const std::string frame = Framed(SomeBytes(20 * 1000 * 1000, 6));
  const std::size_t before = mivo_test::LiveBytes();
  std::string_view stream = frame;
  while (stream.size() > 1000) {
    ReadAndFeed(reassembler, &stream, std::min<std::size_t>(65536, stream.size() - 1000), &got);
    ASSERT_LE(mivo_test::LiveBytes(), before + 2 * (frame.size() - stream.size()) + kSlack) << stream.size();
  }
  EXPECT_TRUE(got.empty());
  ReadAndFeed(reassembler, &stream, 1000, &got);
  ASSERT_EQ(got.size(), 1U);
  EXPECT_TRUE(got.front() == std::string_view(frame).substr(4));
  Strings().swap(got);
  EXPECT_LT(mivo_test::LiveBytes(), before + kSlack);
}

TEST(FrameReassembler, MakesNoRoomForWhatWasOnlyAnnounced) {
  FrameReassembler reassembler;
  Strings got;
  const std::size_t before = mivo_test::LiveBytes();
  FeedOne(reassembler, FromHex("FF FF FF 7F") + "a little", &got);
  EXPECT_GT(reassembler.RoomForMore().size, 0U);
  EXPECT_LT(mivo_test::LiveBytes(), before + 256 * 1024);
}

TEST(FrameReassembler, TellsTheSizeOfTheNextPayloadWithoutTakingIt) {
  FrameReassembler reassembler;
  std::string_view payload;
  EXPECT_EQ(reassembler.NextSize(), 0U);
  const std::string frames = Framed("three") + Framed("") + Framed("eleven long") + Framed("cut").substr(0, 5);
  reassembler.Feed(frames);
  EXPECT_EQ(reassembler.NextSize(), 5U);
  EXPECT_EQ(reassembler.NextSize(), 5U);
  EXPECT_EQ(reassembler.Next(&payload), FrameReassembler::kFrame);
  EXPECT_EQ(payload, "three");
  EXPECT_EQ(reassembler.NextSize(), 0U);
  EXPECT_EQ(payload, "three");
  EXPECT_EQ(reassembler.Next(&payload), FrameReassembler::kFrame);
  EXPECT_EQ(payload, "");
  EXPECT_EQ(reassembler.NextSize(), 11U);
  EXPECT_EQ(reassembler.Next(&payload), FrameReassembler::kFrame);
  EXPECT_EQ(payload, "eleven long");
  EXPECT_EQ(reassembler.NextSize(), 0U);
  EXPECT_EQ(reassembler.Next(&payload), FrameReassembler::kNeedMore);
  EXPECT_EQ(reassembler.NextSize(), 0U);
  // Of one that comes on its own while another is pending, and of that one when its rest is there.
  const std::string overtakes = Framed("overtakes");
  reassembler.Feed(overtakes);
  EXPECT_EQ(reassembler.NextSize(), 9U);
  EXPECT_EQ(reassembler.Next(&payload), FrameReassembler::kFrame);
  EXPECT_EQ(reassembler.Next(&payload), FrameReassembler::kNeedMore);
  reassembler.Feed("ut");
  EXPECT_EQ(reassembler.NextSize(), 3U);
  EXPECT_EQ(reassembler.Next(&payload), FrameReassembler::kFrame);
  EXPECT_EQ(payload, "cut");
}

TEST(FrameReassembler, HasNoNextSizeForNonsense) {
  FrameReassembler reassembler;
  const std::string nonsense = FromHex("FF FF FF FF") + "more";
  reassembler.Feed(nonsense);
  EXPECT_EQ(reassembler.NextSize(), 0U);
  std::string_view payload;
  EXPECT_EQ(reassembler.Next(&payload), FrameReassembler::kBadLength);
}

}  // namespace
}  // namespace mivo
