// Holds the decoder against a second reading of the format, written to be obvious instead of fast: bytes beyond the end
// are asked for one by one, and faults are exceptions.
#include <gtest/gtest.h>
#include <mivo/params.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "support/golden.h"
#include "support/sanitizers.h"
#include "unit/decoder_transcript.h"
#include "values/encoder.h"

namespace {

using mivo_test::Describe;
using mivo_test::FromHex;
using mivo_test::Golden;
using mivo_test::kScaledown;
using mivo_test::ToHex;
using mivo_test::Transcript;
using mivo_test::TranscriptOf;

struct Fault {};

class PlainReader {
 public:
  explicit PlainReader(std::string_view input) : input_(input), size_(static_cast<long long>(input.size())) {}

  Transcript Read() {
    try {
      while (at_ < size_)
        Record();
      Say("end");
    } catch (const Fault&) {
      Say("fault");
    }
    return said_;
  }

 private:
  int Byte(long long offset) const {
    return offset < size_ ? static_cast<unsigned char>(input_[static_cast<std::size_t>(offset)]) : 0;
  }
  long long Signed(long long offset) const {
    long long value = 0;
    for (int i = 3; i >= 0; --i)
      value = value * 256 + Byte(offset + i);
    return value >= 0x80000000LL ? value - 0x100000000LL : value;
  }
  void Say(const std::string& line) { said_.push_back(line); }
  static void FaultIf(bool bad) {
    if (bad) throw Fault();
  }

  void Record() {
    const int tag = Byte(at_);
    FaultIf(tag > 7);
    if (tag <= 4) Value("");
    if (tag == 5) Pair("keyed ");
    if (tag == 6) List();
    if (tag == 7) ListMap();
  }

  void Value(const std::string& prefix) {
    mivo::Scalar value;
    value.tag = static_cast<mivo::WireTag>(Byte(at_));
    switch (Byte(at_)) {
      case 0:
        FaultIf(size_ < at_ + 4);
        value.integer = static_cast<std::int32_t>(Signed(at_ + 1));
        at_ += 5;
        break;
      case 1:
        FaultIf(size_ < at_ + 1);
        value.boolean = Byte(at_ + 1) == '1';
        at_ += 2;
        break;
      case 2: {
        FaultIf(size_ < at_ + 8);
        unsigned char image[8];
        for (int i = 0; i < 8; ++i)
          image[i] = static_cast<unsigned char>(Byte(at_ + 1 + i));
        std::memcpy(&value.real, image, 8);
        at_ += 9;
        break;
      }
      default: {
        const long long length = Signed(at_ + 1);
        FaultIf(length < 0);
        FaultIf(size_ < at_ + 5 + length);
        value.bytes = input_.substr(static_cast<std::size_t>(at_ + 5), static_cast<std::size_t>(length));
        at_ += 5 + length;
        break;
      }
    }
    Say(prefix + Describe(value));
    Stamp();
  }

  void Stamp() {
    FaultIf(at_ + 4 > size_);
    FaultIf(Signed(at_) != at_);
    at_ += 4;
  }

  void Pair(const std::string& prefix) {
    FaultIf(Byte(at_ + 1) != 3);
    FaultIf(size_ < at_ + 10);
    const long long length = Signed(at_ + 2);
    FaultIf(length < 0);
    const long long start = at_ + 6;
    at_ = start + length;
    Stamp();
    Say("key " + std::string(input_.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(length))));
    if (Byte(at_) <= 4) Value(prefix);
  }

  long long Count() {
    FaultIf(size_ < at_ + 5);
    const long long count = Signed(at_ + 1);
    FaultIf(count < 0);
    at_ += 5;
    return count;
  }

  void List() {
    long long count = Count();
    Say("[");
    while (count > 0 && Byte(at_) <= 4) {
      Value("- ");
      --count;
    }
    Say("]");
  }

  void ListMap() {
    long long count = Count();
    Say("{");
    while (count > 0 && Byte(at_) == 5) {
      Pair("- ");
      --count;
    }
    Say("}");
  }

  std::string_view input_;
  long long size_;
  long long at_ = 0;
  Transcript said_;
};

void ExpectBothAgree(const std::string& bytes) {
  const Transcript expected = PlainReader(bytes).Read();
  ASSERT_EQ(TranscriptOf(bytes), expected) << ToHex(bytes);
  MIVOParams params;
  ASSERT_EQ(params.Parser(bytes.data(), static_cast<int>(bytes.size())), expected.back() == "end") << ToHex(bytes);
  ASSERT_EQ(*params.GetParamas(), bytes);
}

// Every record kind, in every place it may stand in, and the places the decoder steps around.
std::string RichEncoding() {
  std::string bytes;
  mivo::AppendInt(bytes, -7);
  mivo::AppendBool(bytes, true);
  mivo::AppendDouble(bytes, 1.5);
  mivo::AppendString(bytes, "text");
  mivo::AppendStream(bytes, std::string_view("\0\x05\xFF", 3));
  mivo::AppendKeyValueInt(bytes, "i", 1);
  mivo::AppendKeyValueBool(bytes, "b", false);
  mivo::AppendKeyValueDouble(bytes, "d", 0.5);
  mivo::AppendKeyValueString(bytes, "retval", "ok");
  mivo::AppendKeyValueStream(bytes, "data", "xyz");
  mivo::AppendListHeader(bytes, 5);
  mivo::AppendInt(bytes, 1);
  mivo::AppendBool(bytes, true);
  mivo::AppendDouble(bytes, 2);
  mivo::AppendString(bytes, "element");
  mivo::AppendStream(bytes, "");
  bytes += FromHex("07 03 00 00 00");
  mivo::AppendKeyValueInt(bytes, "i", 2);
  mivo::AppendKeyValueString(bytes, "new", "entry");
  mivo::AppendKeyValueString(bytes, "new", "again");
  mivo::AppendKey(bytes, "retval");
  mivo::AppendListHeader(bytes, 9);
  mivo::AppendBool(bytes, true);
  mivo::AppendKeyValueInt(bytes, "last", 3);
  mivo::AppendKeyValueInt(bytes, "i", 4);
  return bytes;
}

TEST(DecoderExhaustive, ReadsTheRichEncodingToItsEnd) {
  const Transcript transcript = TranscriptOf(RichEncoding());
  EXPECT_EQ(transcript.back(), "end");
  EXPECT_EQ(transcript.size(), 39u);
  ExpectBothAgree(RichEncoding());
}

TEST(DecoderExhaustive, AgreesOnEveryTruncation) {
  const std::string bytes = RichEncoding();
  for (std::size_t size = 0; size <= bytes.size(); ++size) {
    ASSERT_NO_FATAL_FAILURE(ExpectBothAgree(bytes.substr(0, size)));
  }
}

TEST(DecoderExhaustive, AgreesOnEveryStartInsideTheEncoding) {
  const std::string bytes = RichEncoding();
  for (std::size_t start = 1; start < bytes.size(); ++start) {
    ASSERT_NO_FATAL_FAILURE(ExpectBothAgree(bytes.substr(start)));
  }
}

TEST(DecoderExhaustive, AgreesOnEveryChangeOfOneByte) {
  const std::string bytes = RichEncoding();
  for (std::size_t at = 0; at < bytes.size(); ++at) {
    // Where not all of them are made, they are others at each place.
    for (int change = 1 + static_cast<int>(at) % kScaledown; change < 256; change += kScaledown) {
      std::string changed = bytes;
      changed[at] = static_cast<char>(changed[at] ^ change);
      ASSERT_NO_FATAL_FAILURE(ExpectBothAgree(changed)) << "byte " << at << " xor " << change;
    }
  }
}

TEST(DecoderExhaustive, AgreesOnEveryTagInEveryPlace) {
  std::string list_head;
  mivo::AppendListHeader(list_head, 2);
  std::string list_start = list_head;
  mivo::AppendInt(list_start, 1);
  std::string key;
  mivo::AppendKey(key, "k");
  const std::string list_map_head = FromHex("07 02 00 00 00");
  std::string list_map_key = list_map_head;
  mivo::AppendKey(list_map_key, "k");
  const std::string pair_tag = FromHex("05");
  std::string after_record;
  mivo::AppendString(after_record, "before");

  for (const std::string& place :
       {std::string(), after_record, list_head, list_start, key, list_map_head, list_map_key, pair_tag}) {
    for (int tag = 0; tag < 256; ++tag) {
      const std::string tagged = place + static_cast<char>(tag);
      for (std::size_t zeros = 0; zeros < 16; ++zeros) {
        ASSERT_NO_FATAL_FAILURE(ExpectBothAgree(tagged + std::string(zeros, '\0')));
      }
      // A whole record of that kind, its stamp right for the place where the kind has one.
      std::string whole = place;
      switch (tag) {
        case 0:
          mivo::AppendInt(whole, 1);
          break;
        case 1:
          mivo::AppendBool(whole, true);
          break;
        case 2:
          mivo::AppendDouble(whole, 1);
          break;
        case 3:
          mivo::AppendString(whole, "s");
          break;
        case 4:
          mivo::AppendStream(whole, "t");
          break;
        case 5:
          mivo::AppendKeyValueInt(whole, "k", 1);
          break;
        case 6:
          mivo::AppendListHeader(whole, 0);
          break;
        default:
          whole += std::string(1, static_cast<char>(tag)) + std::string(4, '\0');
          break;
      }
      mivo::AppendBool(whole, true);
      ASSERT_NO_FATAL_FAILURE(ExpectBothAgree(whole));
    }
  }
}

TEST(DecoderExhaustive, AgreesOnRandomBytes) {
  std::mt19937 random(20240607);
  for (int round = 0; round < 20000; ++round) {
    std::string bytes(random() % 48, '\0');
    // Small values are tags, counts and lengths that lead somewhere.
    for (char& byte : bytes)
      byte = static_cast<char>(random() % 4 != 0 ? random() % 9 : random());
    ASSERT_NO_FATAL_FAILURE(ExpectBothAgree(bytes)) << "round " << round;
  }
}

// Sequences of well-formed records in random order, then cut, changed or left alone: gets deep into the format, where
// purely random bytes fail at the first stamp.
TEST(DecoderExhaustive, AgreesOnRandomRecords) {
  std::mt19937 random(4711);
  for (int round = 0; round < 5000; ++round) {
    std::string bytes;
    const std::size_t records = random() % 12;
    for (std::size_t record = 0; record < records; ++record) {
      const std::string key(1, static_cast<char>('a' + random() % 3));
      const std::string text(random() % 6, 't');
      switch (random() % 9) {
        case 0:
          mivo::AppendInt(bytes, static_cast<std::int32_t>(random()));
          break;
        case 1:
          mivo::AppendBool(bytes, random() % 2 == 0);
          break;
        case 2:
          mivo::AppendDouble(bytes, static_cast<double>(random()));
          break;
        case 3:
          mivo::AppendString(bytes, text);
          break;
        case 4:
          mivo::AppendStream(bytes, text);
          break;
        case 5:
          mivo::AppendKey(bytes, key);
          break;
        case 6:
          mivo::AppendKeyValueString(bytes, key, text);
          break;
        case 7:
          mivo::AppendListHeader(bytes, random() % 4);
          break;
        default:
          bytes += FromHex("07") + static_cast<char>(random() % 4) + std::string(3, '\0');
          break;
      }
    }
    if (!bytes.empty() && random() % 2 == 0) bytes.resize(random() % bytes.size());
    if (!bytes.empty() && random() % 2 == 0) bytes[random() % bytes.size()] = static_cast<char>(random());
    ASSERT_NO_FATAL_FAILURE(ExpectBothAgree(bytes)) << "round " << round;
  }
}

TEST(DecoderExhaustive, AgreesOnEveryChangeOfTheHandshakeRequest) {
  const std::string bytes = Golden("handshake_request");
  for (std::size_t at = 0; at < bytes.size(); ++at) {
    for (const int change : {0x01, 0x04, 0x7F, 0x80, 0xFF}) {
      std::string changed = bytes;
      changed[at] = static_cast<char>(changed[at] ^ change);
      ASSERT_NO_FATAL_FAILURE(ExpectBothAgree(changed));
    }
    ASSERT_NO_FATAL_FAILURE(ExpectBothAgree(bytes.substr(0, at)));
  }
}

}  // namespace
