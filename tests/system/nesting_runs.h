// Runs of calls that nest, each in processes of its own.
#ifndef MIVO_TESTS_SYSTEM_NESTING_RUNS_H_
#define MIVO_TESTS_SYSTEM_NESTING_RUNS_H_

#include "support/child_process.h"
#include "support/sanitizers.h"
#include "support/transport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace mivo_test {

constexpr int kDepth = 8;
// Of calls that are expected to run out of workers.
constexpr int kShortTimeout = 1000;
// Of calls that are expected to succeed.
constexpr int kLongTimeout = 60000;
// What a call may take beyond its time-out: one sweep, at most the first one, and the delays of a busy machine.
constexpr int kSweepAndSlack = 500 + 10000;

struct Outcome {
  int complete = -1;
  int incomplete = -1;
  int longest_overrun = 1 << 30;
};

class NestingRuns : public testing::Test {
 protected:
  virtual Transport transport() const = 0;

  static std::vector<std::string> Arguments(const char* role, const Address& address, int timeout) {
    return {role, Name(address.transport), address.host.empty() ? "-" : address.host, address.name,
            std::to_string(timeout)};
  }
  static std::vector<std::string> Pool(int threads) { return {"UV_THREADPOOL_SIZE=" + std::to_string(threads)}; }

  static void ReadOverrun(ChildProcess* child, Outcome* outcome) {
    int overrun = 0;
    const std::string line = child->ReadLine().value_or("nothing");
    ASSERT_EQ(std::sscanf(line.c_str(), "overrun=%d", &overrun), 1) << line;
    outcome->longest_overrun = std::max(overrun, outcome->longest_overrun);
    EXPECT_EQ(child->WaitForExit(), 0);
  }
  static void ReadOutcome(ChildProcess* child, Outcome* outcome) {
    const std::string line = child->ReadLine(std::chrono::minutes(3)).value_or("nothing");
    ASSERT_EQ(std::sscanf(line.c_str(), "complete=%d incomplete=%d", &outcome->complete, &outcome->incomplete), 2)
        << line;
    outcome->longest_overrun = -(1 << 30);
    ReadOverrun(child, outcome);
  }

  // A server with its clients, in two processes or in one.
  Outcome RunApart(int pool, int clients, int depth, int timeout, const char* how = "fast") {
    const Address address = FreeAddress(transport());
    Outcome outcome;
    ChildProcess server(MIVO_TEST_NESTING_PEER, Arguments("server", address, timeout), Pool(pool));
    EXPECT_EQ(server.ReadLine(), "ready");
    auto arguments = Arguments("clients", address, timeout);
    arguments.insert(arguments.end(), {std::to_string(clients), std::to_string(depth), how});
    ChildProcess client(MIVO_TEST_NESTING_PEER, arguments, Pool(pool));
    ReadOutcome(&client, &outcome);
    server.CloseInput();
    ReadOverrun(&server, &outcome);
    return outcome;
  }
  Outcome RunTogether(int pool, int clients, int depth, int timeout, const char* how = "fast") {
    auto arguments = Arguments("both", FreeAddress(transport()), timeout);
    arguments.insert(arguments.end(), {std::to_string(clients), std::to_string(depth), how});
    Outcome outcome;
    ChildProcess both(MIVO_TEST_NESTING_PEER, arguments, Pool(pool));
    ReadOutcome(&both, &outcome);
    return outcome;
  }
};

}  // namespace mivo_test

#endif  // MIVO_TESTS_SYSTEM_NESTING_RUNS_H_
