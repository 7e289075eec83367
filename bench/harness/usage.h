// What two processes have taken from the machine so far: the client, which asks, and its server.
#ifndef MIVO_BENCH_HARNESS_USAGE_H_
#define MIVO_BENCH_HARNESS_USAGE_H_

#include <cstdint>
#include <nlohmann/json_fwd.hpp>

namespace bench {

struct Usage {
  double client_cpu_s = 0;
  double server_cpu_s = 0;
  // Voluntary context switches. The server's are those of the threads that it has now: one that ends takes its own
  // along.
  std::int64_t client_switches = 0;
  std::int64_t server_switches = 0;
};

// `server_pid` 0: the client's only.
Usage UsageNow(int server_pid);

// Adds, for what was used since `begin`: cpu_s_100k (and client_..., server_...), switches (the same), per call.
void AddUsagePerCall(const Usage& begin, int server_pid, double calls, nlohmann::json& result);

}  // namespace bench

#endif  // MIVO_BENCH_HARNESS_USAGE_H_
