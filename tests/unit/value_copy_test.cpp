#include <gtest/gtest.h>
#include <mivo/value.h>

#include <cstring>
#include <limits>

namespace {

TEST(MIVOValue, CopiesNumbers) {
  const MIVOValue number(-5);
  const MIVOValue number_copy(number);
  EXPECT_TRUE(number_copy.IsInt());
  EXPECT_EQ(number_copy.GetInt(), -5);
  const MIVOValue truth(true);
  const MIVOValue truth_copy(truth);
  EXPECT_TRUE(truth_copy.IsBool());
  EXPECT_TRUE(truth_copy.GetBool());
  const MIVOValue real(std::numeric_limits<double>::denorm_min());
  const MIVOValue real_copy(real);
  EXPECT_TRUE(real_copy.IsDouble());
  EXPECT_EQ(real_copy.GetDouble(), std::numeric_limits<double>::denorm_min());
}

TEST(MIVOValue, CopiesTextsForGood) {
  for (const MIVOValue::Type type : {MIVOValue::String, MIVOValue::Stream}) {
    MIVOValue source("a\0bc", 4, type);
    const MIVOValue copy(source);
    EXPECT_NE(copy.data.text, source.data.text);
    source.clear();
    EXPECT_EQ(copy.type, type);
    long length = 0;
    EXPECT_EQ(std::memcmp(copy.GetStream(length), "a\0bc", 5), 0);
    EXPECT_EQ(length, 4);
  }
}

TEST(MIVOValue, TurnsIntoWhatItIsAssigned) {
  MIVOValue target(1);
  MIVOValue text("abc", 3, MIVOValue::String);
  target = text;
  text.clear();
  EXPECT_TRUE(target.IsString());
  EXPECT_STREQ(target.GetString(), "abc");
  target = MIVOValue(9);
  EXPECT_TRUE(target.IsInt());
  EXPECT_EQ(target.GetInt(), 9);
  target = MIVOValue(true);
  EXPECT_TRUE(target.IsBool());
  EXPECT_TRUE(target.GetBool());
  target = MIVOValue(2.5);
  EXPECT_TRUE(target.IsDouble());
  EXPECT_EQ(target.GetDouble(), 2.5);
}

TEST(MIVOValue, DropsItsElementsWhenAssigned) {
  MIVOValue list(MIVOValue::List);
  list.AddListString("abc", 3);
  list = MIVOValue(1);
  EXPECT_TRUE(list.list.empty());
  MIVOValue map(MIVOValue::ListMap);
  map.AddListMapString("k", "abc", 3);
  map = MIVOValue(1);
  EXPECT_TRUE(map.listMap.empty());
}

TEST(MIVOValue, IgnoresAssignmentToItself) {
  MIVOValue text("abc", 3, MIVOValue::String);
  const MIVOValue& same_text = text;
  text = same_text;
  EXPECT_STREQ(text.GetString(), "abc");
  MIVOValue list(MIVOValue::List);
  list.AddListInt(4);
  const MIVOValue& same_list = list;
  list = same_list;
  ASSERT_EQ(list.list.size(), 1u);
  EXPECT_EQ(list.list[0]->GetInt(), 4);
}

TEST(MIVOValue, CanBeAssignedOneOfItsOwnElements) {
  MIVOValue value(MIVOValue::List);
  value.AddListInt(1);
  value.AddListString("abc", 3);
  value = *value.list[1];
  EXPECT_TRUE(value.IsString());
  EXPECT_STREQ(value.GetString(), "abc");
}

TEST(MIVOValue, SharesTheElementsOfACopiedList) {
  MIVOValue source(MIVOValue::List);
  source.AddListInt(1);
  source.AddListString("abc", 3);
  MIVOValue copy(source);
  EXPECT_TRUE(copy.IsList());
  EXPECT_EQ(copy.list, source.list);
  copy.list.clear();
}

TEST(MIVOValue, SharesTheValuesOfACopiedListMap) {
  MIVOValue source(MIVOValue::ListMap);
  source.AddListMapInt("a", 1);
  source.AddListMapString("b", "abc", 3);
  MIVOValue copy;
  copy = source;
  EXPECT_EQ(copy.type, MIVOValue::ListMap);
  EXPECT_EQ(copy.listMap, source.listMap);
  source.listMap.clear();
}

TEST(MIVOValue, TakesOnlyTheTypeOfAnUnknownKind) {
  MIVOValue target(77);
  const MIVOValue none;
  target = none;
  EXPECT_EQ(target.type, MIVOValue::None);
  EXPECT_EQ(target.GetInt(), 77);

  MIVOValue unknown(5);
  const int number = 9;
  std::memcpy(&unknown.type, &number, sizeof(number));
  MIVOValue other(78);
  other = unknown;
  EXPECT_EQ(std::memcmp(&other.type, &number, sizeof(number)), 0);
  EXPECT_EQ(other.GetInt(), 78);
}

}  // namespace
