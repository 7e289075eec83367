#include <gtest/gtest.h>
#include <mivo/params.h>

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

TEST(Decoder, FindsNothingInNothing) {
  EXPECT_EQ(TranscriptOf(""), (Transcript{"end"}));
  EXPECT_EQ(TranscriptOf(std::string_view()), (Transcript{"end"}));
}

TEST(Decoder, ReadsScalarsInTheOrderOfTheBytes) {
  EXPECT_EQ(TranscriptOf(Golden("int_then_bool")), (Transcript{"int 7", "bool 1", "end"}));
  EXPECT_EQ(TranscriptOf(Golden("scalars")),
            (Transcript{"int -1", "double 0x1.8p+0", "string ab", std::string("stream \0\1", 9), "end"}));
  EXPECT_EQ(TranscriptOf(Golden("empty_string")), (Transcript{"string ", "end"}));
}

TEST(Decoder, TakesOnlyTheCharacterOneForTrue) {
  EXPECT_EQ(OfHex("01 31 02 00 00 00"), (Transcript{"bool 1", "end"}));
  for (const char* hex : {"01 30 02 00 00 00", "01 78 02 00 00 00", "01 01 02 00 00 00", "01 00 02 00 00 00"}) {
    EXPECT_EQ(OfHex(hex), (Transcript{"bool 0", "end"})) << hex;
  }
}

TEST(Decoder, KeepsNulBytesInsideTexts) {
  EXPECT_EQ(OfHex("03 03 00 00 00 61 00 62 08 00 00 00"), (Transcript{std::string("string a\0b", 10), "end"}));
}

TEST(Decoder, RefusesATagAboveTheListMapAndKeepsWhatCameBefore) {
  EXPECT_EQ(OfHex("08"), (Transcript{"fault"}));
  EXPECT_EQ(OfHex("FF 00 00 00 00 00 00 00 00"), (Transcript{"fault"}));
  EXPECT_EQ(TranscriptOf(Golden("pair_int") + "\x08"), (Transcript{"key k", "keyed int 1", "fault"}));
  EXPECT_EQ(TranscriptOf(Golden("int") + "\x08"), (Transcript{"int 7", "fault"}));
}

TEST(Decoder, RefusesAnEncodingThatDoesNotStartAtItsFirstByte) {
  // The stamp read at offset 6 says 5.
  EXPECT_EQ(TranscriptOf(std::string(1, '\0') + Golden("int")), (Transcript{"int 1792", "fault"}));
  EXPECT_EQ(TranscriptOf(Golden("int").substr(1)).back(), "fault");
}

TEST(Decoder, RefusesASecondEncodingBehindTheFirst) {
  EXPECT_EQ(TranscriptOf(Golden("int") + Golden("int")), (Transcript{"int 7", "int 7", "fault"}));
}

TEST(Decoder, ReportsAValueBeforeItFindsItsStampWrong) {
  std::string bytes = Golden("int");
  bytes[5] = 6;
  EXPECT_EQ(TranscriptOf(bytes), (Transcript{"int 7", "fault"}));
  for (std::size_t at = 5; at < 9; ++at) {
    bytes = Golden("int");
    bytes[at] = static_cast<char>(bytes[at] + 1);
    EXPECT_EQ(TranscriptOf(bytes), (Transcript{"int 7", "fault"})) << at;
  }
  std::string pair = Golden("pair_int");
  pair[16] = 17;
  EXPECT_EQ(TranscriptOf(pair), (Transcript{"key k", "keyed int 1", "fault"}));
}

TEST(Decoder, NeverMatchesAStampThatIsNotWhollyThere) {
  EXPECT_EQ(OfHex("00 07 00 00 00 05"), (Transcript{"int 7", "fault"}));
  EXPECT_EQ(OfHex("00 07 00 00 00 05 00 00"), (Transcript{"int 7", "fault"}));
  EXPECT_EQ(OfHex("01 31 02 00 00"), (Transcript{"bool 1", "fault"}));
}

// How many values a record cut to n bytes still shows, n = 1, 2, ...; "x" for one, "." for none.
std::string ValuesOfCuts(const std::string& record) {
  std::string shown;
  for (std::size_t size = 1; size < record.size(); ++size) {
    const Transcript transcript = TranscriptOf(std::string_view(record).substr(0, size));
    EXPECT_EQ(transcript.back(), "fault") << size;
    shown.push_back(transcript.size() > 1 ? 'x' : '.');
  }
  return shown;
}

TEST(Decoder, ShowsTheValueOfARecordCutAtTheValuesLastByteOrLater) {
  EXPECT_EQ(ValuesOfCuts(FromHex("00 07 00 00 00 05 00 00 00")), "...xxxxx");
  EXPECT_EQ(ValuesOfCuts(FromHex("01 31 02 00 00 00")), "xxxxx");
  EXPECT_EQ(ValuesOfCuts(FromHex("02 00 00 00 00 00 00 F8 3F 09 00 00 00")), ".......xxxxx");
  EXPECT_EQ(ValuesOfCuts(FromHex("03 02 00 00 00 61 62 07 00 00 00")), "......xxxx");
  EXPECT_EQ(ValuesOfCuts(FromHex("04 02 00 00 00 61 62 07 00 00 00")), "......xxxx");
}

TEST(Decoder, ReadsTheMissingByteOfACutValueAsZero) {
  EXPECT_EQ(OfHex("00 FF FF FF"), (Transcript{"int 16777215", "fault"}));
  EXPECT_EQ(OfHex("00 FF FF FF FF"), (Transcript{"int -1", "fault"}));
  EXPECT_EQ(OfHex("01"), (Transcript{"bool 0", "fault"}));
  EXPECT_EQ(OfHex("02 00 00 00 00 00 00 F8"), (Transcript{"double 0x1.8p-1008", "fault"}));
}

TEST(Decoder, ShowsTheKeyedValueOfACutPairFromItsLastByteOn) {
  const std::string pair = Golden("pair_int");
  for (std::size_t size = 1; size < pair.size(); ++size) {
    MIVOParams params;
    EXPECT_FALSE(params.Parser(pair.data(), static_cast<int>(size)));
    EXPECT_EQ(params.MapSize(), size < 15 ? 0 : 1) << size;
    EXPECT_EQ(params.ParamsSize(), 0);
  }
}

TEST(Decoder, RefusesALengthThatReachesBeyondTheBytes) {
  EXPECT_EQ(OfHex("03 FF FF 00 00 61 62 63"), (Transcript{"fault"}));
  EXPECT_EQ(OfHex("03 FF FF FF 7F 61 62 63"), (Transcript{"fault"}));
  EXPECT_EQ(OfHex("04 04 00 00 00 61 62 63"), (Transcript{"fault"}));
  EXPECT_EQ(OfHex("04 03 00 00 00 61 62 63"), (Transcript{"stream abc", "fault"}));
}

TEST(Decoder, RefusesANegativeLength) {
  EXPECT_EQ(OfHex("04 FF FF FF FF 04 00 00 00 00 00 00 00"), (Transcript{"fault"}));
  EXPECT_EQ(OfHex("03 00 00 00 80 05 00 00 00"), (Transcript{"fault"}));
  // A length of -9 would lead straight back to the same record.
  EXPECT_EQ(OfHex("03 F7 FF FF FF 05 00 00 00"), (Transcript{"fault"}));
}

TEST(Decoder, ReadsPairs) {
  EXPECT_EQ(TranscriptOf(Golden("pair_bool")), (Transcript{"key k", "keyed bool 1", "end"}));
  EXPECT_EQ(TranscriptOf(Golden("pair_double")), (Transcript{"key k", "keyed double -0x1p-1", "end"}));
  EXPECT_EQ(TranscriptOf(Golden("pair_string")), (Transcript{"key retval", "keyed string ok", "end"}));
  EXPECT_EQ(TranscriptOf(Golden("pair_stream")), (Transcript{"key k", std::string("keyed stream a\0b", 16), "end"}));
}

TEST(Decoder, ReportsARepeatedKeyAgain) {
  std::string bytes;
  mivo::AppendKeyValueInt(bytes, "k", 1);
  mivo::AppendKeyValueString(bytes, "k", "later");
  EXPECT_EQ(TranscriptOf(bytes), (Transcript{"key k", "keyed int 1", "key k", "keyed string later", "end"}));
  MIVOParams params;
  EXPECT_TRUE(params.Parser(bytes.data(), static_cast<int>(bytes.size())));
  EXPECT_EQ(params.MapSize(), 1);
  EXPECT_STREQ(params.GetMap("k")->GetString(), "later");
}

TEST(Decoder, RefusesAKeyThatIsNoString) {
  for (int tag = 0; tag < 256; ++tag) {
    std::string pair = Golden("pair_int");
    pair[1] = static_cast<char>(tag);
    EXPECT_EQ(TranscriptOf(pair).back(), tag == 3 ? "end" : "fault") << tag;
    EXPECT_EQ(TranscriptOf(pair).size(), tag == 3 ? 3u : 1u) << tag;
  }
  EXPECT_EQ(OfHex("05"), (Transcript{"fault"}));
}

TEST(Decoder, RefusesAKeyWithAWrongStampAndDoesNotNameIt) {
  for (std::size_t at = 7; at < 11; ++at) {
    std::string pair = Golden("pair_int");
    pair[at] = static_cast<char>(pair[at] + 1);
    EXPECT_EQ(TranscriptOf(pair), (Transcript{"fault"})) << at;
  }
}

TEST(Decoder, RefusesAKeyLengthBelowZeroOrBeyondTheBytes) {
  EXPECT_EQ(OfHex("05 03 FF FF FF FF 6B 07 00 00 00 00 01 00 00 00 10 00 00 00"), (Transcript{"fault"}));
  EXPECT_EQ(OfHex("05 03 00 00 00 80 6B 07 00 00 00 00 01 00 00 00 10 00 00 00"), (Transcript{"fault"}));
  EXPECT_EQ(OfHex("05 03 FF FF FF 7F 6B 07 00 00 00 00 01 00 00 00 10 00 00 00"), (Transcript{"fault"}));
  EXPECT_EQ(OfHex("05 03 02 00 00 00 6B 07 00 00 00"), (Transcript{"fault"}));
  // The smallest key there is, and one byte less.
  EXPECT_EQ(OfHex("05 03 00 00 00 00 06 00 00 00 01 31 0C 00 00 00"), (Transcript{"key ", "keyed bool 1", "end"}));
  EXPECT_EQ(OfHex("05 03 00 00 00 00 06 00 00"), (Transcript{"fault"}));
}

TEST(Decoder, RefusesAPairWithNothingBehindItsKey) {
  EXPECT_EQ(TranscriptOf(Golden("pair_int").substr(0, 11)), (Transcript{"key k", "fault"}));
  EXPECT_EQ(TranscriptOf(Golden("pair_int").substr(0, 14)), (Transcript{"key k", "fault"}));
}

TEST(Decoder, ReadsAListBehindAKeyAsAValueOfItsOwn) {
  EXPECT_EQ(OfHex("05 03 01 00 00 00 6B 07 00 00 00  06 01 00 00 00 01 31 12 00 00 00"),
            (Transcript{"key k", "[", "- bool 1", "]", "end"}));
  EXPECT_EQ(OfHex("05 03 01 00 00 00 6B 07 00 00 00  07 00 00 00 00"), (Transcript{"key k", "{", "}", "end"}));
}

TEST(Decoder, ReadsAPairBehindAKeyAsAPairOfItsOwn) {
  EXPECT_EQ(OfHex("05 03 01 00 00 00 6B 07 00 00 00  05 03 01 00 00 00 6C 12 00 00 00  01 31 18 00 00 00"),
            (Transcript{"key k", "key l", "keyed bool 1", "end"}));
}

TEST(Decoder, RefusesAnUnknownTagBehindAKey) {
  EXPECT_EQ(OfHex("05 03 01 00 00 00 6B 07 00 00 00  08"), (Transcript{"key k", "fault"}));
}

TEST(Decoder, BoundsAKeyedValueLikeAnyOther) {
  std::string key;
  mivo::AppendKey(key, "k");
  EXPECT_EQ(TranscriptOf(key + FromHex("00 01 02")), (Transcript{"key k", "fault"}));
  EXPECT_EQ(TranscriptOf(key + FromHex("00 01 02 03")), (Transcript{"key k", "keyed int 197121", "fault"}));
  EXPECT_EQ(TranscriptOf(key + FromHex("01")), (Transcript{"key k", "keyed bool 0", "fault"}));
  EXPECT_EQ(TranscriptOf(key + FromHex("02 00 00 00 00 00 00")), (Transcript{"key k", "fault"}));
  EXPECT_EQ(TranscriptOf(key + FromHex("02 00 00 00 00 00 00 00")),
            (Transcript{"key k", "keyed double 0x0p+0", "fault"}));
  EXPECT_EQ(TranscriptOf(key + FromHex("03 01 00 00 00")), (Transcript{"key k", "fault"}));
  EXPECT_EQ(TranscriptOf(key + FromHex("03 01 00 00 00 61")), (Transcript{"key k", "keyed string a", "fault"}));
  EXPECT_EQ(TranscriptOf(key + FromHex("04 01 00 00")), (Transcript{"key k", "fault"}));
}

}  // namespace
