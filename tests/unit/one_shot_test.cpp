#include "base/one_shot.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

namespace mivo {
namespace {

TEST(OneShot, LetsAWaitThroughThatComesLater) {
  OneShot done;
  done.Set();
  done.Wait();
  // Also a second one.
  done.Wait();
}

TEST(OneShot, WakesEveryThreadThatWaits) {
  OneShot done;
  std::vector<std::thread> waiters;
  for (int i = 0; i < 4; ++i)
    waiters.emplace_back([&] { done.Wait(); });
  done.Set();
  for (std::thread& waiter : waiters)
    waiter.join();
}

TEST(OneShot, PublishesWhatWasWrittenBeforeItWasSet) {
  OneShot done;
  int written = 0;
  std::thread setter([&] {
    written = 7;
    done.Set();
  });
  done.Wait();
  EXPECT_EQ(written, 7);
  setter.join();
}

TEST(OneShot, MayEndAsSoonAsItsWaiterWakes) {
  // The sanitizers see it if Set touches the object after Wait has returned.
  for (int round = 0; round < 500; ++round) {
    auto done = std::make_unique<OneShot>();
    std::thread setter([shot = done.get()] { shot->Set(); });
    done->Wait();
    done.reset();
    setter.join();
  }
}

}  // namespace
}  // namespace mivo
