// How C++ values travel in parameter sets. The bytes are described in docs/wire_format.md.
//
// What the encoding can say travels as it says it: booleans, whole numbers of 32 bits, doubles, texts, bytes. A larger
// whole number is the text of its decimal digits. Whatever holds other values is a set of its own, in a stream: under
// keys for structs and maps, by position for all others.
#ifndef MIVO_RPC_CODEC_H_
#define MIVO_RPC_CODEC_H_

#include <mivo/params.h>
#include <mivo/rpc/codec_scalars.h>
#include <mivo/rpc/error.h>
#include <mivo/rpc/fields.h>
#include <mivo/rpc/place.h>
#include <mivo/value.h>

#include <array>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace mivo {
namespace rpc {

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
    // A value by itself, unless it might be taken for the other.
    if (!value->IsStream()) return Codec<T>::Read(value, place);
    MIVOParams set;
    ReadSet(value, place, "an optional value", &set);
    if (set.ParamsSize() == 0) return std::nullopt;
    if (set.ParamsSize() > 1) place.Fail("an optional value", std::to_string(set.ParamsSize()) + " values");
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
    MivoEachField(static_cast<const T*>(nullptr), [&set, &value](const char* name, auto member) {
      using Member = std::decay_t<decltype(value.*member)>;
      if constexpr (IsOptional<Member>::value) {
        const Member& field = value.*member;
        if (field) Codec<typename Member::value_type>::Write(Slot(set, name), *field);
      } else {
        Codec<Member>::Write(Slot(set, name), value.*member);
      }
    });
    slot.Set(set);
  }
  static T Read(const MIVOValue* value, const Place& place) {
    MIVOParams set;
    ReadSet(value, place, Name(), &set);
    T read{};
    MivoEachField(static_cast<const T*>(nullptr), [&set, &place, &read](const char* name, auto member) {
      using Member = std::decay_t<decltype(read.*member)>;
      const MIVOValue* const found = set.GetMap(name);
      if constexpr (IsOptional<Member>::value) {
        if (found != nullptr) read.*member = Codec<typename Member::value_type>::Read(found, Place(place, name));
      } else {
        read.*member = Codec<Member>::Read(found, Place(place, name));
      }
    });
    return read;
  }
};

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_CODEC_H_
