#include "values/encoder.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <initializer_list>

#include "values/wire_tags.h"

namespace mivo {
namespace {

constexpr std::size_t kStampSize = 4;

char* PutTag(char* at, WireTag tag) {
  *at = static_cast<char>(tag);
  return at + 1;
}

char* PutU32(char* at, std::uint32_t value) {
  at[0] = static_cast<char>(value & 0xFF);
  at[1] = static_cast<char>((value >> 8) & 0xFF);
  at[2] = static_cast<char>((value >> 16) & 0xFF);
  at[3] = static_cast<char>((value >> 24) & 0xFF);
  return at + 4;
}

// Closes a record of `size` bytes that will start at the present end of `out`.
char* PutStamp(char* at, const std::string& out, std::size_t size) {
  return PutU32(at, static_cast<std::uint32_t>(out.size() + size - kStampSize));
}

bool ViewsInto(std::string_view text, const std::string& out) {
  const std::less<> before;
  return !before(text.data(), out.data()) && before(text.data(), out.data() + out.size());
}

// Room comes before a record's first byte: the appends that follow neither fail nor move the bytes, so no half record
// is ever left and `sources` may view `out`.
void MakeRoom(std::string& out, std::size_t size, std::initializer_list<std::string_view*> sources) {
  if (out.capacity() - out.size() >= size) return;
  std::string grown;
  grown.reserve(std::max(out.size() + size, 2 * out.capacity()));
  grown.append(out);
  for (std::string_view* source : sources) {
    if (!ViewsInto(*source, out)) continue;
    const auto offset = static_cast<std::size_t>(source->data() - out.data());
    *source = std::string_view(grown.data() + offset, source->size());
  }
  out.swap(grown);
}

void AppendCounted(std::string& out, WireTag tag, std::string_view bytes) {
  MakeRoom(out, StringRecordSize(bytes.size()), {&bytes});
  std::array<char, 5> head;
  PutU32(PutTag(head.data(), tag), static_cast<std::uint32_t>(bytes.size()));
  out.append(head.data(), head.size());
  out.append(bytes);
  std::array<char, kStampSize> stamp;
  PutU32(stamp.data(), static_cast<std::uint32_t>(out.size()));
  out.append(stamp.data(), stamp.size());
}

}  // namespace

void ReserveMore(std::string& out, std::size_t size) {
  MakeRoom(out, size, {});
}

void AppendInt(std::string& out, std::int32_t value) {
  MakeRoom(out, kIntRecordSize, {});
  std::array<char, kIntRecordSize> record;
  char* const payload = PutTag(record.data(), WireTag::kInt);
  PutStamp(PutU32(payload, static_cast<std::uint32_t>(value)), out, record.size());
  out.append(record.data(), record.size());
}

void AppendBool(std::string& out, bool value) {
  MakeRoom(out, kBoolRecordSize, {});
  std::array<char, kBoolRecordSize> record;
  char* const payload = PutTag(record.data(), WireTag::kBool);
  *payload = value ? '1' : '0';
  PutStamp(payload + 1, out, record.size());
  out.append(record.data(), record.size());
}

void AppendDouble(std::string& out, double value) {
  static_assert(sizeof(double) == sizeof(std::uint64_t), "the wire carries IEEE 754 binary64");
  MakeRoom(out, kDoubleRecordSize, {});
  std::uint64_t bits = 0;
  std::memcpy(&bits, &value, sizeof(bits));
  std::array<char, kDoubleRecordSize> record;
  char* const payload = PutTag(record.data(), WireTag::kDouble);
  char* const upper = PutU32(payload, static_cast<std::uint32_t>(bits));
  PutStamp(PutU32(upper, static_cast<std::uint32_t>(bits >> 32)), out, record.size());
  out.append(record.data(), record.size());
}

void AppendString(std::string& out, std::string_view text) {
  AppendCounted(out, WireTag::kString, text);
}

void AppendStream(std::string& out, std::string_view bytes) {
  AppendCounted(out, WireTag::kStream, bytes);
}

void AppendKey(std::string& out, std::string_view key) {
  MakeRoom(out, KeySize(key.size()), {&key});
  out.push_back(static_cast<char>(WireTag::kKeyValue));
  AppendString(out, key);
}

void AppendKeyValueInt(std::string& out, std::string_view key, std::int32_t value) {
  MakeRoom(out, KeySize(key.size()) + kIntRecordSize, {&key});
  AppendKey(out, key);
  AppendInt(out, value);
}

void AppendKeyValueBool(std::string& out, std::string_view key, bool value) {
  MakeRoom(out, KeySize(key.size()) + kBoolRecordSize, {&key});
  AppendKey(out, key);
  AppendBool(out, value);
}

void AppendKeyValueDouble(std::string& out, std::string_view key, double value) {
  MakeRoom(out, KeySize(key.size()) + kDoubleRecordSize, {&key});
  AppendKey(out, key);
  AppendDouble(out, value);
}

void AppendKeyValueString(std::string& out, std::string_view key, std::string_view text) {
  MakeRoom(out, KeySize(key.size()) + StringRecordSize(text.size()), {&key, &text});
  AppendKey(out, key);
  AppendString(out, text);
}

void AppendKeyValueStream(std::string& out, std::string_view key, std::string_view bytes) {
  MakeRoom(out, KeySize(key.size()) + StreamRecordSize(bytes.size()), {&key, &bytes});
  AppendKey(out, key);
  AppendStream(out, bytes);
}

void AppendListHeader(std::string& out, std::uint32_t count) {
  MakeRoom(out, kListHeaderSize, {});
  std::array<char, kListHeaderSize> header;
  PutU32(PutTag(header.data(), WireTag::kList), count);
  out.append(header.data(), header.size());
}

}  // namespace mivo
