// Random values of the types that travel, and random bytes in their place. A property that does not hold prints the
// values with which it does not, and with RC_PARAMS="seed=..." of what it prints they come again.
#include <mivo/rpc.h>

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/any_value.h"
#include "support/sanitizers.h"
#include "support/transport.h"

namespace shapes {

enum class Wide : std::int64_t {};
enum Narrow : unsigned char {};

struct Numbers {
  std::int8_t i8 = 0;
  std::uint8_t u8 = 0;
  std::int16_t i16 = 0;
  std::uint16_t u16 = 0;
  std::int32_t i32 = 0;
  std::uint32_t u32 = 0;
  std::int64_t i64 = 0;
  std::uint64_t u64 = 0;
  long long longest = 0;
  bool truth = false;
  float small = 0;
  double real = 0;
  Wide wide{};
  Narrow narrow{};
};
MIVO_FIELDS(Numbers, i8, u8, i16, u16, i32, u32, i64, u64, longest, truth, small, real, wide, narrow)

struct Texts {
  std::string text;
  std::vector<std::byte> bytes;
  std::vector<std::string> lines;
  std::map<std::string, std::string> by_name;
  std::optional<std::string> note;
};
MIVO_FIELDS(Texts, text, bytes, lines, by_name, note)

struct Node {
  Numbers numbers;
  std::vector<Texts> texts;
  std::optional<std::vector<double>> weights;
};
MIVO_FIELDS(Node, numbers, texts, weights)

struct Everything {
  std::vector<std::map<std::string, Node>> nodes;
  std::array<std::pair<Wide, std::optional<Texts>>, 2> labels;
  std::tuple<bool, std::vector<bool>, std::tuple<std::string>, std::tuple<>> mixed;
  std::optional<std::optional<int>> twice;
  std::array<double, 0> none;
};
MIVO_FIELDS(Everything, nodes, labels, mixed, twice, none)

}  // namespace shapes

namespace {

using mivo_test::Any;
using mivo_test::Same;
using shapes::Everything;
using shapes::Narrow;
using shapes::Node;
using shapes::Numbers;
using shapes::Texts;
using shapes::Wide;

// Under a sanitizer a fifth of them has to do, unless somebody says how many.
[[maybe_unused]] const int fewer = mivo_test::kSanitized ? setenv("RC_PARAMS", "max_success=20", 0) : 0;

// Holds for whatever is generated in it.
template <class Property>
void ExpectOfAny(const Property& property) {
  EXPECT_TRUE(rc::check(property)) << "the values with which it does not hold stand above";
}

template <class T>
MIVOParams Encoded(const T& value) {
  MIVOParams set;
  mivo::rpc::AddArgument(set, value);
  return set;
}

// What a receiver has of it.
void Receive(MIVOParams& set, const std::string& bytes) {
  set.Parser(bytes.data(), static_cast<int>(bytes.size()));
}

template <class... T>
std::tuple<T...> ReadAs(const MIVOParams& set) {
  return mivo::rpc::ReadArguments<std::tuple<T...>>::From(set);
}

// Whether they are read, or refused as they should be; what else is thrown fails the property.
template <class T>
bool IsReadable(const std::string& bytes) {
  MIVOParams set;
  Receive(set, bytes);
  bool is_readable = true;
  try {
    ReadAs<T>(set);
  } catch (const mivo::WrongType&) {
    is_readable = false;
  }
  try {
    mivo::rpc::ReadResult<T>("name", set);
  } catch (const mivo::WrongType&) {
    is_readable = false;
  }
  return is_readable;
}

template <class T>
class RpcAnyValue : public testing::Test {};

using Types =
    testing::Types<std::int8_t, std::uint16_t, int, std::uint32_t, std::int64_t, std::uint64_t, bool, float, double,
                   Wide, Narrow, std::string, std::vector<std::byte>, std::vector<bool>, std::vector<int>,
                   std::vector<double>, std::vector<std::string>, std::map<std::string, std::vector<std::int64_t>>,
                   std::array<std::string, 3>, std::optional<std::vector<std::optional<int>>>,
                   std::pair<std::string, std::optional<double>>, std::tuple<>, Numbers, Texts, Everything>;
TYPED_TEST_SUITE(RpcAnyValue, Types);

TYPED_TEST(RpcAnyValue, ComesBackFromItsBytesAsItWas) {
  ExpectOfAny([] {
    const TypeParam sent = *Any<TypeParam>::Value();
    MIVOParams received;
    Receive(received, *Encoded(sent).GetParamas());
    RC_ASSERT(Same<TypeParam>::Are(std::get<0>(ReadAs<TypeParam>(received)), sent));
    RC_ASSERT(Same<TypeParam>::Are(mivo::rpc::ReadResult<TypeParam>("name", received), sent));
  });
}

TYPED_TEST(RpcAnyValue, WithBitsTurnedOrCutOffIsReadOrRefused) {
  ExpectOfAny([] {
    std::string bytes = *Encoded(TypeParam(*Any<TypeParam>::Value())).GetParamas();
    RC_ASSERT(IsReadable<TypeParam>(bytes));
    for (int turned = *rc::gen::inRange(0, 5); turned > 0; --turned) {
      const auto bit = *rc::gen::inRange<std::size_t>(0, 8 * bytes.size());
      bytes[bit / 8] = static_cast<char>(bytes[bit / 8] ^ (1 << bit % 8));
    }
    IsReadable<TypeParam>(bytes);
    bytes.resize(*rc::gen::inRange<std::size_t>(0, bytes.size() + 1));
    IsReadable<TypeParam>(bytes);
  });
}

TYPED_TEST(RpcAnyValue, IsNotMadeOfAnythingElse) {
  ExpectOfAny([] {
    IsReadable<TypeParam>(*rc::gen::container<std::string>(mivo_test::AnyByte(0)));
    // What stands in a stream is decoded only when it is read.
    const auto inner = *rc::gen::container<std::string>(mivo_test::AnyByte(0));
    IsReadable<TypeParam>(*Encoded(mivo::Bytes(inner.data(), inner.size())).GetParamas());
    // A value of some other type.
    IsReadable<TypeParam>(*Encoded(Texts(*Any<Texts>::Value())).GetParamas());
    IsReadable<TypeParam>(*Encoded(Node(*Any<Node>::Value())).GetParamas());
    IsReadable<TypeParam>(*Encoded(std::vector<std::string>(*Any<std::vector<std::string>>::Value())).GetParamas());
  });
}

class RpcAnyCall : public testing::Test {
 protected:
  RpcAnyCall() {
    server_.listen(address_);
    client_ = std::make_unique<mivo::Client>(address_);
  }

  template <class T>
  void ExpectBack() {
    server_.on("echo", [](T value) { return value; });
    ExpectOfAny([this] {
      const T sent = *Any<T>::Value();
      RC_ASSERT(Same<T>::Are(client_->call<T>("echo", sent), sent));
      RC_ASSERT(Same<T>::Are(client_->async<T>("echo", sent).get(), sent));
    });
  }

  const std::string address_ = "unix:" + mivo_test::UniqueSocketName();
  mivo::Server server_;
  std::unique_ptr<mivo::Client> client_;
};

TEST_F(RpcAnyCall, BringsBackWhatWasSent) {
  ExpectBack<Everything>();
  ExpectBack<std::string>();
  ExpectBack<std::vector<std::string>>();
  ExpectBack<std::int64_t>();
}

TEST_F(RpcAnyCall, BringsEachArgumentToItsPlace) {
  using All = std::tuple<std::string, std::uint64_t, Numbers, std::vector<int>, std::optional<double>>;
  server_.on("echo",
             [](const std::string& text, std::uint64_t number, const Numbers& numbers, const std::vector<int>& list,
                std::optional<double> real) { return All(text, number, numbers, list, real); });
  ExpectOfAny([this] {
    const All sent = *Any<All>::Value();
    const All received =
        std::apply([this](const auto&... values) { return client_->call<All>("echo", values...); }, sent);
    RC_ASSERT(Same<All>::Are(received, sent));
  });
}

// --- Whole numbers ---

template <class T>
class RpcAnyWholeNumber : public testing::Test {};
using WholeNumbers = testing::Types<std::int8_t, std::uint8_t, std::int16_t, std::uint16_t, std::int32_t, std::uint32_t,
                                    std::int64_t, std::uint64_t>;
TYPED_TEST_SUITE(RpcAnyWholeNumber, WholeNumbers);

TYPED_TEST(RpcAnyWholeNumber, TravelsAsAnIntIfItFitsAndOtherwiseAsItsDigits) {
  ExpectOfAny([] {
    const TypeParam number = *Any<TypeParam>::Value();
    const std::string digits = std::to_string(number);
    MIVOParams set = Encoded(number);
    RC_ASSERT(set.ToParams());
    RC_ASSERT(set.ParamsSize() == 1);
    const MIVOValue* const value = set.GetValue(0);
    using Int32 = std::numeric_limits<std::int32_t>;
    // No 128 bits are needed to compare them.
    const bool fits = std::is_signed_v<TypeParam> ? static_cast<std::int64_t>(number) >= Int32::min() &&
                                                        static_cast<std::int64_t>(number) <= Int32::max()
                                                  : static_cast<std::uint64_t>(number) <= Int32::max();
    RC_ASSERT(value->IsInt() == fits);
    if (fits) {
      RC_ASSERT(std::to_string(value->GetInt()) == digits);
    } else {
      RC_ASSERT(value->IsString());
      RC_ASSERT(value->GetString() == digits);
    }
  });
}

// Every type of whole numbers reads what another one sends, if it has that number.
TYPED_TEST(RpcAnyWholeNumber, IsReadByOthersThatHaveItAndRefusedByThoseThatHaveNot) {
  ExpectOfAny([] {
    const auto sent = *Any<std::int64_t>::Value();
    MIVOParams received;
    Receive(received, *Encoded(sent).GetParamas());
    const auto wide = static_cast<TypeParam>(sent);
    const bool has = static_cast<std::int64_t>(wide) == sent && (sent >= 0 || std::is_signed_v<TypeParam>);
    std::string error;
    try {
      RC_ASSERT(std::get<0>(ReadAs<TypeParam>(received)) == wide);
    } catch (const mivo::WrongType& wrong) {
      error = wrong.what();
    }
    const std::string bits = std::to_string(8 * sizeof(TypeParam));
    const std::string expected = "argument 1: expected " + std::string(std::is_signed_v<TypeParam> ? "int" : "uint") +
                                 bits + ", found " + std::to_string(sent);
    RC_ASSERT(error == (has ? std::string() : expected));
  });
}

// --- Where the wrong type stands ---

template <class... T>
std::string RefusalOf(MIVOParams& set) {
  MIVOParams received;
  Receive(received, *set.GetParamas());
  try {
    ReadAs<T...>(received);
  } catch (const mivo::WrongType& wrong) {
    return wrong.what();
  }
  return "accepted";
}

// A value of each kind, and what it is called when something else was expected.
struct Kind {
  const char* name;
  void (*add)(MIVOParams& set);
};
const Kind kKinds[] = {
    {"a bool", [](MIVOParams& set) { set.AddBool(true); }},
    {"a whole number", [](MIVOParams& set) { set.AddInt(7); }},
    {"a double", [](MIVOParams& set) { set.AddDouble(0.5); }},
    {"a text", [](MIVOParams& set) { set.AddString("word"); }},
    {"bytes", [](MIVOParams& set) { set.AddStream("\x99", 1); }},
    {"a list",
     [](MIVOParams& set) {
       ListParams* const list = set.CreateListParams();
       list->AddBool(true);
       set.AddList(list);
     }},
};

struct Position {
  const char* expected;
  std::vector<std::string> accepted;  // kinds
  bool is_set;                        // bytes are looked into
  void (*add)(MIVOParams& set);
};
template <class T>
void AddSome(MIVOParams& set) {
  mivo::rpc::AddArgument(set, T{});
}

TEST(RpcWrongType, IsNamedAtEveryPositionOfASignature) {
  const Position positions[] = {
      {"a bool", {"a bool"}, false, AddSome<bool>},
      {"a whole number", {"a whole number"}, false, AddSome<std::int64_t>},
      {"a whole number", {"a whole number"}, false, AddSome<Narrow>},
      {"a number", {"a whole number", "a double"}, false, AddSome<double>},
      {"a text", {"a text", "bytes"}, false, AddSome<std::string>},
      {"bytes", {"a text", "bytes"}, false, AddSome<std::vector<std::byte>>},
      {"a list", {}, true, AddSome<std::vector<int>>},
      {"a list", {}, true, AddSome<std::array<int, 2>>},
      {"a map", {}, true, AddSome<std::map<std::string, int>>},
      {"(int32, list of text)", {}, true, AddSome<std::tuple<int, std::vector<std::string>>>},
      {"(int64, bool)", {}, true, AddSome<std::pair<std::int64_t, bool>>},
      {"Texts", {}, true, AddSome<Texts>},
      {"an optional value", {"a whole number"}, true, AddSome<std::optional<int>>},
  };
  const auto refusal = [](MIVOParams& set) {
    return RefusalOf<bool, std::int64_t, Narrow, double, std::string, std::vector<std::byte>, std::vector<int>,
                     std::array<int, 2>, std::map<std::string, int>, std::tuple<int, std::vector<std::string>>,
                     std::pair<std::int64_t, bool>, Texts, std::optional<int>>(set);
  };
  std::size_t wrong = 0;
  for (const Position& position : positions) {
    const std::string argument = "argument " + std::to_string(++wrong);
    for (const Kind& kind : kKinds) {
      MIVOParams set;
      for (const Position& other : positions)
        (&other == &position ? kind.add : other.add)(set);
      std::string found = kind.name;
      const bool is_optional = std::string(position.expected) == "an optional value";
      // What cannot be an optional value is looked at as the value itself.
      const char* const wanted = is_optional && found != "bytes" ? "a whole number" : position.expected;
      std::string expected = argument + ": expected " + wanted + ", found " + found;
      for (const std::string& accepted : position.accepted) {
        if (accepted == found) expected = "accepted";
      }
      if (position.is_set && found == "bytes") expected += " that are no set of values";
      // A list of the encoding's own is a list, and its elements are looked at.
      if (found == "a list" && std::string(position.expected) == "a list")
        expected = argument + "[0]: expected a whole number, found a bool";
      EXPECT_EQ(refusal(set), expected);
    }
    // The first that is missing is named; an optional value may be.
    MIVOParams few;
    for (const Position* other = positions; other != &position; ++other)
      other->add(few);
    const bool may_be_missing = std::string(position.expected) == "an optional value";
    EXPECT_EQ(refusal(few),
              may_be_missing ? "accepted" : argument + ": expected " + position.expected + ", found nothing");
  }
}

TEST(RpcWrongType, IsNamedWhereverItStands) {
  ExpectOfAny([] {
    using Inner = std::map<std::string, std::vector<std::pair<int, std::string>>>;
    using Read = std::map<std::string, std::vector<std::pair<int, int>>>;
    const auto before = *rc::gen::inRange<std::size_t>(0, 4);
    const auto argument = *rc::gen::inRange<std::size_t>(0, 2);
    const std::string key = *rc::gen::container<std::string>(rc::gen::inRange('a', 'z'));
    std::vector<Inner> wrong(before);
    wrong.push_back({{key, {{1, "text"}}}});
    MIVOParams set;
    mivo::rpc::AddArguments(set, argument == 0 ? wrong : std::vector<Inner>(),
                            argument == 1 ? wrong : std::vector<Inner>());
    RC_ASSERT((RefusalOf<std::vector<Read>, std::vector<Read>>(set)) ==
              "argument " + std::to_string(argument + 1) + "[" + std::to_string(before) + "]." + key +
                  "[0][1]: expected a whole number, found a text");
  });
}

TEST(RpcWrongType, IsATooLargeCountOfArgumentsToo) {
  ExpectOfAny([] {
    const auto count = *rc::gen::inRange(3, 50);
    MIVOParams set;
    for (int i = 0; i < count; ++i)
      set.AddInt(i);
    RC_ASSERT((RefusalOf<int, int>(set)) == "expected 2 arguments, found " + std::to_string(count));
  });
}

}  // namespace
