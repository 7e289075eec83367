#include "harness/usage.h"

#include <sys/resource.h>
#include <time.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <system_error>

namespace bench {
namespace {

double SecondsOf(clockid_t clock) {
  timespec time{};
  if (clock_gettime(clock, &time) != 0) return 0;
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

std::int64_t SwitchesOf(int pid) {
  std::int64_t sum = 0;
  std::error_code error;
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
  for (std::filesystem::directory_iterator task(tasks, error), end; !error && task != end; task.increment(error)) {
    std::ifstream status(task->path() / "status");
    for (std::string word; status >> word;) {
      if (word != "voluntary_ctxt_switches:") continue;
      std::int64_t count = 0;
      if (status >> count) sum += count;
      break;
    }
  }
  return sum;
}

double Rounded(double value) {
  return std::round(value * 1e4) / 1e4;
}

}  // namespace

Usage UsageNow(int server_pid) {
  Usage usage;
  usage.client_cpu_s = SecondsOf(CLOCK_PROCESS_CPUTIME_ID);
  rusage own{};
  if (getrusage(RUSAGE_SELF, &own) == 0) usage.client_switches = own.ru_nvcsw;
  clockid_t server_clock{};
  if (server_pid != 0 && clock_getcpuclockid(server_pid, &server_clock) == 0) {
    usage.server_cpu_s = SecondsOf(server_clock);
    usage.server_switches = SwitchesOf(server_pid);
  }
  return usage;
}

void AddUsagePerCall(const Usage& begin, int server_pid, double calls, nlohmann::json& result) {
  const Usage end = UsageNow(server_pid);
  if (calls < 1) return;
  const double client_cpu = (end.client_cpu_s - begin.client_cpu_s) * 1e5 / calls;
  const double client_switches = static_cast<double>(end.client_switches - begin.client_switches) / calls;
  result["client_cpu_s_100k"] = Rounded(client_cpu);
  result["client_switches"] = Rounded(client_switches);
  if (server_pid == 0) return;
  const double server_cpu = (end.server_cpu_s - begin.server_cpu_s) * 1e5 / calls;
  const double server_switches = static_cast<double>(end.server_switches - begin.server_switches) / calls;
  result["server_cpu_s_100k"] = Rounded(server_cpu);
  result["server_switches"] = Rounded(server_switches);
  result["cpu_s_100k"] = Rounded(client_cpu + server_cpu);
  result["switches"] = Rounded(client_switches + server_switches);
}

}  // namespace bench
