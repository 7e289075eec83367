#include "support/child_process.h"
#include "support/transport.h"
#include "system/nesting_runs.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

using namespace mivo_test;

namespace {

class Nesting : public NestingRuns, public testing::WithParamInterface<Transport> {
 protected:
  Transport transport() const override { return GetParam(); }
};

INSTANTIATE_TEST_SUITE_P(OnLocalAndTcp, Nesting, testing::Values(Transport::Local, Transport::Tcp4), TransportName);

// Down to depth 8 a server runs the levels 8, 6, 4, 2 and 0 of each client at once, a client 7, 5, 3 and 1.
TEST_P(Nesting, InTwoProcessesGoesAsDeepAsThePoolsAllow) {
  for (int pool = 1; pool <= 4; ++pool) {
    const int deepest = 2 * pool - 1;
    for (int depth = 1; depth <= deepest; ++depth) {
      const Outcome outcome = RunApart(pool, 1, depth, kLongTimeout);
      EXPECT_EQ(outcome.complete, 1) << "pool " << pool << ", depth " << depth;
    }
  }
}

TEST_P(Nesting, InOneProcessGoesAsDeepAsThePoolAllows) {
  for (int pool = 1; pool <= 4; ++pool) {
    const Outcome outcome = RunTogether(pool, 1, pool - 1, kLongTimeout);
    EXPECT_EQ(outcome.complete, 1) << "pool " << pool;
  }
}

TEST_P(Nesting, OfManyClientsAtOnceGoesToDepthEightWhereThePoolsAreLargeEnough) {
  for (const int clients : {1, 4, 8}) {
    EXPECT_EQ(RunApart(5 * clients, clients, kDepth, kLongTimeout).complete, clients);
    EXPECT_EQ(RunTogether(9 * clients, clients, kDepth, kLongTimeout).complete, clients);
  }
}

TEST_P(Nesting, OfManyClientsAtOnceNeedsNoMoreWorkersThanItHasLevelsOnOneSide) {
  // Depth 1 takes one worker of the server for each client, and one of the clients' process.
  EXPECT_EQ(RunApart(4, 4, 1, kLongTimeout).complete, 4);
  EXPECT_EQ(RunTogether(4, 2, 1, kLongTimeout).complete, 2);
}

TEST_P(Nesting, OfSerialisedCallsWaitsForItsOwnOuterCallUntilTheTimeOut) {
  // The outermost call holds the turn for which the next call of the same process waits.
  EXPECT_EQ(RunApart(4, 1, 1, kLongTimeout, "serialised").complete, 1);
  for (const Outcome& outcome :
       {RunApart(4, 1, 2, kShortTimeout, "serialised"), RunTogether(8, 1, 2, kShortTimeout, "serialised")}) {
    EXPECT_EQ(outcome.incomplete, 1);
    EXPECT_LE(outcome.longest_overrun, kSweepAndSlack * kSlowdown);
  }
}

// Slices of two processes' messages reach the server's workers at the same time.
TEST_P(Nesting, LargeMessagesOfTwoProcessesAtOnceAreEachPutTogetherRight) {
  const Address address = FreeAddress(GetParam());
  ChildProcess server(MIVO_TEST_NESTING_PEER, Arguments("server", address, kLongTimeout), {});
  ASSERT_EQ(server.ReadLine(), "ready");
  std::vector<std::unique_ptr<ChildProcess>> clients;
  for (const char* first_size : {"300001", "350003"}) {
    auto arguments = Arguments("large", address, kLongTimeout);
    arguments.insert(arguments.end(), {first_size, "20"});
    clients.push_back(std::make_unique<ChildProcess>(MIVO_TEST_NESTING_PEER, arguments, std::vector<std::string>()));
  }
  for (const auto& client : clients) {
    Outcome outcome;
    ReadOutcome(client.get(), &outcome);
    EXPECT_EQ(outcome.complete, 20);
    EXPECT_EQ(outcome.incomplete, 0);
  }
  server.CloseInput();
  EXPECT_TRUE(server.ReadLine());
  EXPECT_EQ(server.WaitForExit(), 0);
}

}  // namespace
