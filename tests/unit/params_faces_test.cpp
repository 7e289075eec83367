#include <gtest/gtest.h>
#include <mivo/params.h>

#include <climits>
#include <memory>
#include <set>
#include <string>
#include <type_traits>

#include "unit/large_memory.h"

namespace {

std::string TextOf(const MIVOValue& value) {
  long length = 0;
  const char* const bytes = value.GetStream(length);
  return std::string(bytes, static_cast<std::size_t>(length));
}

TEST(MIVOParams, IsOneFlagAndFourPointers) {
  EXPECT_EQ(sizeof(MIVOParams), 40u);
  EXPECT_FALSE(std::is_polymorphic<MIVOParams>::value);
  EXPECT_FALSE(std::is_copy_assignable<MIVOParams>::value);
}

TEST(MIVOParams, IsEmptyWhenNew) {
  MIVOParams params;
  EXPECT_EQ(params.Size(), 0);
  EXPECT_EQ(params.ParamsSize(), 0);
  EXPECT_EQ(params.MapSize(), 0);
  EXPECT_EQ(params.GetParamasSize(), 0);
  EXPECT_EQ(params.GetValue(0), nullptr);
  EXPECT_EQ(params.GetMap("retval"), nullptr);
  EXPECT_TRUE(params.GetMapPtr()->empty());
  EXPECT_FALSE(params.IsGetBuffer());
}

TEST(MIVOParams, OnlySetsItsFlagWhenTheBufferIsTaken) {
  MIVOParams params;
  params.AddInt(1);
  params.GetBuffer();
  EXPECT_TRUE(params.IsGetBuffer());
  EXPECT_EQ(params.Size(), 9);
  EXPECT_EQ(params.ParamsSize(), 0);
}

TEST(MIVOParams, ShowsWhatWasAddedOnlyOnceDecoded) {
  MIVOParams params;
  params.AddInt(5);
  params.AddKeyValueString("retval", "ok");
  EXPECT_EQ(params.ParamsSize(), 0);
  EXPECT_EQ(params.MapSize(), 0);
  ASSERT_TRUE(params.ToParams());
  ASSERT_EQ(params.ParamsSize(), 1);
  EXPECT_TRUE(params.GetValue(0)->IsInt());
  EXPECT_EQ(params.GetValue(0)->GetInt(), 5);
  ASSERT_EQ(params.MapSize(), 1);
  EXPECT_TRUE(params.GetMap("retval")->IsString());
  EXPECT_STREQ(params.GetMap("retval")->GetString(), "ok");
}

TEST(MIVOParams, EncodesEachRecordAtOnce) {
  MIVOParams params;
  params.AddInt(1);
  EXPECT_EQ(params.Size(), 9);
  params.AddBool(true);
  EXPECT_EQ(params.Size(), 15);
  params.AddDouble(1);
  EXPECT_EQ(params.Size(), 28);
  params.AddString("abc");
  EXPECT_EQ(params.Size(), 40);
  params.AddStream("abcd", 4);
  EXPECT_EQ(params.Size(), 53);
  params.AddKeyValueInt("ke", 1);
  EXPECT_EQ(params.Size(), 53 + 12 + 9);
  params.AddList(params.CreateListParams());
  EXPECT_EQ(params.Size(), 74 + 5);
  EXPECT_EQ(params.ParamsSize(), 0);
}

TEST(MIVOParams, EmptiesBothFacesAndKeepsTheFlagWhenCleared) {
  MIVOParams params;
  params.AddInt(5);
  params.AddKeyValueString("retval", "ok");
  params.ToParams();
  params.GetMapPtr();
  params.GetBuffer();
  params.Clear();
  EXPECT_EQ(params.Size(), 0);
  EXPECT_EQ(params.ParamsSize(), 0);
  EXPECT_EQ(params.MapSize(), 0);
  EXPECT_TRUE(params.GetMapPtr()->empty());
  EXPECT_TRUE(params.IsGetBuffer());

  MIVOParams untaken;
  untaken.Clear();
  EXPECT_FALSE(untaken.IsGetBuffer());
}

TEST(MIVOParams, ShowsItsLiveBuffer) {
  MIVOParams params;
  std::string* const buffer = params.GetParamas();
  params.AddInt(7);
  EXPECT_EQ(params.GetParamas(), buffer);
  EXPECT_EQ(params.GetParamasPtr(), buffer->data());
  EXPECT_EQ(params.GetParamasSize(), 9);
  EXPECT_EQ(params.Size(), 9);
  EXPECT_EQ(buffer->size(), 9u);
}

TEST(MIVOParams, AdoptsAnEncodingPutIntoItsBufferWithoutCopyingIt) {
  MIVOParams source;
  source.AddKeyValueString("k", std::string(1000, 'x').c_str());
  std::string bytes = *source.GetParamas();
  const char* const where = bytes.data();
  MIVOParams params;
  *params.GetParamas() = std::move(bytes);
  ASSERT_TRUE(params.ToParams());
  EXPECT_EQ(params.GetParamasPtr(), where);
  EXPECT_EQ(TextOf(*params.GetMap("k")), std::string(1000, 'x'));
}

TEST(MIVOParams, HasNoValueOutsideItsPositions) {
  MIVOParams params;
  params.AddInt(1);
  params.AddInt(2);
  params.ToParams();
  EXPECT_EQ(params.GetValue(1)->GetInt(), 2);
  for (const int index : {2, 3, INT_MAX, -1, INT_MIN})
    EXPECT_EQ(params.GetValue(index), nullptr) << index;
}

TEST(MIVOParams, FindsKeysByTheirText) {
  MIVOParams params;
  for (const char* key : {"b", "a", "aa", ""})
    params.AddKeyValueString(key, key);
  ASSERT_TRUE(params.ToParams());
  EXPECT_EQ(params.MapSize(), 4);
  for (const char* key : {"b", "a", "aa", ""}) {
    const std::string other_pointer = key;
    ASSERT_NE(params.GetMap(other_pointer.c_str()), nullptr) << key;
    EXPECT_STREQ(params.GetMap(other_pointer.c_str())->GetString(), key);
  }
  EXPECT_EQ(params.GetMap("aaa"), nullptr);
}

TEST(MIVOParams, KeepsTheLaterOfTwoValuesUnderOneKey) {
  MIVOParams params;
  params.AddKeyValueInt("k", 1);
  EXPECT_EQ(params.Size(), 20);
  params.AddKeyValueInt("k", 2);
  EXPECT_EQ(params.Size(), 40);
  ASSERT_TRUE(params.ToParams());
  EXPECT_EQ(params.MapSize(), 1);
  EXPECT_EQ(params.GetMap("k")->GetInt(), 2);
}

TEST(MIVOParams, KeysValuesOfTheFiveScalarTypes) {
  MIVOParams params;
  params.AddKeyValueInt("int", INT_MIN);
  params.AddKeyValueBool("bool", true);
  params.AddKeyValueDouble("double", -0.25);
  params.AddKeyValueString("string", "text");
  params.AddKeyValueStream("stream", "a\0b", 3);
  ASSERT_TRUE(params.ToParams());
  EXPECT_TRUE(params.GetMap("int")->IsInt());
  EXPECT_EQ(params.GetMap("int")->GetInt(), INT_MIN);
  EXPECT_TRUE(params.GetMap("bool")->IsBool());
  EXPECT_TRUE(params.GetMap("bool")->GetBool());
  EXPECT_TRUE(params.GetMap("double")->IsDouble());
  EXPECT_EQ(params.GetMap("double")->GetDouble(), -0.25);
  EXPECT_TRUE(params.GetMap("string")->IsString());
  EXPECT_EQ(TextOf(*params.GetMap("string")), "text");
  EXPECT_TRUE(params.GetMap("stream")->IsStream());
  EXPECT_EQ(TextOf(*params.GetMap("stream")), std::string("a\0b", 3));
  EXPECT_EQ(params.ParamsSize(), 0);
}

TEST(MIVOParams, BringsEveryTypeThroughAnEncoding) {
  MIVOParams sent;
  sent.AddInt(INT_MAX);
  sent.AddBool(false);
  sent.AddDouble(1e300);
  sent.AddString("text");
  sent.AddStream("\0\xFF", 2);
  MIVOParams received;
  ASSERT_TRUE(received.Parser(sent.GetParamasPtr(), sent.GetParamasSize()));
  ASSERT_EQ(received.ParamsSize(), 5);
  EXPECT_TRUE(received.GetValue(0)->IsInt());
  EXPECT_EQ(received.GetValue(0)->GetInt(), INT_MAX);
  EXPECT_TRUE(received.GetValue(1)->IsBool());
  EXPECT_FALSE(received.GetValue(1)->GetBool());
  EXPECT_TRUE(received.GetValue(2)->IsDouble());
  EXPECT_EQ(received.GetValue(2)->GetDouble(), 1e300);
  EXPECT_TRUE(received.GetValue(3)->IsString());
  EXPECT_EQ(TextOf(*received.GetValue(3)), "text");
  EXPECT_TRUE(received.GetValue(4)->IsStream());
  EXPECT_EQ(TextOf(*received.GetValue(4)), std::string("\0\xFF", 2));
  EXPECT_EQ(*received.GetParamas(), *sent.GetParamas());
}

TEST(MIVOParams, EndsAStringAtItsNulAndAStreamAtItsCount) {
  MIVOParams params;
  params.AddString("a\0b");
  EXPECT_EQ(params.Size(), 10);
  params.AddStream("a\0b", 3);
  EXPECT_EQ(params.Size(), 22);
  ASSERT_TRUE(params.ToParams());
  EXPECT_EQ(TextOf(*params.GetValue(0)), "a");
  EXPECT_EQ(TextOf(*params.GetValue(1)), std::string("a\0b", 3));
}

TEST(MIVOParams, AddsAnEmptyStreamForANegativeCount) {
  MIVOParams params;
  params.AddStream("abc", -1);
  params.AddKeyValueStream("k", nullptr, 0);
  ASSERT_TRUE(params.ToParams());
  EXPECT_EQ(TextOf(*params.GetValue(0)), "");
  EXPECT_EQ(TextOf(*params.GetMap("k")), "");
}

TEST(MIVOParams, ExtendsOnlyTheBufferAfterDecoding) {
  MIVOParams params;
  params.AddInt(1);
  params.ToParams();
  params.AddInt(2);
  params.AddKeyValueInt("k", 3);
  EXPECT_EQ(params.Size(), 38);
  EXPECT_EQ(params.ParamsSize(), 1);
  EXPECT_EQ(params.MapSize(), 0);
  ASSERT_TRUE(params.ToParams());
  EXPECT_EQ(params.ParamsSize(), 2);
  EXPECT_EQ(params.MapSize(), 1);
}

TEST(MIVOParams, GivesTheSameMapOfPointersTwice) {
  MIVOParams params;
  params.AddKeyValueInt("a", 1);
  params.AddKeyValueInt("b", 2);
  params.ToParams();
  const auto* const first = params.GetMapPtr();
  const auto content = *first;
  EXPECT_EQ(params.GetMapPtr(), first);
  EXPECT_EQ(*params.GetMapPtr(), content);
}

TEST(MIVOParams, MapsEveryKeyPointerToTheKeyedValue) {
  MIVOParams params;
  params.AddKeyValueInt("a", 1);
  params.AddKeyValueString("b", "x");
  params.ToParams();
  std::set<std::string> keys;
  for (const auto& entry : *params.GetMapPtr()) {
    keys.insert(entry.first);
    EXPECT_EQ(entry.second, params.GetMap(entry.first));
  }
  EXPECT_EQ(keys, (std::set<std::string>{"a", "b"}));
}

TEST(MIVOParams, RebuildsTheMapOfPointersOnlyAfterItWasEmptied) {
  MIVOParams params;
  params.AddKeyValueInt("old", 1);
  params.ToParams();
  auto* const pointers = params.GetMapPtr();
  pointers->emplace("mark", nullptr);
  EXPECT_EQ(params.GetMapPtr()->size(), 2u);

  MIVOParams other;
  other.AddKeyValueInt("new", 2);
  ASSERT_TRUE(params.Parser(other.GetParamasPtr(), other.GetParamasSize()));
  EXPECT_TRUE(pointers->empty());
  ASSERT_EQ(params.GetMapPtr()->size(), 1u);
  EXPECT_STREQ(params.GetMapPtr()->begin()->first, "new");
}

TEST(MIVOParams, CreatesAListBuilderWithoutTouchingItself) {
  MIVOParams params;
  params.AddInt(1);
  ListParams* const first = params.CreateListParams();
  ListParams* const second = params.CreateListParams();
  EXPECT_NE(first, second);
  EXPECT_EQ(params.Size(), 9);
  delete first;
  delete second;
}

TEST(MIVOParams, DestroysTheListBuilderItEncodes) {
  MIVOParams params;
  ListParams* const list = params.CreateListParams();
  list->AddString("a text longer than any small buffer holds", 41);
  params.AddList(list);
  EXPECT_EQ(params.Size(), 5 + 9 + 41);
}

TEST(MIVOParams, CopiesTheBufferForGood) {
  MIVOParams source;
  source.AddInt(1);
  source.GetBuffer();
  MIVOParams copy(source);
  EXPECT_EQ(*copy.GetParamas(), *source.GetParamas());
  EXPECT_NE(copy.GetParamas(), source.GetParamas());
  EXPECT_FALSE(copy.IsGetBuffer());
  source.AddInt(2);
  EXPECT_EQ(copy.Size(), 9);
  copy.AddBool(true);
  EXPECT_EQ(source.Size(), 18);
}

TEST(MIVOParams, SharesTheDecodedValuesWithItsCopy) {
  MIVOParams source;
  source.AddInt(1);
  source.AddKeyValueInt("k", 2);
  source.ToParams();
  source.GetMapPtr();
  MIVOParams copy(source);
  EXPECT_EQ(copy.ParamsSize(), 1);
  EXPECT_EQ(copy.GetValue(0), source.GetValue(0));
  EXPECT_EQ(copy.MapSize(), 1);
  EXPECT_EQ(copy.GetMap("k"), source.GetMap("k"));
  ASSERT_EQ(copy.GetMapPtr()->size(), 1u);
  EXPECT_NE(copy.GetMapPtr()->begin()->first, source.GetMapPtr()->begin()->first);
  EXPECT_EQ(copy.GetMapPtr()->begin()->second, source.GetMap("k"));
}

TEST(MIVOParams, KeepsTheDecodedValuesWhileACopyShowsThem) {
  auto source = std::make_unique<MIVOParams>();
  source->AddString("made before the copy");
  source->AddString("made after it");
  source->AddKeyValueString("key", "value");
  source->ToParams();
  MIVOValue* const first = source->GetValue(0);
  const MIVOParams copy(*source);
  const MIVOParams copy_of_copy(copy);
  source->Clear();
  EXPECT_EQ(source->ParamsSize(), 0);
  EXPECT_EQ(copy.GetValue(0), first);
  EXPECT_EQ(TextOf(*copy.GetValue(1)), "made after it");
  source.reset();
  EXPECT_EQ(TextOf(*first), "made before the copy");
  EXPECT_EQ(TextOf(*copy_of_copy.GetMap("key")), "value");
  EXPECT_EQ(copy.GetMap("key"), copy_of_copy.GetMap("key"));
}

TEST(ParamsOfGigabytes, HaveTheLargestSizeThatAnIntCanSay) {
  MIVO_SKIP_WITHOUT_LARGE_MEMORY(5);
  MIVOParams params;
  params.GetParamas()->resize(std::size_t{1} << 31);
  EXPECT_EQ(params.Size(), INT_MAX);
  EXPECT_EQ(params.GetParamasSize(), INT_MAX);
}

}  // namespace
