#include "calls/handler_table.h"

#include <gtest/gtest.h>
#include <mivo/handler.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "calls/in_order_method.h"
#include "support/handlers.h"

namespace mivo {
namespace {

using mivo_test::Deletions;
using mivo_test::LambdaMethod;
using mivo_test::LambdaMethodAll;
using SecondRegistration = HandlerTable::SecondRegistration;

constexpr SecondRegistration kBoth[] = {SecondRegistration::kIsIgnored, SecondRegistration::kReplaces};

LambdaMethod* NewMethod(Deletions& deletions) {
  return new LambdaMethod(nullptr, &deletions);
}
LambdaMethodAll* NewCatchAll(Deletions& deletions) {
  return new LambdaMethodAll(nullptr, &deletions);
}

void End(HandlerTable& table) {
  table.Close(nullptr);
  table.Release();
}

TEST(HandlerTable, FindsWhatIsRegistered) {
  for (const SecondRegistration second : kBoth) {
    HandlerTable table(second);
    Deletions deletions;
    LambdaMethod* const one = NewMethod(deletions);
    LambdaMethod* const two = NewMethod(deletions);
    table.Register("one", one);
    table.Register("two", two);
    EXPECT_EQ(table.Find("one"), one);
    EXPECT_EQ(table.Find("two"), two);
    EXPECT_EQ(table.Find("three"), nullptr);
    EXPECT_EQ(table.Find(""), nullptr);
    EXPECT_EQ(table.Find("on"), nullptr);
    EXPECT_EQ(table.Find("one "), nullptr);
    EXPECT_EQ(table.CatchAll(), nullptr);
    End(table);
    EXPECT_EQ(deletions.count, 2);
  }
}

TEST(HandlerTable, TakesNoNameForTheEmptyOne) {
  HandlerTable table(SecondRegistration::kReplaces);
  Deletions deletions;
  LambdaMethod* const handler = NewMethod(deletions);
  table.Register(nullptr, handler);
  EXPECT_EQ(table.Find(""), handler);
  End(table);
}

TEST(HandlerTable, TakesNoHandlerForNotRegistered) {
  for (const SecondRegistration second : kBoth) {
    HandlerTable table(second);
    table.Register("name", nullptr);
    table.RegisterCatchAll(nullptr);
    EXPECT_EQ(table.Find("name"), nullptr);
    EXPECT_EQ(table.CatchAll(), nullptr);
    End(table);
  }
}

TEST(HandlerTable, OfAClientKeepsTheFirstRegistration) {
  HandlerTable table(SecondRegistration::kIsIgnored);
  Deletions first_deletions;
  Deletions second_deletions;
  LambdaMethod* const first = NewMethod(first_deletions);
  LambdaMethod second(nullptr, &second_deletions);
  table.Register("name", first);
  table.Register("name", &second);
  EXPECT_EQ(table.Find("name"), first);

  LambdaMethodAll* const first_all = NewCatchAll(first_deletions);
  LambdaMethodAll second_all(nullptr, &second_deletions);
  table.RegisterCatchAll(first_all);
  table.RegisterCatchAll(&second_all);
  EXPECT_EQ(table.CatchAll(), first_all);

  End(table);
  EXPECT_EQ(first_deletions.count, 2);
  // Those that were ignored are still their maker's.
  EXPECT_EQ(second_deletions.count, 0);
}

TEST(HandlerTable, OfAServerKeepsTheLastRegistration) {
  HandlerTable table(SecondRegistration::kReplaces);
  Deletions first_deletions;
  Deletions second_deletions;
  LambdaMethod first(nullptr, &first_deletions);
  LambdaMethod* const second = NewMethod(second_deletions);
  table.Register("name", &first);
  table.Register("name", second);
  EXPECT_EQ(table.Find("name"), second);

  LambdaMethodAll first_all(nullptr, &first_deletions);
  LambdaMethodAll* const second_all = NewCatchAll(second_deletions);
  table.RegisterCatchAll(&first_all);
  table.RegisterCatchAll(second_all);
  EXPECT_EQ(table.CatchAll(), second_all);

  End(table);
  // Those that were replaced are their maker's again.
  EXPECT_EQ(first_deletions.count, 0);
  EXPECT_EQ(second_deletions.count, 2);
}

TEST(HandlerTable, OfAServerTakesAHandlerAwayForNone) {
  HandlerTable table(SecondRegistration::kReplaces);
  Deletions deletions;
  LambdaMethod handler(nullptr, &deletions);
  table.Register("name", &handler);
  table.Register("name", nullptr);
  EXPECT_EQ(table.Find("name"), nullptr);
  End(table);
  EXPECT_EQ(deletions.count, 0);
}

TEST(HandlerTable, LeavesBuiltinHandlersToTheirOwner) {
  for (const SecondRegistration second : kBoth) {
    HandlerTable table(second);
    Deletions builtin_deletions;
    Deletions deletions;
    LambdaMethod builtin(nullptr, &builtin_deletions);
    table.RegisterBuiltin("builtin", &builtin);
    table.Register("name", NewMethod(deletions));
    EXPECT_EQ(table.Find("builtin"), &builtin);
    End(table);
    EXPECT_EQ(builtin_deletions.count, 0);
    EXPECT_EQ(deletions.count, 1);
    EXPECT_EQ(table.Find("builtin"), nullptr);
  }
}

TEST(HandlerTable, LetsAnApplicationTakeTheNameOfABuiltinHandlerOnAServer) {
  HandlerTable table(SecondRegistration::kReplaces);
  Deletions builtin_deletions;
  Deletions deletions;
  LambdaMethod builtin(nullptr, &builtin_deletions);
  table.RegisterBuiltin("builtin", &builtin);
  LambdaMethod* const own = NewMethod(deletions);
  table.Register("builtin", own);
  // As at the next start.
  table.RegisterBuiltin("builtin", &builtin);
  EXPECT_EQ(table.Find("builtin"), own);
  End(table);
  EXPECT_EQ(builtin_deletions.count, 0);
  EXPECT_EQ(deletions.count, 1);
}

class InOrderLambda : public InOrderMethod {
 public:
  void OnCall(int, MIVOParams*, MIVOParams*) override {}
  std::unique_ptr<IServerMethod> Arrive(std::string_view) override { return nullptr; }
};

TEST(HandlerTable, KnowsWhichHandlerHearsOfItsRequestsWhenTheyArrive) {
  for (const SecondRegistration second : kBoth) {
    HandlerTable table(second);
    InOrderLambda in_order;
    LambdaMethod builtin(nullptr);
    table.RegisterInOrder("in order", &in_order);
    table.RegisterBuiltin("builtin", &builtin);
    EXPECT_EQ(table.Find("in order"), &in_order);
    EXPECT_EQ(table.FindInOrder("in order"), &in_order);
    EXPECT_EQ(table.FindInOrder("builtin"), nullptr);
    EXPECT_EQ(table.FindInOrder("nobody"), nullptr);
    End(table);
    EXPECT_EQ(table.FindInOrder("in order"), nullptr);
    table.Open();
    EXPECT_EQ(table.FindInOrder("in order"), nullptr);
    table.RegisterInOrder("in order", &in_order);
    EXPECT_EQ(table.FindInOrder("in order"), &in_order);
    End(table);
  }
}

TEST(HandlerTable, TellsNoHandlerOfArrivalsUnderANameThatTheApplicationHasTaken) {
  HandlerTable table(SecondRegistration::kReplaces);
  InOrderLambda in_order;
  Deletions deletions;
  table.RegisterInOrder("in order", &in_order);
  table.Register("in order", NewMethod(deletions));
  EXPECT_EQ(table.FindInOrder("in order"), nullptr);
  End(table);
  EXPECT_EQ(deletions.count, 1);
}

TEST(HandlerTable, FindsNothingOnceClosed) {
  for (const SecondRegistration second : kBoth) {
    HandlerTable table(second);
    Deletions deletions;
    table.Register("name", NewMethod(deletions));
    table.RegisterCatchAll(NewCatchAll(deletions));
    table.Close(nullptr);
    EXPECT_EQ(table.Find("name"), nullptr);
    EXPECT_EQ(table.CatchAll(), nullptr);
    // A handler may still be running: nothing is deleted yet.
    EXPECT_EQ(deletions.count, 0);
    table.Release();
    EXPECT_EQ(deletions.count, 2);
    table.Release();
    table.Close(nullptr);
    table.Release();
    EXPECT_EQ(deletions.count, 2);
  }
}

TEST(HandlerTable, DeletesAHandlerOfTwoNamesOnce) {
  for (const SecondRegistration second : kBoth) {
    HandlerTable table(second);
    Deletions deletions;
    LambdaMethod* const handler = NewMethod(deletions);
    table.Register("one", handler);
    table.Register("two", handler);
    End(table);
    EXPECT_EQ(deletions.count, 1);
  }
}

TEST(HandlerTable, DeletesOnlyWhatWasThereWhenItClosed) {
  for (const SecondRegistration second : kBoth) {
    HandlerTable table(second);
    Deletions before;
    Deletions meanwhile;
    table.Register("before", NewMethod(before));
    table.Close(nullptr);
    LambdaMethod* const handler = NewMethod(meanwhile);
    table.Register("meanwhile", handler);
    table.Release();
    EXPECT_EQ(before.count, 1);
    EXPECT_EQ(meanwhile.count, 0);
    EXPECT_EQ(table.Find("meanwhile"), nullptr);
    table.Open();
    EXPECT_EQ(table.Find("meanwhile"), handler);
    EXPECT_EQ(table.Find("before"), nullptr);
    End(table);
    EXPECT_EQ(meanwhile.count, 1);
  }
}

TEST(HandlerTable, DeletesWhatTwoClosesTookOutBeforeItWasReleased) {
  HandlerTable table(SecondRegistration::kIsIgnored);
  Deletions deletions;
  table.Register("one", NewMethod(deletions));
  table.Close(nullptr);
  table.Register("two", NewMethod(deletions));
  table.Close(nullptr);
  table.Release();
  EXPECT_EQ(deletions.count, 2);
}

TEST(HandlerTable, OfAClientForgetsTheHandlersThatItDoesNotOwn) {
  HandlerTable table(SecondRegistration::kIsIgnored);
  Deletions deletions;
  LambdaMethod handler(nullptr, &deletions);
  LambdaMethodAll catch_all(nullptr, &deletions);
  table.KeepHandlers();
  table.Register("name", &handler);
  table.RegisterCatchAll(&catch_all);
  End(table);
  EXPECT_EQ(deletions.count, 0);
  table.Open();
  EXPECT_EQ(table.Find("name"), nullptr);
  EXPECT_EQ(table.CatchAll(), nullptr);
}

TEST(HandlerTable, OfAServerFindsTheHandlersThatItDoesNotOwnAfterTheNextStart) {
  HandlerTable table(SecondRegistration::kReplaces);
  Deletions deletions;
  LambdaMethod handler(nullptr, &deletions);
  LambdaMethodAll catch_all(nullptr, &deletions);
  table.Register("name", &handler);
  table.RegisterCatchAll(&catch_all);
  table.KeepHandlers();
  End(table);
  EXPECT_EQ(deletions.count, 0);
  EXPECT_EQ(table.Find("name"), nullptr);
  EXPECT_EQ(table.CatchAll(), nullptr);
  table.Open();
  EXPECT_EQ(table.Find("name"), &handler);
  EXPECT_EQ(table.CatchAll(), &catch_all);
}

TEST(HandlerTable, SaysWhetherAHandlerIsAmongThoseToBeDeleted) {
  for (const SecondRegistration second : kBoth) {
    Deletions deletions;
    {
      HandlerTable table(second);
      LambdaMethod* const handler = NewMethod(deletions);
      table.Register("name", handler);
      EXPECT_TRUE(table.Close(handler));
      table.Release();
    }
    {
      HandlerTable table(second);
      LambdaMethod other(nullptr);
      table.Register("name", NewMethod(deletions));
      EXPECT_FALSE(table.Close(&other));
      EXPECT_FALSE(table.Close(nullptr));
      table.Release();
    }
    {
      HandlerTable table(second);
      LambdaMethod handler(nullptr);
      table.RegisterBuiltin("builtin", &handler);
      EXPECT_FALSE(table.Close(&handler));
    }
    {
      HandlerTable table(second);
      LambdaMethod handler(nullptr);
      table.KeepHandlers();
      table.Register("name", &handler);
      EXPECT_FALSE(table.Close(&handler));
    }
  }
}

TEST(HandlerTable, MayBeUsedByTheDestructorsOfItsHandlers) {
  class Chatty : public IServerMethod {
   public:
    explicit Chatty(std::function<void()> last_words) : last_words_(std::move(last_words)) {}
    ~Chatty() override { last_words_(); }
    Chatty(const Chatty&) = delete;
    Chatty& operator=(const Chatty&) = delete;
    void OnCall(int, MIVOParams*, MIVOParams*) override {}

   private:
    const std::function<void()> last_words_;
  };
  HandlerTable table(SecondRegistration::kReplaces);
  bool was_heard = false;
  table.Register("name", new Chatty([&] {
                   was_heard = true;
                   EXPECT_EQ(table.Find("name"), nullptr);
                   table.Close(nullptr);
                   table.Release();
                 }));
  End(table);
  EXPECT_TRUE(was_heard);
}

TEST(HandlerTable, MayBeUsedBySeveralThreads) {
  HandlerTable table(SecondRegistration::kReplaces);
  LambdaMethod handlers[4] = {LambdaMethod(nullptr), LambdaMethod(nullptr), LambdaMethod(nullptr),
                              LambdaMethod(nullptr)};
  LambdaMethodAll catch_all(nullptr);
  table.KeepHandlers();
  std::atomic<bool> stop{false};
  std::atomic<int> strangers{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < 3; ++i) {
    readers.emplace_back([&] {
      while (!stop) {
        const IServerMethod* const found = table.Find("name");
        bool is_known = found == nullptr;
        for (const LambdaMethod& handler : handlers)
          is_known = is_known || found == &handler;
        const IMethodAll* const all = table.CatchAll();
        if (!is_known || (all != nullptr && all != &catch_all)) ++strangers;
      }
    });
  }
  for (int round = 0; round < 2000; ++round) {
    table.Register("name", &handlers[round % 4]);
    table.RegisterCatchAll(&catch_all);
    if (round % 10 == 0) {
      End(table);
      table.Open();
    }
  }
  stop = true;
  for (std::thread& reader : readers)
    reader.join();
  EXPECT_EQ(strangers, 0);
}

}  // namespace
}  // namespace mivo
