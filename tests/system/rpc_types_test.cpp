// What travels between the typed layer and itself, and between it and the plain interface.
#include <mivo/mivo.h>
#include <mivo/rpc.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <climits>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "support/transport.h"

namespace shop {

enum class Color : std::uint8_t { kRed = 1, kBlue = 250 };

struct Item {
  std::string name;
  std::int64_t size = 0;
  std::optional<double> weight;
  bool operator==(const Item& other) const {
    return std::tie(name, size, weight) == std::tie(other.name, other.size, other.weight);
  }
};
MIVO_FIELDS(Item, name, size, weight)

struct Order {
  std::vector<Item> items;
  std::map<std::string, std::vector<int>> counts;
  std::pair<std::string, Color> label;
  std::optional<Item> extra;
  std::array<std::uint64_t, 2> ids{};
  bool operator==(const Order& other) const {
    return std::tie(items, counts, label, extra, ids) ==
           std::tie(other.items, other.counts, other.label, other.extra, other.ids);
  }
};
MIVO_FIELDS(Order, items, counts, label, extra, ids)

// Holds itself, as deeply as the bytes say.
struct Tree {
  std::vector<Tree> branches;
};
MIVO_FIELDS(Tree, branches)

}  // namespace shop

namespace {

using shop::Color;
using shop::Item;
using shop::Order;
using shop::Tree;

class RpcTypes : public testing::Test {
 protected:
  RpcTypes() { server_.listen(address_); }

  template <class T>
  void OfferEcho() {
    server_.on("echo", [](const T& value) { return value; });
  }
  template <class T>
  T Echo(const T& value) {
    return client().call<T>("echo", value);
  }
  mivo::Client& client() {
    if (!client_) client_ = std::make_unique<mivo::Client>(address_);
    return *client_;
  }
  // The text of what a call is refused with.
  template <class T, class... A>
  std::string Refusal(const std::string& name, const A&... arguments) {
    try {
      client().call<T>(name, arguments...);
    } catch (const mivo::WrongType& error) {
      return error.what();
    }
    return "accepted";
  }

  const std::string name_ = mivo_test::UniqueSocketName();
  const std::string address_ = "unix:" + name_;
  mivo::Server server_;
  std::unique_ptr<mivo::Client> client_;
};

TEST_F(RpcTypes, NumbersComeBackAsTheyWere) {
  OfferEcho<std::int64_t>();
  for (const std::int64_t number :
       {std::int64_t{0}, std::int64_t{-1}, std::int64_t{INT_MAX}, std::int64_t{INT_MIN}, std::int64_t{INT_MAX} + 1,
        std::int64_t{INT_MIN} - 1, std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::int64_t>::min()})
    EXPECT_EQ(Echo(number), number);
  OfferEcho<std::uint64_t>();
  for (const std::uint64_t number : {std::uint64_t{0}, std::uint64_t{INT_MAX}, std::uint64_t{INT_MAX} + 1,
                                     std::numeric_limits<std::uint64_t>::max()})
    EXPECT_EQ(Echo(number), number);
  OfferEcho<std::uint32_t>();
  EXPECT_EQ(Echo(std::numeric_limits<std::uint32_t>::max()), std::numeric_limits<std::uint32_t>::max());
  OfferEcho<std::int8_t>();
  EXPECT_EQ(Echo(std::int8_t{-128}), -128);
  OfferEcho<double>();
  EXPECT_EQ(Echo(-0.1), -0.1);
  OfferEcho<bool>();
  EXPECT_EQ(Echo(true), true);
  EXPECT_EQ(Echo(false), false);
  OfferEcho<Color>();
  EXPECT_EQ(Echo(Color::kBlue), Color::kBlue);
}

TEST_F(RpcTypes, NumbersThatDoNotFitAreRefused) {
  server_.on("byte", [](std::uint8_t) {});
  server_.on("int", [](int) {});
  server_.on("unsigned", [](std::uint64_t) {});
  EXPECT_EQ(Refusal<void>("byte", 256), "byte: argument 1: expected uint8, found 256");
  EXPECT_EQ(Refusal<void>("byte", -1), "byte: argument 1: expected uint8, found -1");
  EXPECT_EQ(Refusal<void>("byte", std::int64_t{1} << 40), "byte: argument 1: expected uint8, found 1099511627776");
  EXPECT_EQ(Refusal<void>("int", std::int64_t{INT_MAX} + 1), "int: argument 1: expected int32, found 2147483648");
  EXPECT_EQ(Refusal<void>("unsigned", -1), "unsigned: argument 1: expected uint64, found -1");
  EXPECT_EQ(Refusal<void>("unsigned", "12x"), "unsigned: argument 1: expected a whole number, found a text");
  EXPECT_EQ(Refusal<void>("int", 1.0), "int: argument 1: expected a whole number, found a double");
}

TEST_F(RpcTypes, TextsAndBytesComeBackWithAllTheirBytes) {
  OfferEcho<std::string>();
  for (const std::string& text :
       {std::string(), std::string("text"), std::string("a\0b\0", 4), std::string(100000, 'x')})
    EXPECT_EQ(Echo(text), text);
  EXPECT_EQ(client().call<std::string>("echo", "literal"), "literal");
  EXPECT_EQ(client().call<std::string>("echo", std::string_view("view of it", 4)), "view");
  OfferEcho<std::vector<std::byte>>();
  const std::vector<std::byte> bytes = {std::byte{0}, std::byte{255}, std::byte{7}};
  EXPECT_EQ(Echo(bytes), bytes);
  EXPECT_EQ(client().call<std::vector<std::byte>>("echo", mivo::Bytes(bytes)), bytes);
  EXPECT_EQ(Echo(std::vector<std::byte>()), std::vector<std::byte>());
}

TEST_F(RpcTypes, ContainersComeBackAsTheyWere) {
  OfferEcho<std::vector<int>>();
  EXPECT_EQ(Echo(std::vector<int>()), std::vector<int>());
  EXPECT_EQ(Echo(std::vector<int>{1, -2}), (std::vector<int>{1, -2}));
  OfferEcho<std::vector<bool>>();
  EXPECT_EQ(Echo(std::vector<bool>{true, false}), (std::vector<bool>{true, false}));
  OfferEcho<std::vector<std::string>>();
  const std::vector<std::string> texts = {"", "a", std::string("a\0b", 3)};
  EXPECT_EQ(Echo(texts), texts);
  using Nested = std::vector<std::vector<std::map<std::string, std::optional<std::tuple<int, double, std::string>>>>>;
  OfferEcho<Nested>();
  const Nested nested = {{}, {{{"none", std::nullopt}, {"one", {{1, 2.5, "x"}}}}, {}}};
  EXPECT_EQ(Echo(nested), nested);
  OfferEcho<std::array<double, 3>>();
  EXPECT_EQ(Echo(std::array<double, 3>{1, 2, 3}), (std::array<double, 3>{1, 2, 3}));
  EXPECT_EQ(Refusal<void>("echo", std::vector<double>{1, 2}),
            "echo: argument 1: expected list of 3 double, found 2 elements");
}

TEST_F(RpcTypes, StructsComeBackAsTheyWere) {
  OfferEcho<Order>();
  Order order;
  EXPECT_EQ(Echo(order), order);
  order = {{{"a", 1, 2.5}, {"b", std::int64_t{1} << 50, std::nullopt}},
           {{"x", {1, 2}}, {"", {}}},
           {"label", Color::kRed},
           Item{"extra", -1, 0.0},
           {1, std::numeric_limits<std::uint64_t>::max()}};
  EXPECT_EQ(Echo(order), order);
}

TEST_F(RpcTypes, AMismatchIsNamedByItsPlace) {
  server_.on("order", [](int, const Order&) {});
  server_.on("item", [](const Item&) {});
  struct {
    std::vector<Item> items{{"a", 1, std::nullopt}};
  } some;
  EXPECT_EQ(Refusal<void>("order", 1, 2), "order: argument 2: expected Order, found a whole number");
  EXPECT_EQ(Refusal<void>("order", 1), "order: argument 2: expected Order, found nothing");
  EXPECT_EQ(Refusal<void>("order", 1, Order(), 3), "order: expected 2 arguments, found 3");
  EXPECT_EQ(Refusal<void>("item", Order()), "item: argument 1.name: expected a text, found nothing");
  EXPECT_EQ(Refusal<void>("order", 1, some.items), "order: argument 2.items: expected a list, found nothing");
  EXPECT_EQ(Refusal<void>("item", mivo::Bytes("\x99", 1)),
            "item: argument 1: expected Item, found bytes that are no set of values");
  EXPECT_EQ(Refusal<int>("order", 1, Order()), "order: result: expected a whole number, found nothing");
}

TEST_F(RpcTypes, WhatNestsWithoutEndIsRefused) {
  server_.on("tree", [](const Tree&) {});
  Tree tree;
  for (int i = 0; i < 40; ++i) {
    Tree outer;
    outer.branches.push_back(std::move(tree));
    tree = std::move(outer);
  }
  client().call("tree", tree);
  for (int i = 0; i < 40; ++i) {
    Tree outer;
    outer.branches.push_back(std::move(tree));
    tree = std::move(outer);
  }
  EXPECT_NE(Refusal<void>("tree", tree).find("nested too deeply"), std::string::npos);
}

TEST_F(RpcTypes, OptionalArgumentsMayBeMissingAtTheEnd) {
  server_.on("greet", [](const std::string& name, std::optional<int> times) {
    return name + std::to_string(times.value_or(1));
  });
  EXPECT_EQ(client().call<std::string>("greet", "a"), "a1");
  EXPECT_EQ(client().call<std::string>("greet", "a", std::optional<int>(3)), "a3");
  EXPECT_EQ(client().call<std::string>("greet", "a", 3), "a3");
  EXPECT_THROW(client().call<std::string>("greet", "a", "three"), mivo::WrongType);
}

TEST_F(RpcTypes, MoveOnlyResultsAndNoResultAreResults) {
  std::atomic<int> touched{0};
  server_.on("touch", [&touched] { ++touched; });
  client().call("touch");
  EXPECT_EQ(touched, 1);
  server_.on("both", [](int number, std::string text) { return std::make_pair(number, std::move(text)); });
  EXPECT_EQ((client().call<std::pair<int, std::string>>("both", 1, "x")), std::make_pair(1, std::string("x")));
}

// --- The plain interface on one side ---

struct PlainClient {
  explicit PlainClient(const std::string& name) {
    client->log(nullptr, 0);
    connected = client->InitMIVOClient(name.c_str(), true);
  }
  ~PlainClient() { DestroyClient(client); }
  IClient* const client = CreateClient();
  bool connected = false;
};

TEST_F(RpcTypes, PlainClientsCallTypedHandlers) {
  server_.on(
      "scalars", [](int a, const std::string& text, double real, bool yes, const std::vector<std::string>& list) {
        return text + std::to_string(a) + (yes ? "y" : "n") + std::to_string(static_cast<int>(real)) + list.at(1);
      });
  server_.on("item", [](const Item& item) { return Item{item.name + "!", item.size + 1, std::nullopt}; });
  PlainClient plain(name_);
  ASSERT_TRUE(plain.connected);
  {
    MIVOParams request;
    request.AddInt(7);
    request.AddString("t");
    request.AddDouble(2.5);
    request.AddBool(true);
    ListParams* const list = request.CreateListParams();
    list->AddString("one", 3);
    list->AddString("two", 3);
    request.AddList(list);
    const MIVOParams* const reply = plain.client->SendMsgFast("scalars", &request, 0, 10000);
    ASSERT_NE(reply->GetValue(0), nullptr);
    EXPECT_STREQ(reply->GetValue(0)->GetString(), "t7y2two");
  }
  {
    // A struct is a set in a stream, its fields under their names.
    MIVOParams item;
    item.AddKeyValueString("name", "n");
    item.AddKeyValueString("size", "1099511627776");
    MIVOParams request;
    request.AddStream(item.GetParamasPtr(), item.GetParamasSize());
    const MIVOParams* const reply = plain.client->SendMsgFast("item", &request, 0, 10000);
    ASSERT_NE(reply->GetValue(0), nullptr);
    long size = 0;
    const char* const bytes = reply->GetValue(0)->GetStream(size);
    MIVOParams returned;
    ASSERT_TRUE(returned.Parser(bytes, static_cast<int>(size)));
    EXPECT_STREQ(returned.GetMap("name")->GetString(), "n!");
    EXPECT_STREQ(returned.GetMap("size")->GetString(), "1099511627777");
    EXPECT_EQ(returned.GetMap("weight"), nullptr);
  }
  {
    const MIVOParams* const reply = plain.client->SendMsgFast("item", nullptr, 0, 10000);
    ASSERT_NE(reply->GetMap("s_c_error"), nullptr);
    EXPECT_STREQ(reply->GetMap("s_c_error")->GetString(), "mivo.wrong_type");
    EXPECT_STREQ(reply->GetMap("s_c_error_text")->GetString(), "item: argument 1: expected Item, found nothing");
  }
}

TEST_F(RpcTypes, AnOptionalValueIsOneOrNone) {
  server_.on("times", [](std::optional<int> times) { return times.value_or(-1); });
  PlainClient plain(name_);
  ASSERT_TRUE(plain.connected);
  MIVOParams values;
  for (int count = 0; count < 4; ++count) {
    MIVOParams request;
    request.AddStream(values.GetParamasPtr(), values.GetParamasSize());
    const MIVOParams* const reply = plain.client->SendMsgFast("times", &request, 0, 10000);
    if (count < 2) {
      ASSERT_NE(reply->GetValue(0), nullptr);
      EXPECT_EQ(reply->GetValue(0)->GetInt(), count == 0 ? -1 : 7);
    } else {
      ASSERT_NE(reply->GetMap("s_c_error_text"), nullptr) << count;
      EXPECT_EQ(std::string(reply->GetMap("s_c_error_text")->GetString()),
                "times: argument 1: expected an optional value, found " + std::to_string(count) + " values");
    }
    values.AddInt(7 + count);
  }
}

struct PlainMethod : IServerMethod {
  void OnCall(int, MIVOParams* request, MIVOParams* reply) override {
    const MIVOValue* const list = request->GetValue(0);
    const bool is_list = list != nullptr && list->IsList();
    reply->AddInt(is_list ? static_cast<int>(list->list.size()) : -1);
  }
};

TEST(RpcWithAPlainServer, CallsItsMethodsAndKnowsThoseItLacks) {
  const std::string name = mivo_test::UniqueSocketName();
  IServer* const server = CreateServer();
  server->log(nullptr, 0);
  server->method("count", new PlainMethod);
  ASSERT_TRUE(server->InitMIVOServer(name.c_str()));
  {
    const mivo::Client client("unix:" + name);
    EXPECT_EQ(client.call<int>("count", std::vector<int>{1, 2, 3}), 3) << "a list is a list to everybody";
    EXPECT_EQ(client.call<int>("count", 1), -1);
    EXPECT_THROW(client.call<int>("missing"), mivo::NoSuchMethod);
    EXPECT_THROW(client.call<std::string>("missing"), mivo::NoSuchMethod);
    EXPECT_THROW(client.call<std::string>("count", 1), mivo::WrongType);
  }
  DestroyServer(server);
}

// What travels, byte for byte, is a promise to peers of other versions.
TEST(RpcBytes, AreThoseOfTheDocument) {
  MIVOParams set;
  mivo::rpc::AddArguments(set, 7, std::int64_t{1} << 31, Item{"n", 2, std::nullopt}, std::optional<int>(),
                          std::vector<int>{5});
  MIVOParams item;
  item.AddKeyValueString("name", "n");
  item.AddKeyValueInt("size", 2);
  MIVOParams expected;
  expected.AddInt(7);
  expected.AddString("2147483648");
  expected.AddStream(item.GetParamasPtr(), item.GetParamasSize());
  expected.AddStream("", 0);
  ListParams* const list = expected.CreateListParams();
  list->AddInt(5);
  expected.AddList(list);
  EXPECT_EQ(*set.GetParamas(), *expected.GetParamas());
}

}  // namespace
