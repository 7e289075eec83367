#include "values/encoder.h"

#include <gtest/gtest.h>
#include <mivo/params.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "support/golden.h"

// Reaches the elements of a list builder, which has no public way to hold a list. An explicit instantiation may name a
// private member.
namespace private_member {
using Elements = std::vector<MIVOValue*> ListParams::*;
Elements ListParamsElements();
template <Elements member>
struct Key {
  friend Elements ListParamsElements() { return member; }
};
template struct Key<&ListParams::elements_>;
}  // namespace private_member

namespace {

using mivo_test::FromHex;
using mivo_test::ToHex;

std::uint32_t U32At(const std::string& bytes, std::size_t offset) {
  std::uint32_t value = 0;
  for (std::size_t i = 4; i-- > 0;)
    value = value << 8 | static_cast<unsigned char>(bytes.at(offset + i));
  return value;
}

TEST(Encoder, PredictsEveryRecordsSize) {
  std::string out;
  const auto grown_by = [&out](const auto& append) {
    const std::size_t before = out.size();
    append();
    return out.size() - before;
  };
  EXPECT_EQ(grown_by([&] { mivo::AppendInt(out, 1); }), mivo::kIntRecordSize);
  EXPECT_EQ(grown_by([&] { mivo::AppendBool(out, true); }), mivo::kBoolRecordSize);
  EXPECT_EQ(grown_by([&] { mivo::AppendDouble(out, 1); }), mivo::kDoubleRecordSize);
  EXPECT_EQ(grown_by([&] { mivo::AppendListHeader(out, 1); }), mivo::kListHeaderSize);
  for (const std::size_t length : {0u, 1u, 300u}) {
    const std::string text(length, 'x');
    EXPECT_EQ(grown_by([&] { mivo::AppendString(out, text); }), mivo::StringRecordSize(length));
    EXPECT_EQ(grown_by([&] { mivo::AppendStream(out, text); }), mivo::StreamRecordSize(length));
    EXPECT_EQ(grown_by([&] { mivo::AppendKey(out, text); }), mivo::KeySize(length));
    const std::size_t key = mivo::KeySize(length);
    EXPECT_EQ(grown_by([&] { mivo::AppendKeyValueInt(out, text, 1); }), key + mivo::kIntRecordSize);
    EXPECT_EQ(grown_by([&] { mivo::AppendKeyValueBool(out, text, true); }), key + mivo::kBoolRecordSize);
    EXPECT_EQ(grown_by([&] { mivo::AppendKeyValueDouble(out, text, 1); }), key + mivo::kDoubleRecordSize);
    EXPECT_EQ(grown_by([&] { mivo::AppendKeyValueString(out, text, "ab"); }), key + mivo::StringRecordSize(2));
    EXPECT_EQ(grown_by([&] { mivo::AppendKeyValueStream(out, text, "ab"); }), key + mivo::StreamRecordSize(2));
  }
  static_assert(mivo::kIntRecordSize == 9 && mivo::kBoolRecordSize == 6 && mivo::kDoubleRecordSize == 13, "");
  static_assert(mivo::StringRecordSize(2) == 11 && mivo::StreamRecordSize(2) == 11 && mivo::KeySize(1) == 11, "");
  static_assert(mivo::kListHeaderSize == 5, "");
}

TEST(Encoder, StampsEveryScalarWithTheStampsOwnOffset) {
  std::string out;
  const auto expect_stamp_at_end = [&out] { EXPECT_EQ(U32At(out, out.size() - 4), out.size() - 4); };
  for (int round = 0; round < 100; ++round) {
    mivo::AppendInt(out, round);
    expect_stamp_at_end();
    mivo::AppendBool(out, true);
    expect_stamp_at_end();
    mivo::AppendDouble(out, round);
    expect_stamp_at_end();
    mivo::AppendString(out, std::string(static_cast<std::size_t>(round), 's'));
    expect_stamp_at_end();
    mivo::AppendStream(out, std::string(static_cast<std::size_t>(round), 't'));
    expect_stamp_at_end();
    mivo::AppendKey(out, "key");
    expect_stamp_at_end();
  }
}

TEST(Encoder, WritesLittleEndianAtAnyAlignment) {
  std::string out;
  mivo::AppendBool(out, true);
  mivo::AppendInt(out, 0x01020304);
  EXPECT_EQ(ToHex(out.substr(6)), "00 04 03 02 01 0B 00 00 00");
  mivo::AppendDouble(out, -std::ldexp(1.0, 100));
  EXPECT_EQ(ToHex(out.substr(15)), "02 00 00 00 00 00 00 30 C6 18 00 00 00");
  mivo::AppendInt(out, std::numeric_limits<std::int32_t>::min());
  EXPECT_EQ(ToHex(out.substr(28)), "00 00 00 00 80 21 00 00 00");
}

TEST(Encoder, WritesAPairAsAKeyAndAScalar) {
  std::string pair;
  mivo::AppendKeyValueStream(pair, "key", "value");
  std::string halves;
  mivo::AppendKey(halves, "key");
  mivo::AppendStream(halves, "value");
  EXPECT_EQ(ToHex(pair), ToHex(halves));
  EXPECT_EQ(ToHex(pair), "05 03 03 00 00 00 6B 65 79 09 00 00 00 04 05 00 00 00 76 61 6C 75 65 17 00 00 00");
}

TEST(Encoder, KeepsNulBytesInsideKeysAndTexts) {
  std::string out;
  mivo::AppendKeyValueString(out, std::string_view("a\0b", 3), std::string_view("\0", 1));
  EXPECT_EQ(ToHex(out), "05 03 03 00 00 00 61 00 62 09 00 00 00 03 01 00 00 00 00 13 00 00 00");
}

// Every amount of spare room, so that the text is moved away under the encoder in one case and not in the next.
TEST(Encoder, AppendsTextsThatViewTheEncodingItself) {
  for (std::size_t spare = 0; spare < 80; ++spare) {
    std::string out;
    mivo::AppendString(out, "a text that is not held in the string object");
    const std::string text = out.substr(5, 20);
    const std::string key = out.substr(25, 5);
    out.shrink_to_fit();
    out.reserve(out.size() + spare);
    std::string expected = out;
    mivo::AppendKeyValueString(expected, key, text);
    mivo::AppendKeyValueString(out, std::string_view(out).substr(25, 5), std::string_view(out).substr(5, 20));
    ASSERT_EQ(ToHex(out), ToHex(expected)) << spare;

    out.resize(53);
    out.shrink_to_fit();
    out.reserve(out.size() + spare);
    expected = out;
    mivo::AppendStream(expected, text);
    mivo::AppendStream(out, std::string_view(out).substr(5, 20));
    ASSERT_EQ(ToHex(out), ToHex(expected)) << spare;
  }
}

TEST(Encoder, AppendsATextThatViewsAShortEncoding) {
  std::string out;
  mivo::AppendInt(out, 0x41424344);
  mivo::AppendString(out, std::string_view(out).substr(1, 4));
  EXPECT_EQ(ToHex(out.substr(9)), "03 04 00 00 00 44 43 42 41 12 00 00 00");
}

TEST(Encoder, ReservesOnceForManyRecords) {
  std::string out = "before";
  mivo::ReserveMore(out, 1000 * mivo::kIntRecordSize);
  const char* const where = out.data();
  for (int i = 0; i < 1000; ++i)
    mivo::AppendInt(out, i);
  EXPECT_EQ(out.data(), where);
  EXPECT_EQ(out.substr(0, 6), "before");
}

TEST(Encoder, GrowsGeometricallyHoweverManyRecordsAreAppended) {
  constexpr int kRecords = 1000000;
  MIVOParams params;
  int moves = 0;
  const char* where = params.GetParamasPtr();
  for (int i = 0; i < kRecords; ++i) {
    params.AddInt(i);
    if (params.GetParamasPtr() != where) ++moves;
    ASSERT_LE(moves, 64) << "after " << i << " records";
    where = params.GetParamasPtr();
  }
  EXPECT_EQ(params.Size(), 9 * kRecords);

  std::string out;
  moves = 0;
  where = out.data();
  for (int i = 0; i < 100000; ++i) {
    mivo::ReserveMore(out, 3);
    if (out.data() != where) ++moves;
    ASSERT_LE(moves, 64) << "after " << i << " steps";
    where = out.data();
    out.append("abc");
  }
}

TEST(Encoder, CountsANestedListAndDoesNotWriteIt) {
  MIVOParams params;
  params.AddBool(true);
  ListParams* const list = params.CreateListParams();
  list->AddInt(1);
  for (const MIVOValue::Type type : {MIVOValue::List, MIVOValue::ListMap, MIVOValue::None}) {
    (list->*private_member::ListParamsElements()).push_back(new MIVOValue(type));
  }
  list->AddInt(2);
  params.AddList(list);
  EXPECT_EQ(ToHex(*params.GetParamas()),
            ToHex(FromHex("01 31 02 00 00 00"
                          "06 05 00 00 00  00 01 00 00 00 10 00 00 00  00 02 00 00 00 19 00 00 00")));
  // Three elements are missing: what follows at the top level takes their place.
  params.AddString("x");
  params.AddString("y");
  params.AddString("z");
  params.AddString("top");
  ASSERT_TRUE(params.ToParams());
  ASSERT_EQ(params.ParamsSize(), 3);
  EXPECT_EQ(params.GetValue(1)->GetList()->size(), 5u);
  EXPECT_STREQ(params.GetValue(1)->GetList()->at(4)->GetString(), "z");
  EXPECT_STREQ(params.GetValue(2)->GetString(), "top");
}

TEST(Encoder, CutsAListStringAtItsNulAndKeepsAWholeListStream) {
  MIVOParams params;
  ListParams* const list = params.CreateListParams();
  list->AddString("a\0b", 3);
  list->AddStream("a\0b", 3);
  params.AddList(list);
  EXPECT_EQ(ToHex(*params.GetParamas()),
            "06 02 00 00 00 03 01 00 00 00 61 0B 00 00 00 04 03 00 00 00 61 00 62 17 00 00 00");
}

}  // namespace
