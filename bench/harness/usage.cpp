#include "harness/usage.h"

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cmath>
#include <cstddef>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "harness/connection.h"

namespace bench {
namespace {

struct Counts {
  double cpu_s = 0;
  std::int64_t switches = 0;
  std::int64_t allocations = -1;
};

Counts OwnCounts() {
  Counts counts;
  timespec time{};
  if (clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time) == 0) {
    counts.cpu_s = static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
  }
  rusage usage{};
  if (getrusage(RUSAGE_SELF, &usage) == 0) counts.switches = usage.ru_nvcsw;
  counts.allocations = AllocationsNow();
  return counts;
}

// An abstract socket that is named after the server's process.
struct Place {
  explicit Place(int pid) {
    address.sun_family = AF_UNIX;
    const std::string name = "mivo-bench-usage-" + std::to_string(pid);
    name.copy(address.sun_path + 1, sizeof address.sun_path - 2);
    size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  }
  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address); }
  sockaddr_un address{};
  socklen_t size = 0;
};

int OpenSocket() {
  return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

Counts CountsOf(int server_pid) {
  const Place place(server_pid);
  const int descriptor = OpenSocket();
  Counts counts;
  const bool answered = connect(descriptor, place.get(), place.size) == 0 &&
                        read(descriptor, &counts, sizeof counts) == static_cast<ssize_t>(sizeof counts);
  close(descriptor);
  Require(answered, "the server does not tell what it has used");
  return counts;
}

double Rounded(double value) {
  return std::round(value * 1e4) / 1e4;
}

}  // namespace

__attribute__((weak)) std::int64_t AllocationsNow() {
  return -1;
}

void ServeUsage() {
  const Place place(getpid());
  const int listening = OpenSocket();
  if (bind(listening, place.get(), place.size) != 0 || listen(listening, 8) != 0) {
    // Clients say that they get no answer.
    while (true)
      pause();
  }
  while (true) {
    const int descriptor = accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
    if (descriptor < 0) continue;
    const Counts counts = OwnCounts();
    if (write(descriptor, &counts, sizeof counts) < 0) std::perror("usage");
    close(descriptor);
  }
}

Usage UsageNow(int server_pid) {
  Usage usage;
  if (server_pid != 0) {
    const Counts server = CountsOf(server_pid);
    usage.server_cpu_s = server.cpu_s;
    usage.server_switches = server.switches;
    usage.server_allocations = server.allocations;
  }
  const Counts client = OwnCounts();
  usage.client_cpu_s = client.cpu_s;
  usage.client_switches = client.switches;
  usage.client_allocations = client.allocations;
  return usage;
}

void AddUsagePerCall(const Usage& begin, int server_pid, double calls, nlohmann::json& result) {
  const Usage end = UsageNow(server_pid);
  if (calls < 1) return;
  const auto add = [&](const char* name, double client, double server) {
    result[std::string("client_") + name] = Rounded(client / calls);
    if (server_pid == 0) return;
    result[std::string("server_") + name] = Rounded(server / calls);
    result[name] = Rounded((client + server) / calls);
  };
  const auto since = [](std::int64_t from, std::int64_t to) { return static_cast<double>(to - from); };
  add("cpu_s_100k", (end.client_cpu_s - begin.client_cpu_s) * 1e5, (end.server_cpu_s - begin.server_cpu_s) * 1e5);
  add("switches", since(begin.client_switches, end.client_switches), since(begin.server_switches, end.server_switches));
  if (begin.client_allocations < 0) return;
  add("allocations", since(begin.client_allocations, end.client_allocations),
      since(begin.server_allocations, end.server_allocations));
}

}  // namespace bench
