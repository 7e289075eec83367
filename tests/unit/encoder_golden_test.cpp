#include <gtest/gtest.h>
#include <mivo/params.h>

#include <string>

#include "support/golden.h"

namespace {

using mivo_test::Golden;
using mivo_test::ToHex;

void FillInt(MIVOParams& params) {
  params.AddInt(7);
}

void FillIntThenBool(MIVOParams& params) {
  params.AddInt(7);
  params.AddBool(true);
}

void FillScalars(MIVOParams& params) {
  params.AddInt(-1);
  params.AddDouble(1.5);
  params.AddString("ab");
  params.AddStream("\x00\x01", 2);
}

void FillList(MIVOParams& params) {
  ListParams* const list = params.CreateListParams();
  list->AddBool(true);
  list->AddInt(2);
  list->AddDouble(0.5);
  list->AddString("x", 1);
  list->AddStream("y\0", 2);
  params.AddList(list);
}

void FillHandshakeRequest(MIVOParams& params) {
  MIVOParams data;
  data.AddKeyValueString("VERSION", "MIVO Version: 1.1.0.12");
  params.AddKeyValueString("s_c_sw_name", "s_c_version");
  params.AddKeyValueInt("s_c_sw_threadid", 1234);
  params.AddKeyValueStream("s_c_sw_data", data.GetParamasPtr(), data.GetParamasSize());
  params.AddKeyValueString("s_c_sw_semid", "0x5a10");
}

struct Case {
  const char* golden;
  void (*fill)(MIVOParams&);
};

const Case kCases[] = {
    {"int", FillInt},
    {"int_then_bool", FillIntThenBool},
    {"bool_false", [](MIVOParams& params) { params.AddBool(false); }},
    {"empty_string", [](MIVOParams& params) { params.AddString(""); }},
    {"scalars", FillScalars},
    {"pair_int", [](MIVOParams& params) { params.AddKeyValueInt("k", 1); }},
    {"pair_bool", [](MIVOParams& params) { params.AddKeyValueBool("k", true); }},
    {"pair_double", [](MIVOParams& params) { params.AddKeyValueDouble("k", -0.5); }},
    {"pair_string", [](MIVOParams& params) { params.AddKeyValueString("retval", "ok"); }},
    {"pair_stream", [](MIVOParams& params) { params.AddKeyValueStream("k", "a\0b", 3); }},
    {"list", FillList},
    {"empty_list", [](MIVOParams& params) { params.AddList(params.CreateListParams()); }},
    {"error_not_connected", [](MIVOParams& params) { params.AddKeyValueInt("errorCode", -1000); }},
    {"error_no_reply", [](MIVOParams& params) { params.AddKeyValueInt("errorCode", -1001); }},
    {"handshake_request", FillHandshakeRequest},
};

class EncoderGolden : public testing::TestWithParam<Case> {};

TEST_P(EncoderGolden, WritesExactlyTheseBytesAndReadsThemBack) {
  MIVOParams params;
  GetParam().fill(params);
  EXPECT_EQ(ToHex(*params.GetParamas()), ToHex(Golden(GetParam().golden)));
  EXPECT_TRUE(params.ToParams());
  EXPECT_GT(params.ParamsSize() + params.MapSize(), 0);
}

std::string NameOf(const testing::TestParamInfo<Case>& test) {
  return test.param.golden;
}

INSTANTIATE_TEST_SUITE_P(Wire, EncoderGolden, testing::ValuesIn(kCases), NameOf);

TEST(EncoderGolden, PutsTheHandshakeRequestInto190Bytes) {
  EXPECT_EQ(Golden("handshake_request").size(), 190u);
}

}  // namespace
