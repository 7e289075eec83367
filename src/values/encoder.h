#ifndef MIVO_SRC_VALUES_ENCODER_H_
#define MIVO_SRC_VALUES_ENCODER_H_

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

namespace mivo {

// Appends records of the parameter encoding in place. The start of `out` is the start of the encoding: every scalar
// record ends in a stamp that says where in `out` it stands, so bytes encoded elsewhere cannot be appended.
//
// Counts and stamps have 32 bits. What needs more wraps here and does not decode; it cannot be sent either, for a frame
// holds half of that.
//
// Texts may view `out` itself. An operation that runs out of memory throws std::bad_alloc and leaves `out` as it was.

inline constexpr std::size_t kIntRecordSize = 9;
inline constexpr std::size_t kBoolRecordSize = 6;
inline constexpr std::size_t kDoubleRecordSize = 13;
inline constexpr std::size_t kListHeaderSize = 5;  // the elements follow
inline constexpr std::size_t kTextHeadSize = 5;    // of a string or stream: what stands before its bytes
inline constexpr std::size_t kStampSize = 4;       // the last bytes of a scalar's record
constexpr std::size_t StringRecordSize(std::size_t length) {
  return 9 + length;
}
constexpr std::size_t StreamRecordSize(std::size_t length) {
  return 9 + length;
}
// The part of a pair before its value record.
constexpr std::size_t KeySize(std::size_t key_length) {
  return 1 + StringRecordSize(key_length);
}

// Makes room for `size` more bytes in one step, growing geometrically; std::string::reserve promises no such growth.
// Views among `sources` that show `out` are made to show it where it goes.
void ReserveMore(std::string& out, std::size_t size, std::initializer_list<std::string_view*> sources = {});

void AppendInt(std::string& out, std::int32_t value);
void AppendBool(std::string& out, bool value);
void AppendDouble(std::string& out, double value);
void AppendString(std::string& out, std::string_view text);
void AppendStream(std::string& out, std::string_view bytes);

// Opens a pair; the next scalar appended is its value.
void AppendKey(std::string& out, std::string_view key);
void AppendKeyValueInt(std::string& out, std::string_view key, std::int32_t value);
void AppendKeyValueBool(std::string& out, std::string_view key, bool value);
void AppendKeyValueDouble(std::string& out, std::string_view key, double value);
void AppendKeyValueString(std::string& out, std::string_view key, std::string_view text);
void AppendKeyValueStream(std::string& out, std::string_view key, std::string_view bytes);

// Opens a list; the next `count` scalars appended are its elements.
void AppendListHeader(std::string& out, std::uint32_t count);

}  // namespace mivo

#endif  // MIVO_SRC_VALUES_ENCODER_H_
