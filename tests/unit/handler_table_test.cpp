#include "calls/handler_table.h"

#include <gtest/gtest.h>
#include <mivo/handler.h>

#include <atomic>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

#include "support/handlers.h"

namespace mivo {
namespace {

using mivo_test::Deletions;
using mivo_test::LambdaMethod;
using mivo_test::LambdaMethodAll;
using Rules = HandlerTable::Rules;

constexpr Rules kBoth[] = {Rules::kOfAClient, Rules::kOfAServer};

LambdaMethod* NewMethod(Deletions& deletions) {
  return new LambdaMethod(nullptr, &deletions);
}
LambdaMethodAll* NewCatchAll(Deletions& deletions) {
  return new LambdaMethodAll(nullptr, &deletions);
}

void End(HandlerTable& table) {
  table.Close().Delete();
}

TEST(HandlerTable, FindsWhatIsRegistered) {
  for (const Rules rules : kBoth) {
    HandlerTable table(rules);
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
  HandlerTable table(Rules::kOfAServer);
  Deletions deletions;
  LambdaMethod* const handler = NewMethod(deletions);
  table.Register(nullptr, handler);
  EXPECT_EQ(table.Find(""), handler);
  End(table);
}

TEST(HandlerTable, TakesNoHandlerForNotRegistered) {
  for (const Rules rules : kBoth) {
    HandlerTable table(rules);
    table.Register("name", nullptr);
    table.RegisterCatchAll(nullptr);
    EXPECT_EQ(table.Find("name"), nullptr);
    EXPECT_EQ(table.CatchAll(), nullptr);
    End(table);
  }
}

TEST(HandlerTable, OfAClientKeepsTheFirstRegistration) {
  HandlerTable table(Rules::kOfAClient);
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
  HandlerTable table(Rules::kOfAServer);
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
  HandlerTable table(Rules::kOfAServer);
  Deletions deletions;
  LambdaMethod handler(nullptr, &deletions);
  table.Register("name", &handler);
  table.Register("name", nullptr);
  EXPECT_EQ(table.Find("name"), nullptr);
  End(table);
  EXPECT_EQ(deletions.count, 0);
}

TEST(HandlerTable, LeavesBuiltinHandlersToTheirOwner) {
  for (const Rules rules : kBoth) {
    HandlerTable table(rules);
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
  HandlerTable table(Rules::kOfAServer);
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

TEST(HandlerTable, SaysWhoIsUnderAName) {
  for (const Rules rules : kBoth) {
    HandlerTable table(rules);
    Deletions deletions;
    LambdaMethod builtin(nullptr);
    LambdaMethod stranger(nullptr);
    LambdaMethod* const handler = NewMethod(deletions);
    table.RegisterBuiltin("builtin", &builtin);
    table.Register("name", handler);
    EXPECT_TRUE(table.IsUnder("builtin", builtin));
    EXPECT_TRUE(table.IsUnder("name", *handler));
    EXPECT_FALSE(table.IsUnder("name", builtin));
    EXPECT_FALSE(table.IsUnder("builtin", stranger));
    EXPECT_FALSE(table.IsUnder("nobody", stranger));
    ClosedHandlers closed = table.Close();
    EXPECT_FALSE(table.IsUnder("builtin", builtin));
    EXPECT_FALSE(table.IsUnder("name", *handler));
    closed.Delete();
    table.Open();
    EXPECT_TRUE(table.IsUnder("builtin", builtin));
  }
}

TEST(HandlerTable, KnowsThatABuiltinHandlerHasLostItsName) {
  HandlerTable table(Rules::kOfAServer);
  Deletions deletions;
  LambdaMethod builtin(nullptr);
  table.RegisterBuiltin("builtin", &builtin);
  table.Register("builtin", NewMethod(deletions));
  EXPECT_FALSE(table.IsUnder("builtin", builtin));
  End(table);
}

TEST(HandlerTable, FindsNothingOnceClosed) {
  for (const Rules rules : kBoth) {
    HandlerTable table(rules);
    Deletions deletions;
    table.Register("name", NewMethod(deletions));
    table.RegisterCatchAll(NewCatchAll(deletions));
    ClosedHandlers closed = table.Close();
    EXPECT_EQ(table.Find("name"), nullptr);
    EXPECT_EQ(table.CatchAll(), nullptr);
    // A handler may still be running: nothing is deleted yet.
    EXPECT_EQ(deletions.count, 0);
    closed.Delete();
    EXPECT_EQ(deletions.count, 2);
    closed.Delete();
    End(table);
    EXPECT_EQ(deletions.count, 2);
  }
}

TEST(HandlerTable, DeletesAHandlerOfTwoNamesOnce) {
  for (const Rules rules : kBoth) {
    HandlerTable table(rules);
    Deletions deletions;
    LambdaMethod* const handler = NewMethod(deletions);
    table.Register("one", handler);
    table.Register("two", handler);
    End(table);
    EXPECT_EQ(deletions.count, 1);
  }
}

TEST(HandlerTable, DeletesOnlyWhatWasThereWhenItClosed) {
  for (const Rules rules : kBoth) {
    HandlerTable table(rules);
    Deletions before;
    Deletions meanwhile;
    table.Register("before", NewMethod(before));
    ClosedHandlers closed = table.Close();
    LambdaMethod* const handler = NewMethod(meanwhile);
    table.Register("meanwhile", handler);
    closed.Delete();
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

TEST(HandlerTable, GivesEachCloseWhatWasRegisteredBeforeIt) {
  HandlerTable table(Rules::kOfAClient);
  Deletions first;
  Deletions second;
  table.Register("one", NewMethod(first));
  ClosedHandlers closed_first = table.Close();
  table.Register("two", NewMethod(second));
  {
    const ClosedHandlers closed_second = table.Close();
    EXPECT_EQ(second.count, 0);
  }
  EXPECT_EQ(second.count, 1) << "at the latest with the set";
  EXPECT_EQ(first.count, 0) << "somebody else's";
  closed_first = ClosedHandlers();
  EXPECT_EQ(first.count, 1);
}

TEST(HandlerTable, KeepsItsBuiltinHandlersThroughAClose) {
  for (const Rules rules : kBoth) {
    HandlerTable table(rules);
    LambdaMethod builtin(nullptr);
    LambdaMethod taker(nullptr);
    table.RegisterBuiltin("builtin", &builtin);
    End(table);
    if (rules == Rules::kOfAClient) table.Register("builtin", &taker);
    table.Open();
    EXPECT_EQ(table.Find("builtin"), &builtin) << "and nobody takes its name on a client";
  }
}

TEST(HandlerTable, DeletesAnObjectThatIsMethodAndCatchAllOnce) {
  class Both : public IServerMethod, public IMethodAll {
   public:
    explicit Both(int* deletions) : deletions_(deletions) {}
    ~Both() override { ++*deletions_; }
    Both(const Both&) = delete;
    Both& operator=(const Both&) = delete;
    void OnCall(int, MIVOParams*, MIVOParams*) override {}
    void OnCall(const char*, int, MIVOParams*, MIVOParams*) override {}

   private:
    int* const deletions_;
  };
  for (const Rules rules : kBoth) {
    HandlerTable table(rules);
    int deletions = 0;
    Both* const both = new Both(&deletions);
    table.Register("name", both);
    table.RegisterCatchAll(both);
    End(table);
    EXPECT_EQ(deletions, 1);
  }
}

TEST(HandlerTable, OfAClientForgetsTheHandlersThatItDoesNotOwn) {
  HandlerTable table(Rules::kOfAClient);
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
  HandlerTable table(Rules::kOfAServer);
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
  for (const Rules rules : kBoth) {
    Deletions deletions;
    {
      HandlerTable table(rules);
      LambdaMethod* const handler = NewMethod(deletions);
      table.Register("name", handler);
      EXPECT_TRUE(table.Close().Contains(handler));
    }
    {
      HandlerTable table(rules);
      LambdaMethod other(nullptr);
      table.Register("name", NewMethod(deletions));
      const ClosedHandlers closed = table.Close();
      EXPECT_FALSE(closed.Contains(&other));
      EXPECT_FALSE(closed.Contains(nullptr));
    }
    {
      HandlerTable table(rules);
      LambdaMethod handler(nullptr);
      table.RegisterBuiltin("builtin", &handler);
      EXPECT_FALSE(table.Close().Contains(&handler));
    }
    {
      HandlerTable table(rules);
      LambdaMethod handler(nullptr);
      table.KeepHandlers();
      table.Register("name", &handler);
      EXPECT_FALSE(table.Close().Contains(&handler));
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
  HandlerTable table(Rules::kOfAServer);
  bool was_heard = false;
  table.Register("name", new Chatty([&] {
                   was_heard = true;
                   EXPECT_EQ(table.Find("name"), nullptr);
                   End(table);
                 }));
  End(table);
  EXPECT_TRUE(was_heard);
}

TEST(HandlerTable, MayBeUsedBySeveralThreads) {
  HandlerTable table(Rules::kOfAServer);
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
