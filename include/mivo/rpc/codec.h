// How C++ values travel in parameter sets. The bytes are described in docs/wire_format.md.
//
// What the encoding can say travels as it says it: booleans, whole numbers of 32 bits, doubles, texts, bytes. A larger
// whole number is the text of its decimal digits. Whatever holds other values is a set of its own, in a stream: under
// keys for structs and maps, by position for all others.
#ifndef MIVO_RPC_CODEC_H_
#define MIVO_RPC_CODEC_H_

#include <mivo/params.h>
#include <mivo/rpc/error.h>
#include <mivo/rpc/fields.h>
#include <mivo/rpc/place.h>
#include <mivo/value.h>

#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
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

template <class T>
struct Codec<T, std::enable_if_t<std::is_integral_v<T> && !IsCharacter<T>::value && !std::is_same_v<T, bool>>> {
  static std::string Name() {
    return (std::is_signed_v<T> ? "int" : "uint") +
           std::to_string(std::numeric_limits<unsigned char>::digits * sizeof(T));
  }
  static void Write(const Slot& slot, T value) {
    constexpr bool always_fits = sizeof(T) < 4 || (sizeof(T) == 4 && std::is_signed_v<T>);
    if constexpr (always_fits) {
      slot.Int(value);
    } else {
      using Int = std::numeric_limits<std::int32_t>;
      bool fits = value <= static_cast<T>(Int::max());
      if constexpr (std::is_signed_v<T>) fits = fits && value >= Int::min();
      if (fits) {
        slot.Int(static_cast<std::int32_t>(value));
      } else {
        char digits[24];
        *std::to_chars(digits, digits + sizeof digits - 1, value).ptr = '\0';
        slot.CString(digits);
      }
    }
  }
  static T Read(const MIVOValue* value, const Place& place) {
    if (value != nullptr && value->IsInt()) {
      const std::int32_t number = value->GetInt();
      bool fits = true;
      if constexpr (std::is_unsigned_v<T>) fits = number >= 0;
      if constexpr (sizeof(T) < 4) {
        fits = fits && number <= static_cast<std::int32_t>(std::numeric_limits<T>::max());
        if constexpr (std::is_signed_v<T>)
          fits = fits && number >= static_cast<std::int32_t>(std::numeric_limits<T>::min());
      }
      if (!fits) place.Fail(Name(), std::to_string(number));
      return static_cast<T>(number);
    }
    if (value == nullptr || !value->IsString()) place.Fail("a whole number", KindOf(value));
    const std::string_view digits = TextOf(*value);
    T number{};
    const auto end = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (end.ec == std::errc::result_out_of_range) place.Fail(Name(), std::string(digits.substr(0, 40)));
    if (end.ec != std::errc() || end.ptr != digits.data() + digits.size()) place.Fail("a whole number", "a text");
    return number;
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
template <>
struct Codec<std::string_view> {
  static std::string Name() { return "text"; }
  static void Write(const Slot& slot, std::string_view value) { slot.Text(value); }
};
template <>
struct Codec<const char*> {
  static std::string Name() { return "text"; }
  static void Write(const Slot& slot, const char* value) { slot.CString(value == nullptr ? "" : value); }
};
template <>
struct Codec<char*> : Codec<const char*> {};
template <>
struct Codec<Bytes> {
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

// The elements of a list, whichever way they came: a list of the encoding's own, or a set.
template <class Take>
void ReadElements(const MIVOValue* value, const Place& place, const std::string& expected, Take take) {
  if (value != nullptr && value->IsList()) {
    std::size_t number = 0;
    for (const MIVOValue* const element : value->list) {
      take(element, Place(place, number));
      ++number;
    }
    return;
  }
  MIVOParams set;
  ReadSet(value, place, expected, &set);
  const std::size_t count = static_cast<std::size_t>(set.ParamsSize());
  for (std::size_t number = 0; number < count; ++number)
    take(set.GetValue(static_cast<int>(number)), Place(place, number));
}

template <class Elements>
void WriteElements(const Slot& slot, const Elements& elements) {
  MIVOParams set;
  for (auto&& element : elements)
    Codec<typename Elements::value_type>::Write(Slot(set), element);
  slot.Set(set);
}

template <class T>
struct Codec<std::vector<T>> {
  static std::string Name() { return "list of " + Codec<T>::Name(); }
  static void Write(const Slot& slot, const std::vector<T>& value) { WriteElements(slot, value); }
  static std::vector<T> Read(const MIVOValue* value, const Place& place) {
    std::vector<T> elements;
    ReadElements(value, place, "a list", [&elements](const MIVOValue* element, const Place& where) {
      elements.push_back(Codec<T>::Read(element, where));
    });
    return elements;
  }
};

template <class T, std::size_t kCount>
struct Codec<std::array<T, kCount>> {
  static std::string Name() { return "list of " + std::to_string(kCount) + " " + Codec<T>::Name(); }
  static void Write(const Slot& slot, const std::array<T, kCount>& value) { WriteElements(slot, value); }
  static std::array<T, kCount> Read(const MIVOValue* value, const Place& place) {
    std::vector<T> elements = Codec<std::vector<T>>::Read(value, place);
    if (elements.size() != kCount) place.Fail(Name(), std::to_string(elements.size()) + " elements");
    return Take(elements, std::make_index_sequence<kCount>());
  }

 private:
  template <std::size_t... kIndex>
  static std::array<T, kCount> Take([[maybe_unused]] std::vector<T>& elements, std::index_sequence<kIndex...>) {
    return {{std::move(elements[kIndex])...}};
  }
};

template <class T>
struct Codec<std::map<std::string, T>> {
  static std::string Name() { return "map of " + Codec<T>::Name(); }
  static void Write(const Slot& slot, const std::map<std::string, T>& value) {
    MIVOParams set;
    for (const auto& [key, element] : value) {
      if (key.find('\0') != std::string::npos) throw WrongType("a key of a map holds a NUL byte");
      Codec<T>::Write(Slot(set, key.c_str()), element);
    }
    slot.Set(set);
  }
  static std::map<std::string, T> Read(const MIVOValue* value, const Place& place) {
    std::map<std::string, T> elements;
    if (value != nullptr && value->type == MIVOValue::ListMap) {
      for (const auto& [key, element] : value->listMap)
        elements.emplace(key, Codec<T>::Read(element, Place(place, key.c_str())));
      return elements;
    }
    MIVOParams set;
    ReadSet(value, place, "a map", &set);
    for (const auto& [key, element] : *set.GetMapPtr())
      elements.emplace(key, Codec<T>::Read(element, Place(place, key)));
    return elements;
  }
};

template <class T>
struct IsOptional : std::false_type {};
template <class T>
struct IsOptional<std::optional<T>> : std::true_type {};

template <class T>
struct Codec<std::optional<T>> {
  static std::string Name() { return "optional " + Codec<T>::Name(); }
  static void Write(const Slot& slot, const std::optional<T>& value) {
    MIVOParams set;
    if (value) Codec<T>::Write(Slot(set), *value);
    slot.Set(set);
  }
  static std::optional<T> Read(const MIVOValue* value, const Place& place) {
    if (value == nullptr) return std::nullopt;
    MIVOParams set;
    ReadSet(value, place, "an optional value", &set);
    if (set.ParamsSize() == 0) return std::nullopt;
    return Codec<T>::Read(set.GetValue(0), place);
  }
};

// Several values, each with its own type.
template <class... T>
struct TupleCodec {
  using Indices = std::index_sequence_for<T...>;
  template <class Tuple, std::size_t... kIndex>
  static void WriteEach(MIVOParams& set, const Tuple& values, std::index_sequence<kIndex...>) {
    (Codec<T>::Write(Slot(set), std::get<kIndex>(values)), ...);
  }
  // What is missing at the end is nothing, which only an optional value can be.
  template <std::size_t... kIndex>
  static std::tuple<T...> ReadEach(const MIVOParams& set, const Place& place, std::index_sequence<kIndex...>) {
    return std::tuple<T...>{Codec<T>::Read(set.GetValue(static_cast<int>(kIndex)), Place(place, kIndex))...};
  }
  static std::tuple<T...> ReadAll(const MIVOParams& set, const Place& place) {
    const std::size_t count = static_cast<std::size_t>(set.ParamsSize());
    if (count > sizeof...(T)) {
      throw WrongType("expected " + std::to_string(sizeof...(T)) + " values of " + place.Text() + ", found " +
                      std::to_string(count));
    }
    return ReadEach(set, place, Indices());
  }
};

template <class... T>
struct Codec<std::tuple<T...>> {
  static std::string Name() { return "(" + Names() + ")"; }
  static void Write(const Slot& slot, const std::tuple<T...>& value) {
    MIVOParams set;
    TupleCodec<T...>::WriteEach(set, value, std::index_sequence_for<T...>());
    slot.Set(set);
  }
  static std::tuple<T...> Read(const MIVOValue* value, const Place& place) {
    MIVOParams set;
    ReadSet(value, place, Name(), &set);
    return TupleCodec<T...>::ReadAll(set, place);
  }

 private:
  static std::string Names() {
    std::string names;
    ((names += (names.empty() ? "" : ", ") + Codec<T>::Name()), ...);
    return names;
  }
};

template <class First, class Second>
struct Codec<std::pair<First, Second>> {
  using Tuple = Codec<std::tuple<First, Second>>;
  static std::string Name() { return Tuple::Name(); }
  static void Write(const Slot& slot, const std::pair<First, Second>& value) {
    MIVOParams set;
    TupleCodec<First, Second>::WriteEach(set, value, std::index_sequence<0, 1>());
    slot.Set(set);
  }
  static std::pair<First, Second> Read(const MIVOValue* value, const Place& place) {
    auto [first, second] = Tuple::Read(value, place);
    return {std::move(first), std::move(second)};
  }
};

template <class T>
struct Codec<T, std::enable_if_t<HasFields<T>::value>> {
  static std::string Name() { return MivoNameOf(static_cast<const T*>(nullptr)); }
  static void Write(const Slot& slot, const T& value) {
    MIVOParams set;
    const auto write = [&set, &value](const auto& field) {
      using Member = std::decay_t<decltype(value.*field.member)>;
      if constexpr (IsOptional<Member>::value) {
        const Member& member = value.*field.member;
        if (member) Codec<typename Member::value_type>::Write(Slot(set, field.name), *member);
      } else {
        Codec<Member>::Write(Slot(set, field.name), value.*field.member);
      }
    };
    std::apply([&write](const auto&... field) { (write(field), ...); }, MivoFieldsOf(static_cast<const T*>(nullptr)));
    slot.Set(set);
  }
  static T Read(const MIVOValue* value, const Place& place) {
    MIVOParams set;
    ReadSet(value, place, Name(), &set);
    T read{};
    const auto take = [&set, &place, &read](const auto& field) {
      using Member = std::decay_t<decltype(read.*field.member)>;
      const MIVOValue* const found = set.GetMap(field.name);
      if constexpr (IsOptional<Member>::value) {
        if (found != nullptr)
          read.*field.member = Codec<typename Member::value_type>::Read(found, Place(place, field.name));
      } else {
        read.*field.member = Codec<Member>::Read(found, Place(place, field.name));
      }
    };
    std::apply([&take](const auto&... field) { (take(field), ...); }, MivoFieldsOf(static_cast<const T*>(nullptr)));
    return read;
  }
};

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_CODEC_H_
