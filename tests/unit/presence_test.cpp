#include "base/presence.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "base/one_shot.h"

namespace mivo {
namespace {

TEST(Presence, DoesNotWaitForNobody) {
  Presence presence;
  presence.WaitUntilNobody();
  { const Presence::Scope inside(presence); }
  presence.WaitUntilNobody();
}

TEST(Presence, WaitsUntilTheLastHasLeft) {
  constexpr int kCallers = 3;
  Presence presence;
  OneShot leave;
  std::atomic<int> entered{0};
  std::atomic<int> leaving{0};
  std::vector<std::thread> callers;
  for (int i = 0; i < kCallers; ++i) {
    callers.emplace_back([&] {
      const Presence::Scope inside(presence);
      ++entered;
      leave.Wait();
      ++leaving;
    });
  }
  while (entered != kCallers)
    std::this_thread::yield();
  std::thread signaller([&] { leave.Set(); });
  presence.WaitUntilNobody();
  EXPECT_EQ(leaving, kCallers);
  signaller.join();
  for (std::thread& caller : callers)
    caller.join();
}

TEST(Presence, MayEndAsSoonAsTheLastHasLeft) {
  for (int round = 0; round < 300; ++round) {
    auto presence = std::make_unique<Presence>();
    OneShot entered;
    std::thread caller([&entered, inside_of = presence.get()] {
      const Presence::Scope inside(*inside_of);
      entered.Set();
    });
    entered.Wait();
    presence->WaitUntilNobody();
    presence.reset();
    caller.join();
  }
}

}  // namespace
}  // namespace mivo
