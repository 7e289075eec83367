#include "base/process.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

namespace mivo {
namespace {

// Whether `check` holds in a child of fork.
bool HoldsInChild(const std::function<bool()>& check) {
  const pid_t child = fork();
  if (child == 0) _exit(check() ? 0 : 1);
  int status = -1;
  return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(ForkGeneration, CountsTheForksOfTheLineAndNoneOfTheOthers) {
  const unsigned int here = ForkGeneration();
  EXPECT_TRUE(HoldsInChild([here] {
    return ForkGeneration() == here + 1 && HoldsInChild([here] { return ForkGeneration() == here + 2; });
  }));
  EXPECT_EQ(ForkGeneration(), here);
}

TEST(ProcessMark, KnowsTheProcessItWasMadeIn) {
  const ProcessMark mark;
  EXPECT_TRUE(mark.IsThisProcess());
  EXPECT_TRUE(HoldsInChild([&mark] { return !mark.IsThisProcess() && ProcessMark().IsThisProcess(); }));
  EXPECT_TRUE(mark.IsThisProcess());
}

}  // namespace
}  // namespace mivo
