// What two processes have taken from the machine so far: the client, which asks, and its server.
#ifndef MIVO_BENCH_HARNESS_USAGE_H_
#define MIVO_BENCH_HARNESS_USAGE_H_

#include <cstdint>
#include <nlohmann/json_fwd.hpp>

namespace bench {

struct Usage {
  double client_cpu_s = 0;
  double server_cpu_s = 0;
  // Voluntary context switches, those of threads that have ended included.
  std::int64_t client_switches = 0;
  std::int64_t server_switches = 0;
  // Negative in programs that do not count them.
  std::int64_t client_allocations = -1;
  std::int64_t server_allocations = -1;
};

// How often memory was allocated, in programs that are linked with allocation_count.cpp; -1 in the others.
std::int64_t AllocationsNow();

// In a server: answers the question below for ever. Other processes see the switches of threads only while they live.
[[noreturn]] void ServeUsage();

// `server_pid` 0: the client's only.
Usage UsageNow(int server_pid);

// Adds, for what was used since `begin`: cpu_s_100k (and client_..., server_...), switches and, where they are
// counted, allocations (the same), per call.
void AddUsagePerCall(const Usage& begin, int server_pid, double calls, nlohmann::json& result);

}  // namespace bench

#endif  // MIVO_BENCH_HARNESS_USAGE_H_
