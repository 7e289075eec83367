#include "values/part_encoder.h"

#include <gtest/gtest.h>
#include <mivo/params.h>

#include <string>

#include "support/golden.h"
#include "transport/builtin_keys.h"
#include "transport/envelope.h"
#include "values/encoder.h"

namespace mivo {
namespace {

using mivo_test::ToHex;

TEST(PartEncoder, WritesTheEncodersBytesAtAnyBase) {
  for (const std::size_t base : {0u, 1u, 255u, 100000u}) {
    std::string whole(base, 'x');
    AppendKeyValueInt(whole, "int", -7);
    AppendKeyValueString(whole, "a key of some length", std::string(300, 't'));
    AppendKeyValueString(whole, "", "");
    AppendKeyValueStream(whole, "stream", "bytes");
    AppendKeyValueInt(whole, "last", 1);

    std::string parts = "what stood there before";
    const std::size_t start = parts.size();
    PartEncoder head(parts, base);
    head.KeyValueInt("int", -7);
    head.KeyValueString("a key of some length", std::string(300, 't'));
    head.KeyValueString("", "");
    head.OpenKeyValueStream("stream", 5);
    EXPECT_EQ(head.end(), base + parts.size() - start);
    std::string tail_bytes;
    PartEncoder tail(tail_bytes, head.end() + 5);
    tail.CloseStream();
    tail.KeyValueInt("last", 1);
    EXPECT_EQ(tail.end(), whole.size());
    EXPECT_EQ(ToHex(parts.substr(start) + "bytes" + tail_bytes), ToHex(whole.substr(base)));
  }
}

TEST(PartEncoder, WritesARequestAroundItsArguments) {
  for (const std::size_t size : {0u, 1u, 15u, 70000u}) {
    MIVOParams params;
    params.AddStream(std::string(size, 'd').data(), static_cast<long>(size));
    const std::string data = *params.GetParamas();
    const std::string whole = EncodeRequest("method", 4711, &params, 0x7f0012345678);

    // Both in one buffer, as a sender may want them.
    std::string around;
    PartEncoder head(around, 0);
    head.KeyValueString(kNameKey, "method");
    head.KeyValueInt(kThreadIdKey, 4711);
    head.OpenKeyValueStream(kDataKey, data.size());
    const std::size_t head_size = around.size();
    PartEncoder tail(around, head.end() + data.size());
    tail.CloseStream();
    const std::string token(ReadEnvelope(whole).sem_id.value());
    tail.KeyValueString(kSemIdKey, token);
    EXPECT_EQ(around.substr(0, head_size) + data + around.substr(head_size), whole) << size;
  }
}

}  // namespace
}  // namespace mivo
