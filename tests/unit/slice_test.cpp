#include "largedata/slice.h"

#include <gtest/gtest.h>
#include <mivo/params.h>

#include <string>
#include <string_view>

#include "support/golden.h"
#include "unit/payload.h"

namespace mivo {
namespace {

using mivo_test::Golden;
using mivo_test::Payload;
using mivo_test::ToHex;

Slice Read(MIVOParams& params, const std::string& payload) {
  params.Parser(payload.data(), static_cast<int>(payload.size()));
  return ReadSlice(*params.GetParamas());
}

TEST(Slice, HasTheAgreedBytes) {
  MIVOParams params;
  WriteSlice({9, 100, "ABCDEFGHIJ"}, &params);
  EXPECT_EQ(ToHex(*params.GetParamas()), ToHex(Golden("slice")));
}

TEST(Slice, IsReadBack) {
  MIVOParams params;
  const Slice slice = Read(params, Golden("slice"));
  EXPECT_EQ(slice.key, 9);
  EXPECT_EQ(slice.total_size, 100);
  EXPECT_EQ(slice.bytes, "ABCDEFGHIJ");
}

TEST(Slice, CarriesAnyBytesAndNone) {
  const std::string_view bytes("a\0\xFF\n", 4);
  MIVOParams written;
  WriteSlice({-7, 4, bytes}, &written);
  MIVOParams params;
  EXPECT_EQ(Read(params, *written.GetParamas()).bytes, bytes);
  EXPECT_EQ(ReadSlice(*params.GetParamas()).key, -7);

  MIVOParams empty;
  WriteSlice({0, 0, {}}, &empty);
  EXPECT_EQ(Read(params, *empty.GetParamas()).bytes, "");
}

TEST(Slice, TakesWhatIsMissingForZeroOrNothing) {
  MIVOParams params;
  const Slice slice = Read(params, "");
  EXPECT_EQ(slice.key, 0);
  EXPECT_EQ(slice.total_size, 0);
  EXPECT_EQ(slice.bytes, "");
  EXPECT_EQ(Read(params, Payload().Int(5)).total_size, 5);
  EXPECT_EQ(ReadSlice(*params.GetParamas()).bytes, "");
}

TEST(Slice, TakesWhatIsOfAnotherTypeForZeroOrNothing) {
  MIVOParams params;
  const std::string wrong =
      Payload().KeyString("s_c_sw_threadid", "9").String("100").String("not a stream").KeyInt("s_c_largedata", 1);
  const Slice slice = Read(params, wrong);
  EXPECT_EQ(slice.key, 0);
  EXPECT_EQ(slice.total_size, 0);
  EXPECT_EQ(slice.bytes, "");
}

TEST(Slice, CountsAListAsOnePlace) {
  MIVOParams params;
  ListParams* const list = params.CreateListParams();
  list->AddInt(3);
  params.AddList(list);
  params.AddStream("in the second place", 6);
  params.AddStream("in the third", 3);
  EXPECT_EQ(ReadSlice(*params.GetParamas()).total_size, 0);
  EXPECT_EQ(ReadSlice(*params.GetParamas()).bytes, "in the");
}

TEST(Slice, GoesByTheLastRecordOfAKey) {
  EXPECT_EQ(ReadSlice(Payload().KeyInt("s_c_sw_threadid", 5).KeyInt("s_c_sw_threadid", 6).bytes()).key, 6);
  EXPECT_EQ(ReadSlice(Payload().KeyInt("s_c_sw_threadid", 5).KeyString("s_c_sw_threadid", "x").bytes()).key, 0);
}

TEST(Slice, KeepsWhatStandsBeforeAFault) {
  const std::string payload = Payload().KeyInt("s_c_sw_threadid", 5).Int(100).Stream("bytes").Raw("\x7F");
  EXPECT_EQ(ReadSlice(payload).key, 5);
  EXPECT_EQ(ReadSlice(payload).total_size, 100);
  EXPECT_EQ(ReadSlice(payload).bytes, "bytes");
}

TEST(Slice, PassesANegativeTotalOn) {
  MIVOParams params;
  EXPECT_EQ(Read(params, Payload().Int(-5).Stream("x")).total_size, -5);
}

}  // namespace
}  // namespace mivo
