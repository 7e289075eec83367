#include <gtest/gtest.h>
#include <mivo/params.h>

#include <chrono>
#include <string>

#include "support/golden.h"
#include "unit/decoder_transcript.h"
#include "values/encoder.h"

namespace {

using mivo_test::FromHex;
using mivo_test::Golden;
using mivo_test::Transcript;
using mivo_test::TranscriptOf;

Transcript OfHex(const char* hex) {
  return TranscriptOf(FromHex(hex));
}

TEST(Decoder, ReadsListElementsInOrder) {
  EXPECT_EQ(TranscriptOf(Golden("list")), (Transcript{"[", "- bool 1", "- int 2", "- double 0x1p-1", "- string x",
                                                      std::string("- stream y\0", 11), "]", "end"}));
}

TEST(Decoder, ReadsAnEmptyList) {
  EXPECT_EQ(TranscriptOf(Golden("empty_list")), (Transcript{"[", "]", "end"}));
  MIVOParams params;
  EXPECT_TRUE(params.Parser("\x06\0\0\0\0", 5));
  ASSERT_EQ(params.ParamsSize(), 1);
  EXPECT_TRUE(params.GetValue(0)->IsList());
  EXPECT_TRUE(params.GetValue(0)->GetList()->empty());
}

TEST(Decoder, RefusesANegativeCount) {
  EXPECT_EQ(OfHex("06 FF FF FF FF"), (Transcript{"fault"}));
  EXPECT_EQ(OfHex("06 00 00 00 80 01 31 07 00 00 00"), (Transcript{"fault"}));
  EXPECT_EQ(OfHex("07 FF FF FF FF"), (Transcript{"fault"}));
}

TEST(Decoder, RefusesACountThatTheEndCuts) {
  for (const char* hex : {"06", "06 00", "06 00 00", "06 00 00 00", "07", "07 00", "07 00 00", "07 00 00 00"}) {
    EXPECT_EQ(OfHex(hex), (Transcript{"fault"})) << hex;
  }
}

TEST(Decoder, RefusesAListWithFewerElementsThanItAnnounces) {
  EXPECT_EQ(OfHex("06 02 00 00 00 01 31 07 00 00 00"), (Transcript{"[", "- bool 1", "fault"}));
  EXPECT_EQ(OfHex("06 FF FF FF 7F"), (Transcript{"[", "fault"}));
}

TEST(Decoder, TakesTheNextRecordForAMissingElement) {
  std::string bytes = Golden("list");
  bytes[1] = 6;
  mivo::AppendInt(bytes, 42);
  mivo::AppendInt(bytes, 43);
  EXPECT_EQ(TranscriptOf(bytes), (Transcript{"[", "- bool 1", "- int 2", "- double 0x1p-1", "- string x",
                                             std::string("- stream y\0", 11), "- int 42", "]", "int 43", "end"}));
}

TEST(Decoder, EndsAListAtATagThatIsNoElement) {
  EXPECT_EQ(OfHex("06 03 00 00 00  01 31 07 00 00 00  05 03 01 00 00 00 6B 12 00 00 00  01 31 18 00 00 00"),
            (Transcript{"[", "- bool 1", "]", "key k", "keyed bool 1", "end"}));
  EXPECT_EQ(OfHex("06 03 00 00 00  01 31 07 00 00 00  06 00 00 00 00"),
            (Transcript{"[", "- bool 1", "]", "[", "]", "end"}));
  EXPECT_EQ(OfHex("06 03 00 00 00  01 31 07 00 00 00  07 00 00 00 00"),
            (Transcript{"[", "- bool 1", "]", "{", "}", "end"}));
  EXPECT_EQ(OfHex("06 03 00 00 00  01 31 07 00 00 00  08"), (Transcript{"[", "- bool 1", "]", "fault"}));
}

TEST(Decoder, LeavesAListAtAFaultInsideIt) {
  EXPECT_EQ(OfHex("01 31 02 00 00 00  06 02 00 00 00  01 31 0D 00 00 00  01 31 14 00 00 00"),
            (Transcript{"bool 1", "[", "- bool 1", "- bool 1", "fault"}));
  MIVOParams params;
  const std::string bytes = FromHex("01 31 02 00 00 00  06 02 00 00 00  01 31 0D 00 00 00  01 31 14 00 00 00");
  EXPECT_FALSE(params.Parser(bytes.data(), static_cast<int>(bytes.size())));
  ASSERT_EQ(params.ParamsSize(), 1);
  EXPECT_TRUE(params.GetValue(0)->IsBool());
}

TEST(Decoder, BoundsAnElementLikeAnyOtherValue) {
  EXPECT_EQ(OfHex("06 01 00 00 00  00 01 02"), (Transcript{"[", "fault"}));
  EXPECT_EQ(OfHex("06 01 00 00 00  00 01 02 03"), (Transcript{"[", "- int 197121", "fault"}));
  EXPECT_EQ(OfHex("06 01 00 00 00  01"), (Transcript{"[", "- bool 0", "fault"}));
  EXPECT_EQ(OfHex("06 01 00 00 00  02 00 00 00 00 00 00"), (Transcript{"[", "fault"}));
  EXPECT_EQ(OfHex("06 01 00 00 00  02 00 00 00 00 00 00 00"), (Transcript{"[", "- double 0x0p+0", "fault"}));
  EXPECT_EQ(OfHex("06 01 00 00 00  03 01 00 00 00"), (Transcript{"[", "fault"}));
  EXPECT_EQ(OfHex("06 01 00 00 00  04 01 00 00 00 61"), (Transcript{"[", "- stream a", "fault"}));
}

TEST(Decoder, ReadsAListMap) {
  EXPECT_EQ(TranscriptOf(Golden("list_map")),
            (Transcript{"{", "key a", "- int 1", "key b", "- string yes", "}", "end"}));
  EXPECT_EQ(OfHex("07 00 00 00 00"), (Transcript{"{", "}", "end"}));
}

TEST(Decoder, ReadsAListMapEntryOfEveryScalarType) {
  std::string bytes = FromHex("07 05 00 00 00");
  mivo::AppendKeyValueInt(bytes, "i", -1);
  mivo::AppendKeyValueBool(bytes, "b", true);
  mivo::AppendKeyValueDouble(bytes, "d", 2);
  mivo::AppendKeyValueString(bytes, "s", "text");
  mivo::AppendKeyValueStream(bytes, "t", "bytes");
  mivo::AppendBool(bytes, false);
  EXPECT_EQ(TranscriptOf(bytes),
            (Transcript{"{", "key i", "- int -1", "key b", "- bool 1", "key d", "- double 0x1p+1", "key s",
                        "- string text", "key t", "- stream bytes", "}", "bool 0", "end"}));
}

TEST(Decoder, EndsAListMapAtTheEndOfTheBytes) {
  std::string bytes = Golden("list_map");
  bytes[1] = 9;
  EXPECT_EQ(TranscriptOf(bytes), (Transcript{"{", "key a", "- int 1", "key b", "- string yes", "}", "end"}));
  EXPECT_EQ(OfHex("07 FF FF FF 7F"), (Transcript{"{", "}", "end"}));
}

TEST(Decoder, EndsAListMapAtARecordThatIsNoPair) {
  EXPECT_EQ(OfHex("07 02 00 00 00  01 31 07 00 00 00"), (Transcript{"{", "}", "bool 1", "end"}));
  EXPECT_EQ(OfHex("07 02 00 00 00  06 00 00 00 00"), (Transcript{"{", "}", "[", "]", "end"}));
  EXPECT_EQ(OfHex("07 02 00 00 00  07 00 00 00 00"), (Transcript{"{", "}", "{", "}", "end"}));
  EXPECT_EQ(OfHex("07 02 00 00 00  09"), (Transcript{"{", "}", "fault"}));
}

TEST(Decoder, DropsAListMapEntryWithoutAScalar) {
  // The list behind the key ends the list map and stands for itself.
  EXPECT_EQ(OfHex("07 02 00 00 00  05 03 01 00 00 00 6B 0C 00 00 00  06 00 00 00 00"),
            (Transcript{"{", "key k", "}", "[", "]", "end"}));
  // A pair behind the key is the next entry.
  EXPECT_EQ(OfHex("07 02 00 00 00  05 03 01 00 00 00 6B 0C 00 00 00"
                  "05 03 01 00 00 00 6C 17 00 00 00  01 31 1D 00 00 00"),
            (Transcript{"{", "key k", "key l", "- bool 1", "}", "end"}));
  // The dropped entry counts: with none left, the pair is a top-level one.
  EXPECT_EQ(OfHex("07 01 00 00 00  05 03 01 00 00 00 6B 0C 00 00 00"
                  "05 03 01 00 00 00 6C 17 00 00 00  01 31 1D 00 00 00"),
            (Transcript{"{", "key k", "}", "key l", "keyed bool 1", "end"}));
}

TEST(Decoder, LeavesAListMapAtAFaultInsideIt) {
  const char* const key = "07 01 00 00 00  05 03 01 00 00 00 6B 0C 00 00 00";
  EXPECT_EQ(OfHex(key), (Transcript{"{", "key k", "fault"}));
  EXPECT_EQ(TranscriptOf(FromHex(key) + FromHex("00 01 00")), (Transcript{"{", "key k", "fault"}));
  EXPECT_EQ(TranscriptOf(FromHex(key) + FromHex("01 31 13 00 00 00")), (Transcript{"{", "key k", "- bool 1", "fault"}));
  EXPECT_EQ(OfHex("07 01 00 00 00  05 00"), (Transcript{"{", "fault"}));
  EXPECT_EQ(OfHex("07 01 00 00 00  05 03 01 00 00 00 6B 0D 00 00 00"), (Transcript{"{", "fault"}));
  EXPECT_EQ(OfHex("07 01 00 00 00  05 03 FF FF FF FF 6B 0C 00 00 00"), (Transcript{"{", "fault"}));
}

// Ten bytes may announce two thousand million rounds. A hundred such inputs walked round by round would take minutes.
TEST(Decoder, DoesNotWalkTheRoundsThatAHugeCountAnnounces) {
  const auto start = std::chrono::steady_clock::now();
  for (int round = 0; round < 100; ++round) {
    ASSERT_EQ(OfHex("06 FF FF FF 7F 05"), (Transcript{"[", "]", "fault"}));
    ASSERT_EQ(OfHex("06 FF FF FF 7F 06 00 00 00 00"), (Transcript{"[", "]", "[", "]", "end"}));
    ASSERT_EQ(OfHex("07 FF FF FF 7F 00 01 00 00 00 0A 00 00 00"), (Transcript{"{", "}", "int 1", "end"}));
    ASSERT_EQ(OfHex("07 FF FF FF 7F"), (Transcript{"{", "}", "end"}));
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}

TEST(Decoder, ReadsAMillionRecordsInOnePass) {
  constexpr int kRecords = 1000000;
  class Counter final : public mivo::DecodeSink {
   public:
    void OnPositional(const mivo::Scalar& value) override { in_order_ = in_order_ && value.integer == count_++; }
    void OnKey(std::string_view) override {}
    void OnKeyed(std::string_view, const mivo::Scalar&) override {}
    void OnListBegin() override {}
    void OnListElement(const mivo::Scalar& value) override { OnPositional(value); }
    void OnListEnd() override {}
    void OnListMapBegin() override {}
    void OnListMapEntry(std::string_view, const mivo::Scalar&) override {}
    void OnListMapEnd() override {}
    int count_ = 0;
    bool in_order_ = true;
  };
  std::string top_level;
  top_level.reserve(kRecords * mivo::kIntRecordSize);
  for (int i = 0; i < kRecords; ++i)
    mivo::AppendInt(top_level, i);
  std::string list;
  list.reserve(mivo::kListHeaderSize + kRecords * mivo::kIntRecordSize);
  mivo::AppendListHeader(list, kRecords);
  for (int i = 0; i < kRecords; ++i)
    mivo::AppendInt(list, i);
  const auto start = std::chrono::steady_clock::now();
  for (const std::string* bytes : {&top_level, &list}) {
    Counter counter;
    EXPECT_TRUE(mivo::Decode(*bytes, counter));
    EXPECT_EQ(counter.count_, kRecords);
    EXPECT_TRUE(counter.in_order_);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
}

}  // namespace
