// Threads and descriptors of this process, counted before and after.
#ifndef MIVO_TESTS_SUPPORT_TEARDOWN_H_
#define MIVO_TESTS_SUPPORT_TEARDOWN_H_

#include "support/event.h"

#include <gtest/gtest.h>

#include <dirent.h>

#include <chrono>
#include <cstring>

namespace mivo_test {

struct Resources {
  int threads = 0;
  int descriptors = 0;
};

inline int CountEntries(const char* directory) {
  DIR* const listing = opendir(directory);
  if (listing == nullptr) return -1;
  int count = 0;
  while (const dirent* entry = readdir(listing)) {
    if (entry->d_name[0] != '.') ++count;
  }
  closedir(listing);
  return count;
}

// Take it after a warm-up: libuv keeps the threads of its pool and a few descriptors for the life of the process.
inline Resources CountResources() {
  return {CountEntries("/proc/self/task"), CountEntries("/proc/self/fd")};
}

// Waits, with a bound, until no more threads and descriptors are there than before: a thread that was joined is still
// listed for a moment.
inline void ExpectSameResources(const Resources& before, std::chrono::milliseconds patience = kPatience) {
  Resources now;
  Eventually(
      [&] {
        now = CountResources();
        return now.threads <= before.threads && now.descriptors <= before.descriptors;
      },
      patience);
  EXPECT_LE(now.threads, before.threads) << "threads were left behind";
  EXPECT_LE(now.descriptors, before.descriptors) << "descriptors were left open";
}

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_TEARDOWN_H_
