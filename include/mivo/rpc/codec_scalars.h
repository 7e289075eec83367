// How single values travel in parameter sets: booleans, numbers, texts, bytes. See codec.h.
#ifndef MIVO_RPC_CODEC_SCALARS_H_
#define MIVO_RPC_CODEC_SCALARS_H_

#include <mivo/params.h>
#include <mivo/rpc/error.h>
#include <mivo/rpc/place.h>
#include <mivo/value.h>

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace mivo {

// Bytes of somebody else's, to be sent. Read bytes into a std::vector<std::byte>.
struct Bytes {
  Bytes(const void* first, std::size_t count) : data(static_cast<const char*>(first)), size(count) {}
  explicit Bytes(const std::vector<std::byte>& bytes) : Bytes(bytes.data(), bytes.size()) {}
  const char* data;
  std::size_t size;
};

namespace rpc {

// Where the next value goes: behind the others, or under a key.
class Slot {
 public:
  explicit Slot(MIVOParams& set) : set_(set) {}
  Slot(MIVOParams& set, const char* key) : set_(set), key_(key) {}

  void Bool(bool value) const { key_ == nullptr ? set_.AddBool(value) : set_.AddKeyValueBool(key_, value); }
  void Int(std::int32_t value) const { key_ == nullptr ? set_.AddInt(value) : set_.AddKeyValueInt(key_, value); }
  void Double(double value) const { key_ == nullptr ? set_.AddDouble(value) : set_.AddKeyValueDouble(key_, value); }
  // Up to the NUL byte.
  void CString(const char* text) const { key_ == nullptr ? set_.AddString(text) : set_.AddKeyValueString(key_, text); }
  void Stream(const char* bytes, std::size_t size) const {
    const long length = static_cast<long>(size);
    key_ == nullptr ? set_.AddStream(bytes, length) : set_.AddKeyValueStream(key_, bytes, length);
  }
  // A text that may hold NUL bytes, or end without one.
  void Text(std::string_view text) const {
    if (text.find('\0') != std::string_view::npos) {
      Stream(text.data(), text.size());
    } else {
      CString(std::string(text).c_str());
    }
  }
  void Set(MIVOParams& inner) const { Stream(inner.GetParamasPtr(), inner.GetParamas()->size()); }

  // Null under a key.
  MIVOParams* positional_set() const { return key_ == nullptr ? &set_ : nullptr; }

 private:
  MIVOParams& set_;
  const char* key_ = nullptr;
};

inline std::string KindOf(const MIVOValue* value) {
  if (value == nullptr) return "nothing";
  switch (value->type) {
    case MIVOValue::Bool:
      return "a bool";
    case MIVOValue::Int:
      return "a whole number";
    case MIVOValue::Double:
      return "a double";
    case MIVOValue::String:
      return "a text";
    case MIVOValue::Stream:
      return "bytes";
    case MIVOValue::List:
      return "a list";
    case MIVOValue::ListMap:
      return "a list map";
    case MIVOValue::None:
      break;
  }
  return "nothing";
}

inline std::string_view TextOf(const MIVOValue& value) {
  long size = 0;
  const char* const bytes = value.GetStream(size);
  return bytes == nullptr ? std::string_view() : std::string_view(bytes, static_cast<std::size_t>(size));
}

template <class T>
struct AlwaysFalse : std::false_type {};

// Write(slot, value), Read(value or null, where) and Name() for each type that travels.
template <class T, class = void>
struct Codec {
  static_assert(AlwaysFalse<T>::value,
                "mivo: this type cannot travel. Structs need MIVO_FIELDS(Type, field, ...) in their namespace.");
  // So that this is all that the compiler has to say.
  static std::string Name();
  static void Write(const Slot& slot, const T& value);
  static T Read(const MIVOValue* value, const Place& place);
};

// A set that stands for one value.
inline void ReadSet(const MIVOValue* value, const Place& place, const std::string& expected, MIVOParams* set) {
  if (value == nullptr || !value->IsStream()) place.Fail(expected, KindOf(value));
  if (place.depth > Place::kDeepest) place.Fail(expected, "something nested too deeply");
  const std::string_view bytes = TextOf(*value);
  if (bytes.size() > static_cast<std::size_t>(std::numeric_limits<int>::max()) ||
      !set->Parser(bytes.data(), static_cast<int>(bytes.size()))) {
    place.Fail(expected, "bytes that are no set of values");
  }
}

template <class T>
struct IsCharacter : std::bool_constant<std::is_same_v<T, char> || std::is_same_v<T, wchar_t> ||
                                        std::is_same_v<T, char16_t> || std::is_same_v<T, char32_t>> {};

template <>
struct Codec<bool> {
  static std::string Name() { return "bool"; }
  static void Write(const Slot& slot, bool value) { slot.Bool(value); }
  static bool Read(const MIVOValue* value, const Place& place) {
    if (value == nullptr || !value->IsBool()) place.Fail("a bool", KindOf(value));
    return value->GetBool();
  }
};

// Whole numbers of every width are written and read as one of the two widest.
template <class Widest>
void WriteWhole(const Slot& slot, Widest number) {
  using Int = std::numeric_limits<std::int32_t>;
  bool fits = number <= Widest{Int::max()};
  if constexpr (std::is_signed_v<Widest>) fits = fits && number >= Widest{Int::min()};
  if (fits) return slot.Int(static_cast<std::int32_t>(number));
  char digits[24];
  *std::to_chars(digits, digits + sizeof digits - 1, number).ptr = '\0';
  slot.CString(digits);
}

// From `least` to `most`, which are those of the type whose name is `name` and a number of bits.
template <class Widest>
Widest ReadWhole(const MIVOValue* value, const Place& place, const char* name, std::size_t size, Widest least,
                 Widest most) {
  const auto expected = [name, size] {
    return name + std::to_string(std::numeric_limits<unsigned char>::digits * size);
  };
  Widest number{};
  if (value != nullptr && value->IsInt()) {
    const std::int32_t narrow = value->GetInt();
    number = static_cast<Widest>(narrow);
    const bool is_too_low = std::is_unsigned_v<Widest> && narrow < 0;
    if (is_too_low || number < least || number > most) place.Fail(expected(), std::to_string(narrow));
    return number;
  }
  if (value == nullptr || !value->IsString()) place.Fail("a whole number", KindOf(value));
  const std::string_view digits = TextOf(*value);
  const char* const last = digits.data() + digits.size();
  // A number all the same, for types that have no negative ones.
  const bool is_too_low = std::is_unsigned_v<Widest> && !digits.empty() && digits.front() == '-';
  const auto end = std::from_chars(digits.data() + (is_too_low ? 1 : 0), last, number);
  if (end.ec == std::errc::invalid_argument || end.ptr != last) place.Fail("a whole number", "a text");
  if (end.ec != std::errc() || is_too_low || number < least || number > most) {
    place.Fail(expected(), std::string(digits.substr(0, 40)));
  }
  return number;
}

template <class T>
struct Codec<T, std::enable_if_t<std::is_integral_v<T> && !IsCharacter<T>::value && !std::is_same_v<T, bool>>> {
  using Widest = std::conditional_t<std::is_signed_v<T>, std::int64_t, std::uint64_t>;
  static constexpr const char* kName = std::is_signed_v<T> ? "int" : "uint";
  static std::string Name() { return kName + std::to_string(std::numeric_limits<unsigned char>::digits * sizeof(T)); }
  static void Write(const Slot& slot, T value) { WriteWhole(slot, static_cast<Widest>(value)); }
  static T Read(const MIVOValue* value, const Place& place) {
    using Limits = std::numeric_limits<T>;
    return static_cast<T>(ReadWhole<Widest>(value, place, kName, sizeof(T), Limits::min(), Limits::max()));
  }
};

template <class T>
struct Codec<T, std::enable_if_t<std::is_floating_point_v<T> && sizeof(T) <= sizeof(double)>> {
  static std::string Name() { return "double"; }
  static void Write(const Slot& slot, T value) { slot.Double(static_cast<double>(value)); }
  static T Read(const MIVOValue* value, const Place& place) {
    if (value != nullptr && value->IsInt()) return static_cast<T>(value->GetInt());
    if (value == nullptr || !value->IsDouble()) place.Fail("a number", KindOf(value));
    return static_cast<T>(value->GetDouble());
  }
};

template <class T>
struct Codec<T, std::enable_if_t<std::is_enum_v<T>>> {
  using Number = std::underlying_type_t<T>;
  static std::string Name() { return Codec<Number>::Name(); }
  static void Write(const Slot& slot, T value) { Codec<Number>::Write(slot, static_cast<Number>(value)); }
  static T Read(const MIVOValue* value, const Place& place) {
    return static_cast<T>(Codec<Number>::Read(value, place));
  }
};

template <>
struct Codec<std::string> {
  static std::string Name() { return "text"; }
  static void Write(const Slot& slot, const std::string& value) {
    if (std::memchr(value.data(), '\0', value.size()) == nullptr) return slot.CString(value.c_str());
    slot.Stream(value.data(), value.size());
  }
  static std::string Read(const MIVOValue* value, const Place& place) {
    if (value == nullptr || !(value->IsString() || value->IsStream())) place.Fail("a text", KindOf(value));
    return std::string(TextOf(*value));
  }
};

// On the way out only: nothing would own what they view.
template <class T>
struct SentOnly {
  template <class Value>
  static T Read(const Value*, const Place&) {
    static_assert(AlwaysFalse<Value>::value,
                  "mivo: what is received needs an owner; take a std::string or a std::vector<std::byte>");
  }
};
template <>
struct Codec<std::string_view> : SentOnly<std::string_view> {
  static std::string Name() { return "text"; }
  static void Write(const Slot& slot, std::string_view value) { slot.Text(value); }
};
template <>
struct Codec<const char*> : SentOnly<const char*> {
  static std::string Name() { return "text"; }
  static void Write(const Slot& slot, const char* value) { slot.CString(value == nullptr ? "" : value); }
};
template <>
struct Codec<char*> : Codec<const char*> {};
template <>
struct Codec<Bytes> : SentOnly<Bytes> {
  static std::string Name() { return "bytes"; }
  static void Write(const Slot& slot, const Bytes& value) { slot.Stream(value.data, value.size); }
};

template <>
struct Codec<std::vector<std::byte>> {
  static std::string Name() { return "bytes"; }
  static void Write(const Slot& slot, const std::vector<std::byte>& value) {
    slot.Stream(reinterpret_cast<const char*>(value.data()), value.size());
  }
  static std::vector<std::byte> Read(const MIVOValue* value, const Place& place) {
    if (value == nullptr || !(value->IsString() || value->IsStream())) place.Fail("bytes", KindOf(value));
    const std::string_view bytes = TextOf(*value);
    const auto* const first = reinterpret_cast<const std::byte*>(bytes.data());
    return {first, first + bytes.size()};
  }
};

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_CODEC_SCALARS_H_
