// Payloads written a second time, record by record, to hold the library against. Nothing here uses the library.
#ifndef MIVO_TESTS_UNIT_PAYLOAD_H_
#define MIVO_TESTS_UNIT_PAYLOAD_H_

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace mivo_test {

//   Payload().Key("retval").String("ok").Int(5)
class Payload {
 public:
  Payload& Int(std::int32_t value) { return Tag(0).Number(value).Stamp(); }
  Payload& Bool(bool value) { return Tag(1).Raw(value ? "1" : "0").Stamp(); }
  Payload& Double(double value) { return Tag(2).Number(value).Stamp(); }
  Payload& String(std::string_view text) { return Tag(3).Counted(text).Stamp(); }
  Payload& Stream(std::string_view bytes) { return Tag(4).Counted(bytes).Stamp(); }
  // The first half of a pair: the next record is its value.
  Payload& Key(std::string_view key) { return Tag(5).String(key); }
  // The elements, or pairs, follow.
  Payload& List(std::int32_t count) { return Tag(6).Number(count); }
  Payload& ListMap(std::int32_t count) { return Tag(7).Number(count); }

  Payload& KeyInt(std::string_view key, std::int32_t value) { return Key(key).Int(value); }
  Payload& KeyBool(std::string_view key, bool value) { return Key(key).Bool(value); }
  Payload& KeyString(std::string_view key, std::string_view text) { return Key(key).String(text); }
  Payload& KeyStream(std::string_view key, std::string_view bytes) { return Key(key).Stream(bytes); }

  // Bytes that are no record.
  Payload& Raw(std::string_view bytes) {
    bytes_.append(bytes);
    return *this;
  }

  const std::string& bytes() const { return bytes_; }
  operator const std::string&() const { return bytes_; }

 private:
  template <class Value>
  Payload& Number(Value value) {
    char bytes[sizeof value];
    std::memcpy(bytes, &value, sizeof value);
    return Raw(std::string_view(bytes, sizeof bytes));
  }
  Payload& Tag(char tag) { return Raw(std::string_view(&tag, 1)); }
  Payload& Counted(std::string_view bytes) { return Number(static_cast<std::int32_t>(bytes.size())).Raw(bytes); }
  Payload& Stamp() { return Number(static_cast<std::int32_t>(bytes_.size())); }

  std::string bytes_;
};

// A payload behind its length.
inline std::string Framed(std::string_view payload) {
  const auto length = static_cast<std::int32_t>(payload.size());
  char bytes[sizeof length];
  std::memcpy(bytes, &length, sizeof length);
  return std::string(bytes, sizeof bytes).append(payload);
}

}  // namespace mivo_test

#endif  // MIVO_TESTS_UNIT_PAYLOAD_H_
