// For tests that need gigabytes.
#ifndef MIVO_TESTS_UNIT_LARGE_MEMORY_H_
#define MIVO_TESTS_UNIT_LARGE_MEMORY_H_

#include <algorithm>
#include <fstream>
#include <limits>
#include <string>

namespace mivo_test {

constexpr long kUnlimited = std::numeric_limits<long>::max();

// Bytes that the machine can spare.
inline long AvailableBytesOfMachine() {
  std::ifstream file("/proc/meminfo");
  std::string word;
  while (file >> word) {
    long kilobytes = 0;
    if (word == "MemAvailable:" && file >> kilobytes) return kilobytes * 1024;
  }
  return 0;
}

// Bytes that the control group in `folder` leaves; unlimited where that cannot be read ("max" is no number).
inline long AvailableBytesOfGroup(const std::string& folder, const char* limit_file, const char* usage_file) {
  long limit = 0;
  long usage = 0;
  if (!(std::ifstream(folder + "/" + limit_file) >> limit)) return kUnlimited;
  if (!(std::ifstream(folder + "/" + usage_file) >> usage)) return kUnlimited;
  return std::max(limit - usage, 0L);
}

// The same for all groups that a process is in, as `membership` (/proc/self/cgroup) says: lines of number, controllers
// and path. A group's limit holds for those below it, and what a container shows may be only the top.
inline long AvailableBytesOfGroups(const std::string& membership, const std::string& root) {
  long available = kUnlimited;
  std::ifstream lines(membership);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t controllers = line.find(':') + 1;
    const std::size_t path = line.find(':', controllers);
    if (controllers == 0 || path == std::string::npos) continue;
    const std::string names = "," + line.substr(controllers, path - controllers) + ",";
    const bool is_second_version = names == ",,";
    if (!is_second_version && names.find(",memory,") == std::string::npos) continue;
    const std::string top = is_second_version ? root : root + "/memory";
    for (std::string group = line.substr(path + 1);; group.erase(group.rfind('/'))) {
      available = std::min(available,
                           is_second_version
                               ? AvailableBytesOfGroup(top + group, "memory.max", "memory.current")
                               : AvailableBytesOfGroup(top + group, "memory.limit_in_bytes", "memory.usage_in_bytes"));
      if (group.rfind('/') == std::string::npos) break;
    }
  }
  return available;
}

// Gigabytes that a program may use now without harm to others or its own end.
inline long AvailableGigabytes() {
  return std::min(AvailableBytesOfMachine(), AvailableBytesOfGroups("/proc/self/cgroup", "/sys/fs/cgroup")) / 1024 /
         1024 / 1024;
}

// The thread sanitizer needs several times the memory and minutes for these tests, and finds nothing in their one
// thread.
#if defined(__SANITIZE_THREAD__)
constexpr bool kShadowsEveryByteForThreads = true;
#else
constexpr bool kShadowsEveryByteForThreads = false;
#endif

}  // namespace mivo_test

// `gigabytes`: what the test uses at most.
#define MIVO_SKIP_WITHOUT_LARGE_MEMORY(gigabytes)                              \
  if (mivo_test::kShadowsEveryByteForThreads)                                  \
    GTEST_SKIP() << "one thread with gigabytes: not for the thread sanitizer"; \
  if (mivo_test::AvailableGigabytes() <= (gigabytes)) {                        \
    GTEST_SKIP() << "needs more than " << (gigabytes) << " GB of free memory"; \
  }                                                                            \
  static_assert(true)

#endif  // MIVO_TESTS_UNIT_LARGE_MEMORY_H_
