// For tests that need gigabytes.
#ifndef MIVO_TESTS_UNIT_LARGE_MEMORY_H_
#define MIVO_TESTS_UNIT_LARGE_MEMORY_H_

#include <fstream>
#include <string>

namespace mivo_test {

// Gigabytes that a program may use now without harm to others.
inline long AvailableGigabytes() {
  std::ifstream file("/proc/meminfo");
  std::string word;
  while (file >> word) {
    long kilobytes = 0;
    if (word == "MemAvailable:" && file >> kilobytes) return kilobytes / 1024 / 1024;
  }
  return 0;
}

// What two gigabytes of text cost, with a copy, and with the thread sanitizer's book-keeping.
#if defined(__SANITIZE_THREAD__)
constexpr long kGigabytesForTwo = 14;
#else
constexpr long kGigabytesForTwo = 5;
#endif

}  // namespace mivo_test

#define MIVO_SKIP_WITHOUT_LARGE_MEMORY()                                             \
  if (mivo_test::AvailableGigabytes() < mivo_test::kGigabytesForTwo) {               \
    GTEST_SKIP() << "needs " << mivo_test::kGigabytesForTwo << " GB of free memory"; \
  }                                                                                  \
  static_assert(true)

#endif  // MIVO_TESTS_UNIT_LARGE_MEMORY_H_
