// What a peer's bytes cost once they are decoded, whatever they are.
#include <gtest/gtest.h>
#include <mivo/params.h>

#include <cstddef>
#include <string>

#include "unit/live_bytes.h"
#include "values/encoder.h"
#include "values/params_bytes.h"

namespace {

// The records that cost most for their bytes, as many of them as fill a message. Its bytes count too.
struct Case {
  const char* name;
  void (*append)(std::string& out, std::size_t number);
};

std::string ShortKey(std::size_t number) {
  std::string key;
  for (; number != 0; number /= 255)
    key += static_cast<char>(1 + number % 255);
  return key;
}

const Case kCases[] = {
    {"empty lists", [](std::string& out, std::size_t) { mivo::AppendListHeader(out, 0); }},
    {"empty list maps", [](std::string& out, std::size_t) { out += std::string("\x07\0\0\0\0", 5); }},
    {"bools", [](std::string& out, std::size_t) { mivo::AppendBool(out, true); }},
    {"ints", [](std::string& out, std::size_t) { mivo::AppendInt(out, 1); }},
    {"doubles", [](std::string& out, std::size_t) { mivo::AppendDouble(out, 1); }},
    {"empty strings", [](std::string& out, std::size_t) { mivo::AppendString(out, ""); }},
    {"strings of one byte", [](std::string& out, std::size_t) { mivo::AppendString(out, "x"); }},
    {"long strings", [](std::string& out, std::size_t) { mivo::AppendString(out, std::string(1000, 'x')); }},
    {"lists of one bool",
     [](std::string& out, std::size_t) {
       mivo::AppendListHeader(out, 1);
       mivo::AppendBool(out, true);
     }},
    {"lists of bools",
     [](std::string& out, std::size_t) {
       mivo::AppendListHeader(out, 1000);
       for (int element = 0; element < 1000; ++element)
         mivo::AppendBool(out, true);
     }},
    {"pairs", [](std::string& out, std::size_t number) { mivo::AppendKeyValueBool(out, ShortKey(number), true); }},
    {"pairs of one key", [](std::string& out, std::size_t) { mivo::AppendKeyValueBool(out, "k", true); }},
    {"keys that lose their values",
     [](std::string& out, std::size_t number) {
       mivo::AppendKeyValueBool(out, ShortKey(number), true);
       mivo::AppendKey(out, ShortKey(number));
       mivo::AppendListHeader(out, 0);
     }},
    {"list maps",
     [](std::string& out, std::size_t number) {
       out += std::string("\x07\x01\0\0\0", 5);
       mivo::AppendKeyValueBool(out, ShortKey(number), true);
     }},
    {"a list map",
     [](std::string& out, std::size_t number) {
       if (number == 0) out += std::string("\x07\xFF\xFF\xFF\x7F", 5);
       mivo::AppendKeyValueBool(out, ShortKey(number), true);
     }},
};

constexpr std::size_t kMessage = 1000000;
constexpr std::size_t kConstant = 4096;

std::string Message(const Case& with) {
  std::string bytes;
  for (std::size_t number = 0; bytes.size() < kMessage; ++number)
    with.append(bytes, number);
  // Cut to what was added: the buffer's own growth is not the decoder's.
  bytes.shrink_to_fit();
  return bytes;
}

double BytesPerByte(const Case& with, bool (*decode)(MIVOParams&, const std::string&)) {
  const std::string bytes = Message(with);
  const std::size_t before = mivo_test::LiveBytes();
  MIVOParams params;
  EXPECT_TRUE(decode(params, bytes)) << with.name;
  EXPECT_GT(params.ParamsSize() + params.MapSize(), 0) << with.name;
  return static_cast<double>(mivo_test::LiveBytes() - before - kConstant) / static_cast<double>(bytes.size());
}

TEST(DecodedMemory, IsAtMostFourTimesThePeersBytes) {
  for (const Case& with : kCases) {
    const double cost = BytesPerByte(with, [](MIVOParams& params, const std::string& bytes) {
      return params.Parser(bytes.data(), static_cast<int>(bytes.size()));
    });
    EXPECT_LE(cost, 4) << with.name;
  }
}

// The application may change the buffer it has asked for, so there is a copy.
TEST(DecodedMemory, IsAtMostFiveTimesTheBytesOfABufferThatIsShown) {
  for (const Case& with : kCases) {
    const double cost = BytesPerByte(with, [](MIVOParams& params, const std::string& bytes) {
      *params.GetParamas() = bytes;
      return params.ToParams();
    });
    EXPECT_LE(cost, 5) << with.name;
  }
}

TEST(DecodedMemory, IsAConstantForWhatIsAskedFor) {
  for (const Case& with : kCases) {
    const std::string bytes = Message(with);
    MIVOParams params;
    ASSERT_TRUE(mivo::ParamsBytes::DecodeBorrowed(params, bytes));
    const std::size_t before = mivo_test::LiveBytes();
    const std::size_t pages = static_cast<std::size_t>(params.ParamsSize()) / 64 * sizeof(void*);
    params.GetValue(params.ParamsSize() / 2);
    if (std::string(with.name) == "a list map") continue;
    // The objects of one page at most, with the elements of the one that was asked for; or those of one list.
    EXPECT_LE(mivo_test::LiveBytes() - before, pages + 64 * sizeof(MIVOValue) + 1000 * 120 + kConstant) << with.name;
  }
}

TEST(DecodedMemory, IsNoneForAnEmptySet) {
  const std::size_t before = mivo_test::LiveBytes();
  MIVOParams params;
  EXPECT_EQ(params.ParamsSize() + params.MapSize() + params.Size(), 0);
  EXPECT_EQ(params.GetValue(0), nullptr);
  EXPECT_EQ(params.GetMap("k"), nullptr);
  EXPECT_STREQ(params.GetParamasPtr(), "");
  EXPECT_TRUE(params.ToParams());
  EXPECT_TRUE(params.Parser(nullptr, 0));
  params.Clear();
  const MIVOParams copy(params);
  EXPECT_EQ(mivo_test::LiveBytes(), before);
}

}  // namespace
