// Random values of every type that travels, whether two are the same, and how they are shown.
#ifndef MIVO_TESTS_SUPPORT_ANY_VALUE_H_
#define MIVO_TESTS_SUPPORT_ANY_VALUE_H_

#include <mivo/rpc/fields.h>

#include <rapidcheck.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace mivo_test {

// Containers stay short however deeply they nest; what is in them has its full range.
constexpr int kFewElements = 4;
constexpr int kFullRange = 100;

// Any<T>::Value() generates them.
template <class T, class = void>
struct Any;

template <class T>
rc::Gen<T> AnyInside() {
  return rc::gen::resize(kFullRange, Any<T>::Value());
}

template <class Container, class... Element>
rc::Gen<Container> AnyFew(rc::Gen<Element>... elements) {
  return rc::gen::resize(kFewElements, rc::gen::container<Container>(std::move(elements)...));
}

template <>
struct Any<bool> {
  static rc::Gen<bool> Value() { return rc::gen::arbitrary<bool>(); }
};

// Those at which the way they travel changes are as likely as all others.
template <class T>
struct Any<T, std::enable_if_t<std::is_integral_v<T>>> {
  static rc::Gen<T> Value() {
    using Int32 = std::numeric_limits<std::int32_t>;
    std::vector<T> edges = {std::numeric_limits<T>::min(), std::numeric_limits<T>::max(), T{0}};
    if constexpr (sizeof(T) >= 4) edges.push_back(static_cast<T>(Int32::max()));
    if constexpr (sizeof(T) > 4 || std::is_unsigned_v<T>) {
      if constexpr (sizeof(T) >= 4) edges.push_back(static_cast<T>(static_cast<T>(Int32::max()) + 1));
    }
    if constexpr (std::is_signed_v<T> && sizeof(T) > 4) {
      edges.push_back(T{Int32::min()});
      edges.push_back(T{Int32::min()} - 1);
    }
    return rc::gen::oneOf(rc::gen::arbitrary<T>(), rc::gen::elementOf(edges));
  }
};

template <class T>
struct Any<T, std::enable_if_t<std::is_floating_point_v<T>>> {
  static rc::Gen<T> Value() {
    using Limits = std::numeric_limits<T>;
    const std::vector<T> odd = {T{0},
                                -T{0},
                                Limits::infinity(),
                                -Limits::infinity(),
                                Limits::max(),
                                Limits::lowest(),
                                Limits::min(),
                                Limits::denorm_min(),
                                Limits::quiet_NaN()};
    return rc::gen::oneOf(rc::gen::arbitrary<T>(), rc::gen::elementOf(odd));
  }
};

// Any number of the underlying type is a value.
template <class T>
struct Any<T, std::enable_if_t<std::is_enum_v<T>>> {
  static rc::Gen<T> Value() {
    using Number = std::underlying_type_t<T>;
    return rc::gen::map(Any<Number>::Value(), [](Number number) { return static_cast<T>(number); });
  }
};

inline rc::Gen<char> AnyByte(int first) {
  return rc::gen::map(rc::gen::inRange(first, 256), [](int byte) { return static_cast<char>(byte); });
}
// With and without NUL bytes, and hardly ever UTF-8.
template <>
struct Any<std::string> {
  static rc::Gen<std::string> Value() {
    return rc::gen::oneOf(rc::gen::container<std::string>(AnyByte(0)), rc::gen::container<std::string>(AnyByte(1)),
                          rc::gen::element(std::string(), std::string(1, '\0'), std::string("a\0", 2)));
  }
};
template <>
struct Any<std::byte> {
  static rc::Gen<std::byte> Value() {
    return rc::gen::map(AnyByte(0), [](char byte) { return static_cast<std::byte>(byte); });
  }
};

template <class T>
struct Any<std::vector<T>> {
  static rc::Gen<std::vector<T>> Value() { return AnyFew<std::vector<T>>(AnyInside<T>()); }
};
template <class T>
struct Any<std::map<std::string, T>> {
  static rc::Gen<std::map<std::string, T>> Value() {
    return AnyFew<std::map<std::string, T>>(rc::gen::resize(10, rc::gen::container<std::string>(AnyByte(1))),
                                            AnyInside<T>());
  }
};
template <class T, std::size_t kCount>
struct Any<std::array<T, kCount>> {
  static rc::Gen<std::array<T, kCount>> Value() {
    return rc::gen::map(rc::gen::container<std::vector<T>>(kCount, AnyInside<T>()), [](const std::vector<T>& elements) {
      std::array<T, kCount> all{};
      std::copy(elements.begin(), elements.end(), all.begin());
      return all;
    });
  }
};
template <class T>
struct Any<std::optional<T>> {
  static rc::Gen<std::optional<T>> Value() {
    return rc::gen::map(rc::gen::maybe(AnyInside<T>()),
                        [](const rc::Maybe<T>& maybe) { return maybe ? std::optional<T>(*maybe) : std::nullopt; });
  }
};
template <class... T>
struct Any<std::tuple<T...>> {
  static rc::Gen<std::tuple<T...>> Value() { return rc::gen::tuple(AnyInside<T>()...); }
};
template <class First, class Second>
struct Any<std::pair<First, Second>> {
  static rc::Gen<std::pair<First, Second>> Value() { return rc::gen::pair(AnyInside<First>(), AnyInside<Second>()); }
};

template <class T>
struct Any<T, std::enable_if_t<mivo::HasFields<T>::value>> {
  static rc::Gen<T> Value() {
    return rc::gen::exec([] {
      T all{};
      MivoEachField(static_cast<const T*>(nullptr), [&all](const char*, auto member) {
        all.*member = *AnyInside<std::decay_t<decltype(all.*member)>>();
      });
      return all;
    });
  }
};

// Bit for bit, so that no number is lost among those that are equal, or to none.
template <class T>
struct Same {
  static bool Are(const T& a, const T& b) {
    if constexpr (std::is_floating_point_v<T>) {
      return std::memcmp(&a, &b, sizeof a) == 0;
    } else if constexpr (mivo::HasFields<T>::value) {
      bool are_same = true;
      MivoEachField(static_cast<const T*>(nullptr), [&](const char*, auto member) {
        are_same = are_same && Same<std::decay_t<decltype(a.*member)>>::Are(a.*member, b.*member);
      });
      return are_same;
    } else {
      return a == b;
    }
  }
};
template <class Elements>
struct SameElements {
  static bool Are(const Elements& a, const Elements& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), Same<std::decay_t<decltype(*a.begin())>>::Are);
  }
};
template <class T>
struct Same<std::vector<T>> : SameElements<std::vector<T>> {};
template <>
struct Same<std::vector<bool>> {
  static bool Are(const std::vector<bool>& a, const std::vector<bool>& b) { return a == b; }
};
template <class T>
struct Same<std::map<std::string, T>> : SameElements<std::map<std::string, T>> {};
template <class T, std::size_t kCount>
struct Same<std::array<T, kCount>> : SameElements<std::array<T, kCount>> {};
template <class T>
struct Same<std::optional<T>> {
  static bool Are(const std::optional<T>& a, const std::optional<T>& b) {
    return a.has_value() == b.has_value() && (!a || Same<T>::Are(*a, *b));
  }
};
template <class... T>
struct Same<std::tuple<T...>> {
  static bool Are(const std::tuple<T...>& a, const std::tuple<T...>& b) {
    return Each(a, b, std::index_sequence_for<T...>());
  }
  template <std::size_t... kIndex>
  static bool Each(const std::tuple<T...>& a, const std::tuple<T...>& b, std::index_sequence<kIndex...>) {
    return (Same<T>::Are(std::get<kIndex>(a), std::get<kIndex>(b)) && ...);
  }
};
template <class First, class Second>
struct Same<std::pair<First, Second>> {
  static bool Are(const std::pair<First, Second>& a, const std::pair<First, Second>& b) {
    return Same<std::decay_t<First>>::Are(a.first, b.first) && Same<Second>::Are(a.second, b.second);
  }
};

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_ANY_VALUE_H_
