#include <gtest/gtest.h>
#include <mivo/value.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>
#include <type_traits>

namespace {

int TypeTestsTrue(const MIVOValue& value) {
  return value.IsBool() + value.IsInt() + value.IsDouble() + value.IsString() + value.IsStream() + value.IsList();
}

template <typename Number>
std::string BytesOf(Number number) {
  return std::string(reinterpret_cast<const char*>(&number), sizeof(number));
}

TEST(MIVOValue, NumbersItsTypesFromNoneToListMap) {
  EXPECT_EQ(static_cast<int>(MIVOValue::None), 0);
  EXPECT_EQ(static_cast<int>(MIVOValue::Bool), 1);
  EXPECT_EQ(static_cast<int>(MIVOValue::Int), 2);
  EXPECT_EQ(static_cast<int>(MIVOValue::Double), 3);
  EXPECT_EQ(static_cast<int>(MIVOValue::String), 4);
  EXPECT_EQ(static_cast<int>(MIVOValue::Stream), 5);
  EXPECT_EQ(static_cast<int>(MIVOValue::List), 6);
  EXPECT_EQ(static_cast<int>(MIVOValue::ListMap), 7);
  EXPECT_EQ(sizeof(MIVOValue::Type), 4u);
}

TEST(MIVOValue, LaysItsFieldsOutInOrderWithoutAVtable) {
  EXPECT_FALSE(std::is_polymorphic<MIVOValue>::value);
  const MIVOValue value;
  const auto* const start = reinterpret_cast<const char*>(&value);
  const auto offset = [start](const auto& field) { return reinterpret_cast<const char*>(&field) - start; };
  EXPECT_EQ(offset(value.data), 0);
  EXPECT_EQ(sizeof(value.data), 8u);
  EXPECT_EQ(offset(value.type), 8);
  EXPECT_EQ(offset(value.list), 16);
  EXPECT_EQ(offset(value.listMap), 40);
}

TEST(MIVOValue, IsNoneAndZeroByDefault) {
  const MIVOValue value;
  EXPECT_EQ(value.type, MIVOValue::None);
  EXPECT_EQ(TypeTestsTrue(value), 0);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(&value.data), sizeof(value.data)), std::string(8, '\0'));
  EXPECT_TRUE(value.list.empty());
  EXPECT_TRUE(value.listMap.empty());
}

TEST(MIVOValue, StartsAnEmptyContainerOfAGivenType) {
  for (const MIVOValue::Type type : {MIVOValue::List, MIVOValue::ListMap}) {
    const MIVOValue value(type);
    EXPECT_EQ(value.type, type);
    EXPECT_TRUE(value.list.empty());
    EXPECT_TRUE(value.listMap.empty());
    EXPECT_EQ(value.data.text, nullptr);
  }
}

TEST(MIVOValue, HoldsAnyInt) {
  for (const int number : {INT_MIN, -1, 0, 1, INT_MAX}) {
    const MIVOValue value(number);
    EXPECT_TRUE(value.IsInt());
    EXPECT_EQ(value.GetInt(), number);
    EXPECT_EQ(value.data.integer, number);
  }
}

TEST(MIVOValue, HoldsBothBools) {
  for (const bool flag : {false, true}) {
    const MIVOValue value(flag);
    EXPECT_TRUE(value.IsBool());
    EXPECT_EQ(value.GetBool(), flag);
    EXPECT_EQ(value.data.boolean, flag);
  }
}

TEST(MIVOValue, HoldsADoubleToTheBit) {
  using Limits = std::numeric_limits<double>;
  for (const double number : {0.0, -0.0, 1.5, Limits::infinity(), -Limits::infinity(), Limits::quiet_NaN(),
                              -Limits::quiet_NaN(), Limits::denorm_min(), Limits::max()}) {
    const MIVOValue value(number);
    EXPECT_TRUE(value.IsDouble());
    EXPECT_EQ(BytesOf(value.GetDouble()), BytesOf(number));
    EXPECT_EQ(BytesOf(value.data.real), BytesOf(number));
  }
}

TEST(MIVOValue, CopiesAStringAndEndsItWithNul) {
  char text[] = {'a', 'b', 'c'};
  const MIVOValue value(text, 3, MIVOValue::String);
  text[0] = 'x';
  EXPECT_TRUE(value.IsString());
  EXPECT_STREQ(value.GetString(), "abc");
  EXPECT_EQ(*value.data.text, "abc");
}

TEST(MIVOValue, TakesACountOfBytesNotACString) {
  EXPECT_STREQ(MIVOValue("abcdef", 3, MIVOValue::String).GetString(), "abc");
}

TEST(MIVOValue, KeepsNulBytesOfAStream) {
  const MIVOValue value("ab\0cd", 5, MIVOValue::Stream);
  EXPECT_TRUE(value.IsStream());
  long length = 0;
  const char* const bytes = value.GetStream(length);
  ASSERT_EQ(length, 5);
  EXPECT_EQ(std::string(bytes, 5), std::string("ab\0cd", 5));
  EXPECT_EQ(bytes[5], '\0');
}

TEST(MIVOValue, GivesAStringAsAStreamToo) {
  long length = 0;
  const MIVOValue value("abc", 3, MIVOValue::String);
  EXPECT_EQ(std::string(value.GetStream(length)), "abc");
  EXPECT_EQ(length, 3);
}

TEST(MIVOValue, TakesNoBytesFromANullPointer) {
  for (const MIVOValue::Type type : {MIVOValue::String, MIVOValue::Stream}) {
    const MIVOValue value(nullptr, 0, type);
    EXPECT_EQ(value.type, type);
    EXPECT_STREQ(value.GetString(), "");
    long length = -1;
    value.GetStream(length);
    EXPECT_EQ(length, 0);
  }
}

TEST(MIVOValue, RefusesANullPointerThatShouldHoldBytes) {
  for (const long length : {1L, 1000L, -1L}) {
    try {
      const MIVOValue value(nullptr, length, MIVOValue::String);
      FAIL() << "no exception for length " << length;
    } catch (const std::logic_error& error) {
      EXPECT_STREQ(error.what(), "basic_string::_S_construct null not valid");
    }
  }
}

TEST(MIVOValue, TakesANegativeLengthForNone) {
  EXPECT_STREQ(MIVOValue("abc", -1, MIVOValue::String).GetString(), "");
  EXPECT_STREQ(MIVOValue("abc", LONG_MIN, MIVOValue::Stream).GetString(), "");
}

TEST(MIVOValue, HasNoTextWhereNoneWasGiven) {
  MIVOValue value(MIVOValue::String);
  long length = -1;
  EXPECT_EQ(value.GetString(), nullptr);
  EXPECT_EQ(value.GetStream(length), nullptr);
  EXPECT_EQ(length, 0);
  const MIVOValue copy(value);
  EXPECT_TRUE(copy.IsString());
  EXPECT_EQ(copy.GetString(), nullptr);
}

TEST(MIVOValue, AnswersExactlyOneTypeTest) {
  EXPECT_TRUE(MIVOValue(true).IsBool());
  EXPECT_TRUE(MIVOValue(1).IsInt());
  EXPECT_TRUE(MIVOValue(1.0).IsDouble());
  EXPECT_TRUE(MIVOValue("", 0, MIVOValue::String).IsString());
  EXPECT_TRUE(MIVOValue("", 0, MIVOValue::Stream).IsStream());
  EXPECT_TRUE(MIVOValue(MIVOValue::List).IsList());
  EXPECT_EQ(TypeTestsTrue(MIVOValue(true)), 1);
  EXPECT_EQ(TypeTestsTrue(MIVOValue(1)), 1);
  EXPECT_EQ(TypeTestsTrue(MIVOValue(1.0)), 1);
  EXPECT_EQ(TypeTestsTrue(MIVOValue("", 0, MIVOValue::String)), 1);
  EXPECT_EQ(TypeTestsTrue(MIVOValue("", 0, MIVOValue::Stream)), 1);
  EXPECT_EQ(TypeTestsTrue(MIVOValue(MIVOValue::List)), 1);
}

TEST(MIVOValue, AnswersNoTypeTestAsAListMap) {
  EXPECT_EQ(TypeTestsTrue(MIVOValue(MIVOValue::ListMap)), 0);
}

TEST(MIVOValue, ReadsItsDataAsAnyNumberWithoutAskingForTheType) {
  EXPECT_EQ(MIVOValue(true).GetInt(), 1);
  EXPECT_EQ(MIVOValue(0x500).GetBool(), false);
  EXPECT_EQ(MIVOValue(5).GetBool(), true);
  EXPECT_EQ(MIVOValue(1.5).GetInt(), 0);
  EXPECT_EQ(MIVOValue(0).GetDouble(), 0.0);
  const MIVOValue text("abc", 3, MIVOValue::String);
  EXPECT_EQ(text.GetInt(), static_cast<int>(reinterpret_cast<std::intptr_t>(text.data.text)));
  EXPECT_NO_THROW(text.GetDouble());
}

TEST(MIVOValue, ShowsItsListField) {
  MIVOValue value(MIVOValue::List);
  EXPECT_EQ(value.GetList(), &value.list);
  MIVOValue number(3);
  EXPECT_EQ(number.GetList(), &number.list);
}

}  // namespace
