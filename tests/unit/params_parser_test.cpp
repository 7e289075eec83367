#include <gtest/gtest.h>
#include <mivo/params.h>

#include <climits>
#include <string>

#include "support/golden.h"

namespace {

using mivo_test::FromHex;

bool Parse(MIVOParams& params, const std::string& bytes) {
  return params.Parser(bytes.data(), static_cast<int>(bytes.size()));
}

std::string RichEncoding() {
  MIVOParams params;
  params.AddInt(5);
  params.AddKeyValueString("retval", "ok");
  ListParams* const list = params.CreateListParams();
  list->AddString("element", 7);
  list->AddInt(6);
  params.AddList(list);
  params.AddStream("\0stream\0", 8);
  return *params.GetParamas();
}

TEST(MIVOParams, IsEmptiedByParsingNothing) {
  for (const int length : {0, -1, INT_MIN}) {
    MIVOParams params;
    ASSERT_TRUE(Parse(params, RichEncoding()));
    EXPECT_TRUE(params.Parser("\x00\x07", length));
    EXPECT_EQ(params.Size(), 0);
    EXPECT_EQ(params.ParamsSize(), 0);
    EXPECT_EQ(params.MapSize(), 0);
  }
  MIVOParams params;
  EXPECT_TRUE(params.Parser(nullptr, 0));
}

TEST(MIVOParams, HoldsOnlyWhatItParsedLast) {
  MIVOParams params;
  ASSERT_TRUE(Parse(params, RichEncoding()));
  const std::string second = mivo_test::Golden("int_then_bool");
  ASSERT_TRUE(Parse(params, second));
  EXPECT_EQ(params.ParamsSize(), 2);
  EXPECT_EQ(params.MapSize(), 0);
  EXPECT_EQ(*params.GetParamas(), second);
}

TEST(MIVOParams, HasNothingUnderANullKey) {
  MIVOParams params;
  EXPECT_EQ(params.GetMap(nullptr), nullptr);
  params.AddKeyValueInt("", 1);
  ASSERT_TRUE(params.ToParams());
  ASSERT_NE(params.GetMap(""), nullptr);
  EXPECT_EQ(params.GetMap(nullptr), nullptr);
}

TEST(MIVOParams, KeepsTheInputInItsBufferAfterAFault) {
  MIVOParams params;
  params.AddInt(1);
  const std::string bad = FromHex("00 07 00 00 00 05 00 00 00  08 01 02");
  EXPECT_FALSE(Parse(params, bad));
  EXPECT_EQ(*params.GetParamas(), bad);
  EXPECT_FALSE(params.ToParams());
  EXPECT_EQ(*params.GetParamas(), bad);
  EXPECT_EQ(params.ParamsSize(), 1);
}

TEST(MIVOParams, DoesNotNeedTheParsedBytesAfterwards) {
  MIVOParams params;
  {
    std::string bytes = RichEncoding();
    ASSERT_TRUE(Parse(params, bytes));
    bytes.assign(bytes.size(), '\xEE');
  }
  EXPECT_STREQ(params.GetMap("retval")->GetString(), "ok");
  EXPECT_EQ(*params.GetParamas(), RichEncoding());
}

TEST(MIVOParams, DecodesItsOwnBufferAgainWithTheSameResult) {
  MIVOParams params;
  ASSERT_TRUE(Parse(params, RichEncoding()));
  for (int round = 0; round < 3; ++round) {
    ASSERT_TRUE(params.ToParams());
    EXPECT_EQ(params.ParamsSize(), 3);
    EXPECT_EQ(params.MapSize(), 1);
    EXPECT_EQ(*params.GetParamas(), RichEncoding());
  }
}

TEST(MIVOParams, ParsesItsOwnBuffer) {
  MIVOParams params;
  params.AddInt(5);
  params.AddKeyValueString("retval", "ok");
  EXPECT_TRUE(params.Parser(params.GetParamasPtr(), params.GetParamasSize()));
  EXPECT_EQ(params.ParamsSize(), 1);
  EXPECT_STREQ(params.GetMap("retval")->GetString(), "ok");
  EXPECT_TRUE(params.Parser(params.GetParamasPtr(), 9));
  EXPECT_EQ(params.Size(), 9);
  EXPECT_EQ(params.ParamsSize(), 1);
  EXPECT_EQ(params.MapSize(), 0);
}

TEST(MIVOParams, ParsesTheTailOfItsOwnBuffer) {
  MIVOParams params;
  params.AddKeyValueString("k", "v");
  const std::string whole = *params.GetParamas();
  EXPECT_FALSE(params.Parser(params.GetParamasPtr() + 1, params.GetParamasSize() - 1));
  EXPECT_EQ(*params.GetParamas(), whole.substr(1));
}

TEST(MIVOParams, ParsesAnEncodingThatIsOneOfItsOwnValues) {
  MIVOParams outer;
  const std::string inner = RichEncoding();
  outer.AddKeyValueStream("data", inner.data(), static_cast<long>(inner.size()));
  outer.AddStream(inner.data(), static_cast<long>(inner.size()));
  ASSERT_TRUE(outer.ToParams());
  long length = 0;
  const char* bytes = outer.GetMap("data")->GetStream(length);
  ASSERT_TRUE(outer.Parser(bytes, static_cast<int>(length)));
  EXPECT_EQ(*outer.GetParamas(), inner);
  EXPECT_EQ(outer.ParamsSize(), 3);

  MIVOParams positional;
  positional.AddStream(inner.data(), static_cast<long>(inner.size()));
  ASSERT_TRUE(positional.ToParams());
  bytes = positional.GetValue(0)->GetStream(length);
  ASSERT_TRUE(positional.Parser(bytes, static_cast<int>(length)));
  EXPECT_STREQ(positional.GetMap("retval")->GetString(), "ok");
}

TEST(MIVOParams, CanAddItsOwnBytesToItself) {
  MIVOParams params;
  for (int round = 0; round < 12; ++round) {
    const std::string before = *params.GetParamas();
    const std::string key = "k" + std::to_string(round);
    params.AddStream(params.GetParamasPtr(), params.GetParamasSize());
    params.AddKeyValueStream(key.c_str(), params.GetParamasPtr(), static_cast<long>(before.size()));
    ASSERT_TRUE(params.ToParams());
    long length = 0;
    const char* bytes = params.GetValue(round)->GetStream(length);
    ASSERT_EQ(std::string(bytes, static_cast<std::size_t>(length)), before);
    bytes = params.GetMap(key.c_str())->GetStream(length);
    ASSERT_EQ(std::string(bytes, static_cast<std::size_t>(length)), before);
  }
}

TEST(MIVOParams, FreesAllItHoldsAtAnyStage) {
  MIVOParams parsed;
  ASSERT_TRUE(Parse(parsed, RichEncoding()));
  parsed.GetMapPtr();
  MIVOParams cut;
  const std::string cut_in_list = RichEncoding().substr(0, 60);
  EXPECT_FALSE(Parse(cut, cut_in_list));
  cut.GetMapPtr();
}

TEST(MIVOParams, LeavesAnEntryWithoutValueWhereARepeatedKeyLostIt) {
  MIVOParams params;
  // "k" = 1, then "k" again, followed by an empty list
  const std::string bytes = FromHex(
      "05 03 01 00 00 00 6B 07 00 00 00  00 01 00 00 00 10 00 00 00"
      "05 03 01 00 00 00 6B 1B 00 00 00  06 00 00 00 00");
  EXPECT_TRUE(Parse(params, bytes));
  EXPECT_EQ(params.MapSize(), 1);
  EXPECT_EQ(params.GetMap("k"), nullptr);
  ASSERT_EQ(params.GetMapPtr()->size(), 1u);
  EXPECT_EQ(params.GetMapPtr()->begin()->second, nullptr);
  ASSERT_EQ(params.ParamsSize(), 1);
  EXPECT_TRUE(params.GetValue(0)->IsList());
}

TEST(MIVOParams, GivesALostEntryAValueAgainWhenTheKeyReturns) {
  MIVOParams params;
  const std::string bytes = FromHex(
      "05 03 01 00 00 00 6B 07 00 00 00  06 00 00 00 00"
      "05 03 01 00 00 00 6B 17 00 00 00  01 31 1D 00 00 00"
      "05 03 01 00 00 00 6B 28 00 00 00  06 00 00 00 00"
      "05 03 01 00 00 00 6B 38 00 00 00  01 31 3E 00 00 00");
  EXPECT_TRUE(Parse(params, bytes));
  EXPECT_EQ(params.MapSize(), 1);
  ASSERT_NE(params.GetMap("k"), nullptr);
  EXPECT_TRUE(params.GetMap("k")->GetBool());
  EXPECT_EQ(params.ParamsSize(), 2);
}

TEST(MIVOParams, LosesAKeyedValueToAListMapEntryOfTheSameKey) {
  MIVOParams params;
  const std::string bytes = FromHex(
      "05 03 01 00 00 00 6B 07 00 00 00  00 01 00 00 00 10 00 00 00"
      "07 01 00 00 00  05 03 01 00 00 00 6B 20 00 00 00  00 02 00 00 00 29 00 00 00");
  EXPECT_TRUE(Parse(params, bytes));
  EXPECT_EQ(params.MapSize(), 1);
  EXPECT_EQ(params.GetMap("k"), nullptr);
  ASSERT_EQ(params.ParamsSize(), 1);
  ASSERT_EQ(params.GetValue(0)->type, MIVOValue::ListMap);
  EXPECT_EQ(params.GetValue(0)->listMap.at("k")->GetInt(), 2);
}

TEST(MIVOParams, DecodesAListMap) {
  MIVOParams params;
  ASSERT_TRUE(Parse(params, mivo_test::Golden("list_map")));
  ASSERT_EQ(params.ParamsSize(), 1);
  EXPECT_EQ(params.MapSize(), 0);
  const MIVOValue& value = *params.GetValue(0);
  EXPECT_EQ(value.type, MIVOValue::ListMap);
  ASSERT_EQ(value.listMap.size(), 2u);
  EXPECT_EQ(value.listMap.at("a")->GetInt(), 1);
  EXPECT_STREQ(value.listMap.at("b")->GetString(), "yes");
}

TEST(MIVOParams, KeepsTheLaterOfTwoListMapEntriesOfOneKey) {
  MIVOParams params;
  const std::string bytes = FromHex(
      "07 02 00 00 00"
      "05 03 01 00 00 00 6B 0C 00 00 00  00 01 00 00 00 15 00 00 00"
      "05 03 01 00 00 00 6B 20 00 00 00  03 01 00 00 00 32 2A 00 00 00");
  ASSERT_TRUE(Parse(params, bytes));
  ASSERT_EQ(params.GetValue(0)->listMap.size(), 1u);
  EXPECT_STREQ(params.GetValue(0)->listMap.at("k")->GetString(), "2");
}

TEST(MIVOParams, DropsAListThatAFaultCuts) {
  MIVOParams params;
  const std::string bytes = mivo_test::Golden("list");
  EXPECT_FALSE(Parse(params, bytes.substr(0, bytes.size() - 1)));
  EXPECT_EQ(params.ParamsSize(), 0);
  const std::string map_bytes = mivo_test::Golden("list_map");
  EXPECT_FALSE(Parse(params, map_bytes.substr(0, map_bytes.size() - 1)));
  EXPECT_EQ(params.ParamsSize(), 0);
}

TEST(MIVOParams, ReadsAStringToItsLengthAndAddsItToAListUpToItsNul) {
  MIVOParams params;
  ASSERT_TRUE(Parse(params, FromHex("06 01 00 00 00  03 03 00 00 00 61 00 62 0D 00 00 00")));
  long length = 0;
  const char* const text = params.GetValue(0)->GetList()->at(0)->GetStream(length);
  EXPECT_EQ(length, 3);
  MIVOParams again;
  ListParams* const list = again.CreateListParams();
  list->AddString(text, length);
  again.AddList(list);
  EXPECT_EQ(*again.GetParamas(), FromHex("06 01 00 00 00  03 01 00 00 00 61 0B 00 00 00"));
}

}  // namespace
