// Threads and descriptors of this process, counted before and after.
#ifndef MIVO_TESTS_SUPPORT_TEARDOWN_H_
#define MIVO_TESTS_SUPPORT_TEARDOWN_H_

#include "support/event.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <set>

namespace mivo_test {

struct Resources {
  int threads = 0;
  int descriptors = 0;
};

// Calls `see` with each name in a directory; false when it cannot be read. By system calls of its own: a thread
// sanitizer that follows descriptors by their numbers does not see libuv close its own, and would take the number's
// next use for a race.
template <typename See>
bool ForEachEntry(const char* directory, See see) {
  const long listing = syscall(SYS_openat, AT_FDCWD, directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (listing < 0) return false;
  alignas(dirent64) char entries[4096];
  for (;;) {
    const long size = syscall(SYS_getdents64, listing, entries, sizeof entries);
    if (size <= 0) break;
    for (long at = 0; at < size;) {
      const auto* const entry = reinterpret_cast<const dirent64*>(entries + at);
      if (entry->d_name[0] != '.') see(static_cast<const char*>(entry->d_name));
      at += entry->d_reclen;
    }
  }
  syscall(SYS_close, listing);
  return true;
}

inline int CountEntries(const char* directory) {
  int count = 0;
  return ForEachEntry(directory, [&](const char*) { ++count; }) ? count : -1;
}

// The ids of all threads of this process.
inline std::set<int> Threads() {
  std::set<int> ids;
  ForEachEntry("/proc/self/task", [&](const char* name) { ids.insert(std::atoi(name)); });
  return ids;
}

// Waits, with a bound, until exactly `count` threads are there that were not there before. Threads that were about to
// end then, and are listed for a moment longer, make no difference.
inline bool HasNewThreads(const std::set<int>& before, int count, std::chrono::milliseconds patience = kPatience) {
  return Eventually(
      [&] {
        int found = 0;
        for (const int id : Threads())
          found += before.count(id) == 0 ? 1 : 0;
        return found == count;
      },
      patience);
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
