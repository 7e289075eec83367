#include <gtest/gtest.h>
#include <mivo/params.h>
#include <mivo/value.h>

#include <string>
#include <vector>

namespace {

std::string TextOf(const MIVOValue& value) {
  long length = 0;
  const char* const bytes = value.GetStream(length);
  return std::string(bytes, static_cast<std::size_t>(length));
}

void FillList(MIVOValue& value) {
  value.AddListBool(true);
  value.AddListInt(-2);
  value.AddListDouble(0.5);
  value.AddListString("abcdef", 3);
  value.AddListStream("a\0b", 3);
}

void FillListMap(MIVOValue& value) {
  value.AddListMapBool("bool", true);
  value.AddListMapInt("int", -2);
  value.AddListMapDouble("double", 0.5);
  value.AddListMapString("string", "abcdef", 3);
  value.AddListMapStream("stream", "a\0b", 3);
}

TEST(MIVOValue, AppendsListElementsInOrder) {
  MIVOValue value(MIVOValue::List);
  FillList(value);
  ASSERT_EQ(value.list.size(), 5u);
  EXPECT_TRUE(value.list[0]->IsBool());
  EXPECT_TRUE(value.list[0]->GetBool());
  EXPECT_TRUE(value.list[1]->IsInt());
  EXPECT_EQ(value.list[1]->GetInt(), -2);
  EXPECT_TRUE(value.list[2]->IsDouble());
  EXPECT_EQ(value.list[2]->GetDouble(), 0.5);
  EXPECT_TRUE(value.list[3]->IsString());
  EXPECT_EQ(TextOf(*value.list[3]), "abc");
  EXPECT_TRUE(value.list[4]->IsStream());
  EXPECT_EQ(TextOf(*value.list[4]), std::string("a\0b", 3));
}

TEST(MIVOValue, StoresListMapEntriesUnderTheirKeys) {
  MIVOValue value(MIVOValue::ListMap);
  FillListMap(value);
  ASSERT_EQ(value.listMap.size(), 5u);
  EXPECT_TRUE(value.listMap.at("bool")->IsBool());
  EXPECT_TRUE(value.listMap.at("bool")->GetBool());
  EXPECT_TRUE(value.listMap.at("int")->IsInt());
  EXPECT_EQ(value.listMap.at("int")->GetInt(), -2);
  EXPECT_TRUE(value.listMap.at("double")->IsDouble());
  EXPECT_EQ(value.listMap.at("double")->GetDouble(), 0.5);
  EXPECT_TRUE(value.listMap.at("string")->IsString());
  EXPECT_EQ(TextOf(*value.listMap.at("string")), "abc");
  EXPECT_TRUE(value.listMap.at("stream")->IsStream());
  EXPECT_EQ(TextOf(*value.listMap.at("stream")), std::string("a\0b", 3));
}

TEST(MIVOValue, KeepsItsTypeWhileElementsAreAdded) {
  MIVOValue value;
  FillList(value);
  FillListMap(value);
  EXPECT_EQ(value.type, MIVOValue::None);
  EXPECT_EQ(value.list.size(), 5u);
  EXPECT_EQ(value.listMap.size(), 5u);
  // Only a value that says it is a container destroys what it contains.
  value.type = MIVOValue::List;
  value.clear();
  value.type = MIVOValue::ListMap;
}

TEST(MIVOValue, OrdersListMapEntriesByKey) {
  MIVOValue value(MIVOValue::ListMap);
  for (const char* key : {"b", "a", "aa"})
    value.AddListMapInt(key, 0);
  std::vector<std::string> keys;
  for (const auto& entry : value.listMap)
    keys.push_back(entry.first);
  EXPECT_EQ(keys, (std::vector<std::string>{"a", "aa", "b"}));
}

TEST(MIVOValue, LetsTheNewestListMapEntryWinAndAbandonsTheEarlier) {
  MIVOValue value(MIVOValue::ListMap);
  value.AddListMapInt("k", 1);
  MIVOValue* const abandoned = value.listMap.at("k");
  value.AddListMapInt("k", 2);
  ASSERT_EQ(value.listMap.size(), 1u);
  EXPECT_EQ(value.listMap.at("k")->GetInt(), 2);
  EXPECT_EQ(abandoned->GetInt(), 1);
  delete abandoned;
}

TEST(MIVOValue, LeavesAReplacedEntryToTheCopyThatStillShowsIt) {
  MIVOValue original(MIVOValue::ListMap);
  original.AddListMapInt("k", 1);
  MIVOValue copy(original);
  original.AddListMapString("k", "new", 3);
  EXPECT_EQ(copy.listMap.at("k")->GetInt(), 1);
  EXPECT_EQ(TextOf(*original.listMap.at("k")), "new");
}

TEST(MIVOValue, ClearsAText) {
  for (const MIVOValue::Type type : {MIVOValue::String, MIVOValue::Stream}) {
    MIVOValue value("abc", 3, type);
    value.clear();
    EXPECT_EQ(value.type, MIVOValue::None);
    EXPECT_FALSE(value.IsString());
    EXPECT_FALSE(value.IsStream());
  }
}

TEST(MIVOValue, ClearsAListAndKeepsItsStorage) {
  MIVOValue value(MIVOValue::List);
  FillList(value);
  const std::size_t capacity = value.list.capacity();
  value.clear();
  EXPECT_FALSE(value.IsList());
  EXPECT_EQ(value.type, MIVOValue::None);
  EXPECT_EQ(value.list.size(), 0u);
  EXPECT_EQ(value.list.capacity(), capacity);
}

TEST(MIVOValue, ClearsAListMap) {
  MIVOValue value(MIVOValue::ListMap);
  FillListMap(value);
  value.clear();
  EXPECT_EQ(value.type, MIVOValue::None);
  EXPECT_TRUE(value.listMap.empty());
}

TEST(MIVOValue, ClearsANumberTwiceWithoutHarm) {
  MIVOValue none;
  none.clear();
  EXPECT_EQ(none.type, MIVOValue::None);
  MIVOValue number(7);
  number.clear();
  number.clear();
  EXPECT_EQ(number.type, MIVOValue::None);
  EXPECT_EQ(number.GetInt(), 7);
}

TEST(MIVOValue, DestroysNestedContainers) {
  MIVOValue outer(MIVOValue::List);
  auto* const inner = new MIVOValue(MIVOValue::List);
  FillList(*inner);
  auto* const inner_map = new MIVOValue(MIVOValue::ListMap);
  FillListMap(*inner_map);
  inner->list.push_back(inner_map);
  outer.list.push_back(inner);
  outer.AddListInt(1);
  EXPECT_EQ(outer.list.size(), 2u);
}

TEST(ListParams, EncodesItsElementsInOrder) {
  MIVOParams params;
  ListParams* const list = params.CreateListParams();
  list->AddBool(true);
  list->AddInt(-2);
  list->AddDouble(0.5);
  list->AddString("abcdef", 3);
  list->AddStream("a\0b", 3);
  params.AddList(list);
  ASSERT_TRUE(params.ToParams());
  ASSERT_EQ(params.ParamsSize(), 1);
  const std::vector<MIVOValue*>& elements = *params.GetValue(0)->GetList();
  ASSERT_EQ(elements.size(), 5u);
  EXPECT_TRUE(elements[0]->IsBool());
  EXPECT_TRUE(elements[0]->GetBool());
  EXPECT_TRUE(elements[1]->IsInt());
  EXPECT_EQ(elements[1]->GetInt(), -2);
  EXPECT_TRUE(elements[2]->IsDouble());
  EXPECT_EQ(elements[2]->GetDouble(), 0.5);
  EXPECT_TRUE(elements[3]->IsString());
  EXPECT_EQ(TextOf(*elements[3]), "abc");
  EXPECT_TRUE(elements[4]->IsStream());
  EXPECT_EQ(TextOf(*elements[4]), std::string("a\0b", 3));
}

TEST(ListParams, DestroysItsElementsWhenNobodyTookIt) {
  ListParams list;
  list.AddString("a text longer than any small buffer holds", 41);
  list.AddStream("a stream longer than any small buffer holds", 43);
  list.AddInt(1);
}

TEST(ListParams, RefusesANullPointerThatShouldHoldBytes) {
  ListParams list;
  EXPECT_THROW(list.AddString(nullptr, 1), std::logic_error);
  EXPECT_THROW(list.AddStream(nullptr, 1), std::logic_error);
  list.AddString(nullptr, 0);
}

}  // namespace
