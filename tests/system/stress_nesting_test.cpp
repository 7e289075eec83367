#include "support/transport.h"
#include "system/nesting_runs.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

using namespace mivo_test;

namespace {

// Calls that nest deeper than the pool has workers. They cannot succeed; they must end.
class StarvedNesting : public NestingRuns, public testing::WithParamInterface<std::tuple<Transport, int>> {
 protected:
  Transport transport() const override { return std::get<0>(GetParam()); }
  int pool() const { return std::get<1>(GetParam()); }

  void ExpectTheEnd(const Outcome& outcome, int clients) {
    EXPECT_EQ(outcome.complete + outcome.incomplete, clients);
    EXPECT_GE(outcome.incomplete, 1) << clients << " clients";
    EXPECT_LE(outcome.longest_overrun, kSweepAndSlack * kSlowdown) << clients << " clients";
  }
};

std::string CaseName(const testing::TestParamInfo<std::tuple<Transport, int>>& info) {
  return std::string(Name(std::get<0>(info.param))) + "WithAPoolOf" + std::to_string(std::get<1>(info.param));
}

INSTANTIATE_TEST_SUITE_P(OnLocalAndTcp, StarvedNesting,
                         testing::Combine(testing::Values(Transport::Local, Transport::Tcp4), testing::Range(1, 5)),
                         CaseName);

TEST_P(StarvedNesting, EndsWithTheTimeOutsInTwoProcesses) {
  for (const int clients : {1, 8})
    ExpectTheEnd(RunApart(pool(), clients, kDepth, kShortTimeout), clients);
}

TEST_P(StarvedNesting, EndsWithTheTimeOutsInOneProcess) {
  for (const int clients : {1, 8})
    ExpectTheEnd(RunTogether(pool(), clients, kDepth, kShortTimeout), clients);
}

}  // namespace
