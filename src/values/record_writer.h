// Writes records into memory that has room for them.
//
// Each function returns where the next record goes. `offset` is where in the encoding `at` stands: a record ends in a
// stamp that says where it stands itself.
#ifndef MIVO_SRC_VALUES_RECORD_WRITER_H_
#define MIVO_SRC_VALUES_RECORD_WRITER_H_

#include <cstdint>
#include <cstring>
#include <string_view>

#include "values/wire_tags.h"

namespace mivo {

inline char* PutTag(char* at, WireTag tag) {
  *at = static_cast<char>(tag);
  return at + 1;
}

// Numbers travel as they lie in memory; the library is for little-endian machines.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "");

inline char* PutU32(char* at, std::uint32_t value) {
  std::memcpy(at, &value, sizeof(value));
  return at + sizeof(value);
}

// Most texts are shorter than a call of memcpy is worth.
inline char* PutBytes(char* at, std::string_view bytes) {
  const char* const from = bytes.data();
  const std::size_t size = bytes.size();
  if (size > 16 || size < 4) {
    if (size != 0) std::memcpy(at, from, size);
  } else if (size >= 8) {
    std::uint64_t first = 0;
    std::uint64_t last = 0;
    std::memcpy(&first, from, 8);
    std::memcpy(&last, from + size - 8, 8);
    std::memcpy(at, &first, 8);
    std::memcpy(at + size - 8, &last, 8);
  } else {
    std::uint32_t first = 0;
    std::uint32_t last = 0;
    std::memcpy(&first, from, 4);
    std::memcpy(&last, from + size - 4, 4);
    std::memcpy(at, &first, 4);
    std::memcpy(at + size - 4, &last, 4);
  }
  return at + size;
}

inline char* PutInt(char* at, std::uint64_t offset, std::int32_t value) {
  at = PutU32(PutTag(at, WireTag::kInt), static_cast<std::uint32_t>(value));
  return PutU32(at, static_cast<std::uint32_t>(offset + 5));
}

inline char* PutBool(char* at, std::uint64_t offset, bool value) {
  at = PutTag(at, WireTag::kBool);
  *at = value ? '1' : '0';
  return PutU32(at + 1, static_cast<std::uint32_t>(offset + 2));
}

inline char* PutDouble(char* at, std::uint64_t offset, double value) {
  static_assert(sizeof(value) == 8, "the wire carries IEEE 754 binary64");
  at = PutTag(at, WireTag::kDouble);
  std::memcpy(at, &value, sizeof(value));
  return PutU32(at + sizeof(value), static_cast<std::uint32_t>(offset + 9));
}

// A string or stream up to its bytes: they come next, and then their stamp.
inline char* PutTextHead(char* at, WireTag tag, std::uint64_t length) {
  return PutU32(PutTag(at, tag), static_cast<std::uint32_t>(length));
}

inline char* PutText(char* at, std::uint64_t offset, WireTag tag, std::string_view bytes) {
  at = PutBytes(PutTextHead(at, tag, bytes.size()), bytes);
  return PutU32(at, static_cast<std::uint32_t>(offset + 5 + bytes.size()));
}

// A pair up to its value's record, which comes next.
inline char* PutKey(char* at, std::uint64_t offset, std::string_view key) {
  return PutText(PutTag(at, WireTag::kKeyValue), offset + 1, WireTag::kString, key);
}

inline char* PutListHeader(char* at, std::uint32_t count) {
  return PutU32(PutTag(at, WireTag::kList), count);
}

}  // namespace mivo

#endif  // MIVO_SRC_VALUES_RECORD_WRITER_H_
