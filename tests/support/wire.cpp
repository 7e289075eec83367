#include "support/wire.h"

#include <cstdio>
#include <cstring>

namespace mivo_test {
namespace {

// Reads one payload front to back; every read says whether the bytes were there.
class Reader {
 public:
  explicit Reader(std::string_view bytes) : bytes_(bytes) {}

  bool done() const { return at_ == bytes_.size(); }

  bool ReadRecord(Record* record) {
    int tag = 0;
    if (!ReadTag(&tag)) return false;
    if (tag == 5) {
      Record key;
      int key_tag = 0;
      if (!ReadTag(&key_tag) || key_tag != Record::kString || !ReadScalar(key_tag, &key)) return false;
      record->keyed = true;
      record->key = key.text;
      return ReadTag(&tag) && ReadScalar(tag, record);
    }
    if (tag == Record::kList) {
      record->tag = tag;
      std::uint32_t count = 0;
      if (!ReadU32(&count)) return false;
      for (std::uint32_t i = 0; i < count; ++i) {
        Record element;
        if (!ReadTag(&tag) || !ReadScalar(tag, &element)) return false;
        record->elements.push_back(element);
      }
      return true;
    }
    return ReadScalar(tag, record);
  }

 private:
  bool Take(std::size_t count, std::string_view* taken) {
    if (bytes_.size() - at_ < count) return false;
    *taken = bytes_.substr(at_, count);
    at_ += count;
    return true;
  }

  bool ReadTag(int* tag) {
    std::string_view byte;
    if (!Take(1, &byte)) return false;
    *tag = static_cast<unsigned char>(byte[0]);
    return true;
  }

  bool ReadU32(std::uint32_t* value) {
    std::string_view bytes;
    if (!Take(4, &bytes)) return false;
    *value = 0;
    for (int i = 3; i >= 0; --i)
      *value = *value << 8 | static_cast<unsigned char>(bytes[static_cast<std::size_t>(i)]);
    return true;
  }

  bool ReadScalar(int tag, Record* record) {
    record->tag = tag;
    std::string_view bytes;
    std::uint32_t number = 0;
    switch (tag) {
      case Record::kInt:
        if (!ReadU32(&number)) return false;
        record->integer = static_cast<std::int32_t>(number);
        break;
      case Record::kBool:
        if (!Take(1, &bytes) || (bytes[0] != '0' && bytes[0] != '1')) return false;
        record->boolean = bytes[0] == '1';
        break;
      case Record::kDouble:
        if (!Take(8, &bytes)) return false;
        std::memcpy(&record->real, bytes.data(), 8);
        break;
      case Record::kString:
      case Record::kStream:
        if (!ReadU32(&number) || !Take(number, &bytes)) return false;
        record->text = bytes;
        break;
      default:
        return false;
    }
    const std::size_t stamp_at = at_;
    return ReadU32(&number) && number == stamp_at;
  }

  const std::string_view bytes_;
  std::size_t at_ = 0;
};

std::string DescribeValue(const Record& record) {
  switch (record.tag) {
    case Record::kInt:
      return std::to_string(record.integer);
    case Record::kBool:
      return record.boolean ? "true" : "false";
    case Record::kDouble: {
      char text[32];
      std::snprintf(text, sizeof text, "%.17g", record.real);
      return std::string("double ") + text;
    }
    case Record::kString:
      return '"' + record.text + '"';
    case Record::kStream:
      return record.text.empty() ? "stream" : "stream " + Hex(record.text);
    default:
      break;
  }
  std::string text = "[";
  for (const Record& element : record.elements) {
    if (text.size() > 1) text += ", ";
    text += DescribeValue(element);
  }
  return text + "]";
}

}  // namespace

void Wire::U32(std::uint32_t value) {
  bytes_ += LittleEndian(static_cast<std::int32_t>(value));
}

Wire& Wire::Int(std::int32_t value) {
  bytes_ += '\0';
  U32(static_cast<std::uint32_t>(value));
  Stamp();
  return *this;
}

Wire& Wire::Bool(bool value) {
  bytes_ += '\1';
  bytes_ += value ? '1' : '0';
  Stamp();
  return *this;
}

Wire& Wire::Double(double value) {
  char raw[8];
  std::memcpy(raw, &value, sizeof raw);
  bytes_ += '\2';
  bytes_.append(raw, sizeof raw);
  Stamp();
  return *this;
}

Wire& Wire::String(std::string_view text) {
  bytes_ += '\3';
  U32(static_cast<std::uint32_t>(text.size()));
  bytes_ += text;
  Stamp();
  return *this;
}

Wire& Wire::Stream(std::string_view bytes) {
  bytes_ += '\4';
  U32(static_cast<std::uint32_t>(bytes.size()));
  bytes_ += bytes;
  Stamp();
  return *this;
}

Wire& Wire::Key(std::string_view key) {
  bytes_ += '\5';
  return String(key);
}

Wire& Wire::List(std::int32_t count) {
  bytes_ += '\6';
  U32(static_cast<std::uint32_t>(count));
  return *this;
}

Wire& Wire::ListMap(std::int32_t count) {
  bytes_ += '\7';
  U32(static_cast<std::uint32_t>(count));
  return *this;
}

Wire& Wire::Raw(std::string_view bytes) {
  bytes_ += bytes;
  return *this;
}

std::string Record::Describe() const {
  return (keyed ? key + " = " : std::string()) + DescribeValue(*this);
}

std::optional<std::vector<Record>> Decode(std::string_view payload) {
  std::vector<Record> records;
  Reader reader(payload);
  while (!reader.done()) {
    Record record;
    if (!reader.ReadRecord(&record)) return std::nullopt;
    records.push_back(record);
  }
  return records;
}

std::vector<std::string> Describe(std::string_view payload) {
  const auto records = Decode(payload);
  if (!records) return {"malformed: " + Hex(payload)};
  std::vector<std::string> lines;
  for (const Record& record : *records)
    lines.push_back(record.Describe());
  return lines;
}

const Record* Find(const std::vector<Record>& records, std::string_view key) {
  for (const Record& record : records) {
    if (record.keyed && record.key == key) return &record;
  }
  return nullptr;
}

std::optional<std::string> TextOf(std::string_view payload, std::string_view key) {
  const auto records = Decode(payload);
  if (!records) return std::nullopt;
  const Record* record = Find(*records, key);
  if (record == nullptr || (record->tag != Record::kString && record->tag != Record::kStream)) return std::nullopt;
  return record->text;
}

std::optional<std::int32_t> IntOf(std::string_view payload, std::string_view key) {
  const auto records = Decode(payload);
  if (!records) return std::nullopt;
  const Record* record = Find(*records, key);
  if (record == nullptr || record->tag != Record::kInt) return std::nullopt;
  return record->integer;
}

std::string LittleEndian(std::int32_t value) {
  auto rest = static_cast<std::uint32_t>(value);
  std::string bytes;
  for (int i = 0; i < 4; ++i) {
    bytes += static_cast<char>(rest & 0xFF);
    rest >>= 8;
  }
  return bytes;
}

std::string Frame(std::string_view payload) {
  return LittleEndian(static_cast<std::int32_t>(payload.size())).append(payload);
}

std::string Request(const Envelope& envelope) {
  Wire wire;
  wire.KeyString("s_c_sw_name", envelope.name);
  if (envelope.threadid) wire.KeyInt("s_c_sw_threadid", *envelope.threadid);
  if (envelope.data) wire.KeyStream("s_c_sw_data", *envelope.data);
  if (envelope.semid) wire.KeyString("s_c_sw_semid", *envelope.semid);
  return wire;
}

std::string ClientReply(std::string content, std::int32_t threadid, const std::optional<std::string>& semid) {
  Wire wire;
  wire.Raw(content).KeyInt("s_c_sw_threadid", threadid);
  if (semid) wire.KeyString("s_c_sw_semid", *semid);
  return wire.KeyString("s_c_sw_name", "retval");
}

std::string ServerReply(std::string content, const std::optional<std::int32_t>& threadid,
                        const std::optional<std::string>& semid) {
  Wire wire;
  wire.Raw(content).KeyString("s_c_sw_name", "retval");
  if (threadid) wire.KeyInt("s_c_sw_threadid", *threadid);
  if (semid) wire.KeyString("s_c_sw_semid", *semid);
  return wire;
}

std::string HandshakeData(std::string_view banner) {
  return Wire().KeyString("VERSION", banner);
}

std::string HandshakeRequest(std::int32_t threadid, const std::string& semid) {
  return Request({"s_c_version", threadid, HandshakeData(), semid});
}

std::string HandshakeReply(const std::string& request, bool accepted, std::string_view banner) {
  return ServerReply(Wire().Bool(accepted).KeyString("VERSION", banner), IntOf(request, "s_c_sw_threadid"),
                     TextOf(request, "s_c_sw_semid"));
}

namespace exact {

const char kHandshakeRequest[] =
    "05 03 0B 00 00 00 73 5F 63 5F 73 77 5F 6E 61 6D 65 11 00 00 00 03 0B 00 00 00 73 5F 63 5F 76 65 "
    "72 73 69 6F 6E 25 00 00 00 05 03 0F 00 00 00 73 5F 63 5F 73 77 5F 74 68 72 65 61 64 69 64 3E 00 "
    "00 00 00 D2 04 00 00 47 00 00 00 05 03 0B 00 00 00 73 5F 63 5F 73 77 5F 64 61 74 61 5C 00 00 00 "
    "04 30 00 00 00 05 03 07 00 00 00 56 45 52 53 49 4F 4E 0D 00 00 00 03 16 00 00 00 4D 49 56 4F 20 "
    "56 65 72 73 69 6F 6E 3A 20 31 2E 31 2E 30 2E 31 32 2C 00 00 00 95 00 00 00 05 03 0C 00 00 00 73 "
    "5F 63 5F 73 77 5F 73 65 6D 69 64 AB 00 00 00 03 06 00 00 00 30 78 35 61 31 30 BA 00 00 00";

const char kHandshakeReply[] =
    "01 31 02 00 00 00 05 03 07 00 00 00 56 45 52 53 49 4F 4E 13 00 00 00 03 16 00 00 00 4D 49 56 4F "
    "20 56 65 72 73 69 6F 6E 3A 20 31 2E 31 2E 30 2E 31 32 32 00 00 00 05 03 0B 00 00 00 73 5F 63 5F "
    "73 77 5F 6E 61 6D 65 47 00 00 00 03 06 00 00 00 72 65 74 76 61 6C 56 00 00 00 05 03 0F 00 00 00 "
    "73 5F 63 5F 73 77 5F 74 68 72 65 61 64 69 64 6F 00 00 00 00 D2 04 00 00 78 00 00 00 05 03 0C 00 "
    "00 00 73 5F 63 5F 73 77 5F 73 65 6D 69 64 8E 00 00 00 03 06 00 00 00 30 78 35 61 31 30 9D 00 00 "
    "00";

const char kUnknownNameReply[] =
    "03 0D 00 00 00 6E 6F 20 65 76 65 6E 74 3A 20 66 6F 6F 12 00 00 00 05 03 0B 00 00 00 73 5F 63 5F "
    "73 77 5F 6E 61 6D 65 27 00 00 00 03 06 00 00 00 72 65 74 76 61 6C 36 00 00 00 05 03 0F 00 00 00 "
    "73 5F 63 5F 73 77 5F 74 68 72 65 61 64 69 64 4F 00 00 00 00 09 00 00 00 58 00 00 00";

const char kEmptyServerReply[] =
    "05 03 0B 00 00 00 73 5F 63 5F 73 77 5F 6E 61 6D 65 11 00 00 00 03 06 00 00 00 72 65 74 76 61 6C "
    "20 00 00 00 05 03 0F 00 00 00 73 5F 63 5F 73 77 5F 74 68 72 65 61 64 69 64 39 00 00 00 00 09 00 "
    "00 00 42 00 00 00 05 03 0C 00 00 00 73 5F 63 5F 73 77 5F 73 65 6D 69 64 58 00 00 00 03 04 00 00 "
    "00 30 78 61 62 65 00 00 00";

const char kEmptyClientReply[] =
    "05 03 0F 00 00 00 73 5F 63 5F 73 77 5F 74 68 72 65 61 64 69 64 15 00 00 00 00 09 00 00 00 1E 00 "
    "00 00 05 03 0C 00 00 00 73 5F 63 5F 73 77 5F 73 65 6D 69 64 34 00 00 00 03 04 00 00 00 30 78 61 "
    "62 41 00 00 00 05 03 0B 00 00 00 73 5F 63 5F 73 77 5F 6E 61 6D 65 56 00 00 00 03 06 00 00 00 72 "
    "65 74 76 61 6C 65 00 00 00";

const char kUnknownNameClientReply[] =
    "05 03 0B 00 00 00 73 5F 63 5F 73 77 5F 6E 61 6D 65 11 00 00 00 03 06 00 00 00 72 65 74 76 61 6C "
    "20 00 00 00";

const char kSliceTakenReply[] =
    "05 03 0B 00 00 00 73 5F 63 5F 73 77 5F 6E 61 6D 65 11 00 00 00 03 06 00 00 00 72 65 74 76 61 6C "
    "20 00 00 00 00 00 00 00 00 29 00 00 00 05 03 0B 00 00 00 73 5F 63 5F 73 77 5F 6E 61 6D 65 3E 00 "
    "00 00 03 06 00 00 00 72 65 74 76 61 6C 4D 00 00 00 05 03 0F 00 00 00 73 5F 63 5F 73 77 5F 74 68 "
    "72 65 61 64 69 64 66 00 00 00 00 09 00 00 00 6F 00 00 00";

const char kSliceCompletedReply[] =
    "05 03 0B 00 00 00 73 5F 63 5F 73 77 5F 6E 61 6D 65 11 00 00 00 03 06 00 00 00 72 65 74 76 61 6C "
    "20 00 00 00 00 01 00 00 00 29 00 00 00 05 03 0B 00 00 00 73 5F 63 5F 73 77 5F 6E 61 6D 65 3E 00 "
    "00 00 03 06 00 00 00 72 65 74 76 61 6C 4D 00 00 00 00 00 00 00 00 56 00 00 00 05 03 0B 00 00 00 "
    "73 5F 63 5F 73 77 5F 6E 61 6D 65 6B 00 00 00 03 06 00 00 00 72 65 74 76 61 6C 7A 00 00 00 05 03 "
    "0F 00 00 00 73 5F 63 5F 73 77 5F 74 68 72 65 61 64 69 64 93 00 00 00 00 09 00 00 00 9C 00 00 00";

const char kSliceUndecodableReply[] =
    "05 03 0B 00 00 00 73 5F 63 5F 73 77 5F 6E 61 6D 65 11 00 00 00 03 06 00 00 00 72 65 74 76 61 6C "
    "20 00 00 00 00 FF FF FF FF 29 00 00 00 00 00 00 00 00 32 00 00 00 05 03 0B 00 00 00 73 5F 63 5F "
    "73 77 5F 6E 61 6D 65 47 00 00 00 03 06 00 00 00 72 65 74 76 61 6C 56 00 00 00 05 03 0F 00 00 00 "
    "73 5F 63 5F 73 77 5F 74 68 72 65 61 64 69 64 6F 00 00 00 00 09 00 00 00 78 00 00 00";

const char kSlice[] =
    "05 03 0D 00 00 00 73 5F 63 5F 6C 61 72 67 65 64 61 74 61 13 00 00 00 01 31 19 00 00 00 05 03 0F "
    "00 00 00 73 5F 63 5F 73 77 5F 74 68 72 65 61 64 69 64 32 00 00 00 00 09 00 00 00 3B 00 00 00 00 "
    "64 00 00 00 44 00 00 00 04 0A 00 00 00 41 42 43 44 45 46 47 48 49 4A 57 00 00 00";

const char kNotConnected[] = "05 03 09 00 00 00 65 72 72 6F 72 43 6F 64 65 0F 00 00 00 00 18 FC FF FF 18 00 00 00";

const char kCloseServerReply[] =
    "01 31 02 00 00 00 05 03 0B 00 00 00 73 5F 63 5F 73 77 5F 6E 61 6D 65 17 00 00 00 03 06 00 00 00 "
    "72 65 74 76 61 6C 26 00 00 00 05 03 0F 00 00 00 73 5F 63 5F 73 77 5F 74 68 72 65 61 64 69 64 3F "
    "00 00 00 00 05 00 00 00 48 00 00 00";

const char kPost[] =
    "05 03 0B 00 00 00 73 5F 63 5F 73 77 5F 6E 61 6D 65 11 00 00 00 03 03 00 00 00 66 6F 6F 1D 00 00 "
    "00 05 03 0F 00 00 00 73 5F 63 5F 73 77 5F 74 68 72 65 61 64 69 64 36 00 00 00 00 09 00 00 00 3F "
    "00 00 00";

const char kCall[] =
    "05 03 0B 00 00 00 73 5F 63 5F 73 77 5F 6E 61 6D 65 11 00 00 00 03 03 00 00 00 66 6F 6F 1D 00 00 "
    "00 05 03 0F 00 00 00 73 5F 63 5F 73 77 5F 74 68 72 65 61 64 69 64 36 00 00 00 00 09 00 00 00 3F "
    "00 00 00 05 03 0B 00 00 00 73 5F 63 5F 73 77 5F 64 61 74 61 54 00 00 00 04 00 00 00 00 5D 00 00 "
    "00 05 03 0C 00 00 00 73 5F 63 5F 73 77 5F 73 65 6D 69 64 73 00 00 00 03 04 00 00 00 30 78 61 62 "
    "80 00 00 00";

}  // namespace exact

}  // namespace mivo_test
