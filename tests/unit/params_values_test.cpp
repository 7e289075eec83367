// The values of a decoded set are made when they are asked for. Nobody may notice.
#include <gtest/gtest.h>
#include <mivo/params.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/golden.h"
#include "values/params_bytes.h"

namespace {

using mivo::ParamsBytes;
using mivo_test::FromHex;

std::string TextOf(const MIVOValue* value) {
  if (value == nullptr) return "no value";
  long length = 0;
  const char* const bytes = value->GetStream(length);
  return std::string(bytes, static_cast<std::size_t>(length));
}

// Enough of each kind that several pages are needed.
constexpr int kRounds = 50;

void Fill(MIVOParams& params) {
  for (int i = 0; i < kRounds; ++i) {
    const std::string number = std::to_string(i);
    params.AddInt(i);
    params.AddDouble(i / 2.0);
    params.AddString(("text " + number).c_str());
    ListParams* const list = params.CreateListParams();
    list->AddInt(i);
    list->AddString(number.data(), static_cast<long>(number.size()));
    params.AddList(list);
    params.AddKeyValueInt(("int " + number).c_str(), i);
    params.AddKeyValueString(("key of a text " + number).c_str(), number.c_str());
  }
}

void ExpectFilled(const MIVOParams& params) {
  ASSERT_EQ(params.ParamsSize(), 4 * kRounds);
  ASSERT_EQ(params.MapSize(), 2 * kRounds);
  // Backwards, so that no page is met at its beginning.
  for (int i = kRounds - 1; i >= 0; --i) {
    const std::string number = std::to_string(i);
    ASSERT_TRUE(params.GetValue(4 * i)->IsInt());
    EXPECT_EQ(params.GetValue(4 * i)->GetInt(), i);
    EXPECT_EQ(params.GetValue(4 * i + 1)->GetDouble(), i / 2.0);
    EXPECT_EQ(TextOf(params.GetValue(4 * i + 2)), "text " + number);
    const std::vector<MIVOValue*>& list = *params.GetValue(4 * i + 3)->GetList();
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0]->GetInt(), i);
    EXPECT_EQ(TextOf(list[1]), number);
    EXPECT_EQ(params.GetMap(("int " + number).c_str())->GetInt(), i);
    EXPECT_EQ(TextOf(params.GetMap(("key of a text " + number).c_str())), number);
    EXPECT_EQ(params.GetMap(("no key " + number).c_str()), nullptr);
  }
}

std::string FilledEncoding() {
  MIVOParams params;
  Fill(params);
  return std::string(ParamsBytes::Of(params));
}

TEST(ParamsValues, AreTheSameObjectsWheneverTheyAreAskedFor) {
  MIVOParams params;
  Fill(params);
  ASSERT_TRUE(params.ToParams());
  std::vector<MIVOValue*> values;
  for (int index = 0; index < params.ParamsSize(); ++index)
    values.push_back(params.GetValue(index));
  MIVOValue* const keyed = params.GetMap("int 7");
  ExpectFilled(params);
  for (int index = 0; index < params.ParamsSize(); ++index)
    EXPECT_EQ(params.GetValue(index), values[static_cast<std::size_t>(index)]);
  EXPECT_EQ(params.GetMap("int 7"), keyed);
  // What is changed stays changed.
  *keyed = MIVOValue("changed", 7, MIVOValue::String);
  EXPECT_EQ(TextOf(params.GetMap("int 7")), "changed");
  EXPECT_EQ(params.GetMapPtr()->size(), static_cast<std::size_t>(2 * kRounds));
  for (const auto& entry : *params.GetMapPtr())
    EXPECT_EQ(params.GetMap(entry.first), entry.second);
}

TEST(ParamsValues, AreThoseOfTheTimeOfDecodingThoughTheBufferIsChanged) {
  // The pointer may have been asked for before and be used after.
  MIVOParams early;
  std::string* const buffer = early.GetParamas();
  Fill(early);
  ASSERT_TRUE(early.ToParams());
  buffer->assign(buffer->size(), '\xEE');
  ExpectFilled(early);
  buffer->clear();
  buffer->shrink_to_fit();
  ExpectFilled(early);

  MIVOParams late;
  Fill(late);
  ASSERT_TRUE(late.ToParams());
  late.GetParamas()->assign("something else");
  EXPECT_EQ(late.Size(), 14);
  ExpectFilled(late);
  EXPECT_FALSE(late.ToParams());
  EXPECT_EQ(late.ParamsSize(), 0);
}

TEST(ParamsValues, AreThoseOfTheTimeOfDecodingThoughTheBufferGrows) {
  MIVOParams params;
  Fill(params);
  ASSERT_TRUE(params.ToParams());
  const MIVOValue* const first = params.GetValue(0);
  const std::string before(ParamsBytes::Of(params));
  for (int i = 0; i < 10000; ++i)
    params.AddInt(i);
  ExpectFilled(params);
  EXPECT_EQ(params.GetValue(0), first);
  EXPECT_EQ(ParamsBytes::Of(params).substr(0, before.size()), before);
  EXPECT_EQ(params.Size(), static_cast<int>(before.size()) + 90000);
  ASSERT_TRUE(params.ToParams());
  EXPECT_EQ(params.ParamsSize(), 4 * kRounds + 10000);
}

TEST(ParamsValues, AreThoseOfTheTimeOfDecodingThoughTheEncodingIsTaken) {
  MIVOParams params;
  Fill(params);
  ASSERT_TRUE(params.ToParams());
  std::string taken = ParamsBytes::Take(params);
  EXPECT_EQ(taken, FilledEncoding());
  EXPECT_EQ(params.Size(), 0);
  taken.assign(taken.size(), '\xEE');
  ExpectFilled(params);
  // The set goes on like a new one.
  params.AddInt(7);
  EXPECT_EQ(ParamsBytes::Of(params), FromHex("00 07 00 00 00 05 00 00 00"));
}

TEST(ParamsValues, OfAnOwnedEncodingNeedNoCopyOfIt) {
  std::string bytes = FilledEncoding();
  const char* const where = bytes.data();
  MIVOParams params;
  params.AddInt(1);
  ASSERT_TRUE(ParamsBytes::Decode(params, std::move(bytes)));
  EXPECT_EQ(params.GetParamasPtr(), where);
  ExpectFilled(params);
  EXPECT_EQ(ParamsBytes::Take(params).data(), where);
}

TEST(ParamsValues, OfABorrowedEncodingNeedNoCopyOfIt) {
  const std::string bytes = FilledEncoding();
  MIVOParams params;
  ASSERT_TRUE(ParamsBytes::DecodeBorrowed(params, bytes));
  EXPECT_EQ(params.GetParamasPtr(), bytes.data());
  EXPECT_EQ(params.Size(), static_cast<int>(bytes.size()));
  ExpectFilled(params);
  params.AddInt(7);
  EXPECT_NE(params.GetParamasPtr(), bytes.data());
  EXPECT_EQ(ParamsBytes::Of(params).substr(0, bytes.size()), bytes);
  EXPECT_EQ(params.Size(), static_cast<int>(bytes.size()) + 9);
  ExpectFilled(params);

  MIVOParams asked;
  ASSERT_TRUE(ParamsBytes::DecodeBorrowed(asked, bytes));
  EXPECT_EQ(*asked.GetParamas(), bytes);
  asked.GetParamas()->assign("x");
  ExpectFilled(asked);
  asked.Clear();
  EXPECT_EQ(asked.Size(), 0);
  EXPECT_EQ(asked.ParamsSize(), 0);
}

TEST(ParamsValues, OfACopyNeedNoBorrowedBytes) {
  auto bytes = std::make_unique<std::string>(FilledEncoding());
  auto params = std::make_unique<MIVOParams>();
  ASSERT_TRUE(ParamsBytes::DecodeBorrowed(*params, *bytes));
  const MIVOValue* const first = params->GetValue(0);
  MIVOParams copy(*params);
  params.reset();
  bytes->assign(bytes->size(), '\xEE');
  bytes.reset();
  EXPECT_EQ(copy.GetValue(0), first);
  ExpectFilled(copy);
  ASSERT_TRUE(copy.ToParams());
  ExpectFilled(copy);
}

TEST(ParamsValues, AreNoneOfBorrowedBytesThatAreNone) {
  MIVOParams params;
  params.AddInt(1);
  ASSERT_TRUE(params.ToParams());
  EXPECT_TRUE(ParamsBytes::DecodeBorrowed(params, std::string_view()));
  EXPECT_EQ(params.Size(), 0);
  EXPECT_EQ(params.ParamsSize(), 0);
}

// Its holder is to find the bytes there.
TEST(ParamsValues, AreCopiedFromBorrowedBytesWhereTheBufferIsShown) {
  std::string bytes = FilledEncoding();
  MIVOParams params;
  const std::string* const buffer = params.GetParamas();
  ASSERT_TRUE(ParamsBytes::DecodeBorrowed(params, bytes));
  EXPECT_EQ(*buffer, bytes);
  bytes.assign(bytes.size(), '\xEE');
  ExpectFilled(params);
  EXPECT_EQ(ParamsBytes::Take(params), FilledEncoding());
  EXPECT_TRUE(buffer->empty());
}

// What is added may be the set's own bytes, which move as the buffer grows.
TEST(ParamsValues, OfASetsOwnBytesAreWhatTheyWere) {
  MIVOParams params;
  for (int round = 0; round < 14; ++round) {
    const std::string before(ParamsBytes::Of(params));
    const std::string key = "k" + std::to_string(round);
    params.AddStream(params.GetParamasPtr(), params.GetParamasSize());
    params.AddKeyValueStream(key.c_str(), params.GetParamasPtr(), static_cast<long>(before.size()));
    ASSERT_TRUE(params.ToParams());
    ASSERT_EQ(TextOf(params.GetValue(round)), before);
    ASSERT_EQ(TextOf(params.GetMap(key.c_str())), before);
  }
}

// As a server's notice may be read by whoever gets it.
TEST(ParamsValues, CanBeReadAndCopiedByManyThreadsAtOnce) {
  for (int round = 0; round < 20; ++round) {
    const std::string bytes = FilledEncoding();
    MIVOParams params;
    if (round % 2 == 0) {
      Fill(params);
      params.ToParams();
    } else {
      ParamsBytes::DecodeBorrowed(params, bytes);
    }
    std::atomic<MIVOValue*> text{nullptr};
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number) {
      threads.emplace_back([&params, &text, number] {
        if (number == 3) {
          const MIVOParams copy(params);
          ExpectFilled(copy);
        } else {
          ExpectFilled(params);
        }
        MIVOValue* const value = params.GetValue(2);
        MIVOValue* former = nullptr;
        EXPECT_TRUE(text.compare_exchange_strong(former, value) || former == value);
      });
    }
    for (std::thread& thread : threads)
      thread.join();
  }
}

TEST(ParamsValues, AreWhatStandsBeforeAFault) {
  const std::string bytes = FilledEncoding();
  // The value of a record whose stamp is cut counts.
  MIVOParams params;
  EXPECT_FALSE(params.Parser(bytes.data(), 5));
  ASSERT_EQ(params.ParamsSize(), 1);
  EXPECT_EQ(params.GetValue(0)->GetInt(), 0);
  // Its last byte may be cut as well, and reads as 0.
  MIVOParams cut;
  EXPECT_FALSE(cut.Parser("\x00\x07\x01\x02", 4));
  ASSERT_EQ(cut.ParamsSize(), 1);
  EXPECT_EQ(cut.GetValue(0)->GetInt(), 0x020107);
  // What is appended afterwards is not part of what was decoded.
  cut.AddInt(-1);
  EXPECT_EQ(cut.GetValue(0)->GetInt(), 0x020107);
}

TEST(ParamsValues, OfManyKeysAreFoundAndReplaced) {
  MIVOParams params;
  for (const char* value : {"first", "second"}) {
    for (int i = 0; i < 5000; ++i)
      params.AddKeyValueString(std::to_string(i * i).c_str(), (value + std::to_string(i)).c_str());
  }
  params.AddKeyValueStream("long", std::string(9000, 'x').data(), 9000);
  ASSERT_TRUE(params.ToParams());
  EXPECT_EQ(params.MapSize(), 5001);
  for (int i = 0; i < 5000; ++i)
    ASSERT_EQ(TextOf(params.GetMap(std::to_string(i * i).c_str())), "second" + std::to_string(i));
  EXPECT_EQ(TextOf(params.GetMap("long")), std::string(9000, 'x'));
  EXPECT_EQ(params.GetMap("2"), nullptr);
  EXPECT_EQ(params.GetMap(std::string(100, '1').c_str()), nullptr);
}

}  // namespace
