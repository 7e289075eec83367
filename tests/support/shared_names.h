// Turns, for tests that cannot have socket names of their own.
#ifndef MIVO_TESTS_SUPPORT_SHARED_NAMES_H_
#define MIVO_TESTS_SUPPORT_SHARED_NAMES_H_

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace mivo_test {

// Some names cannot be made unique, since they are made out of texts that are no number: their tests take turns, those
// of other processes too.
class SharedNames {
 public:
  SharedNames() : file_(Open()) {
    if (file_ < 0 || flock(file_, LOCK_EX) != 0) ADD_FAILURE() << kPath << ": " << std::strerror(errno);
  }
  SharedNames(const SharedNames&) = delete;
  SharedNames& operator=(const SharedNames&) = delete;
  ~SharedNames() { close(file_); }

 private:
  static constexpr char kPath[] = "/tmp/mivo_test_shared_names.lock";

  // Another user may have made it: so it is opened for reading, and not by way of making it.
  static int Open() {
    for (;;) {
      const int found = open(kPath, O_RDONLY | O_CLOEXEC);
      if (found >= 0 || errno != ENOENT) return found;
      const int made = open(kPath, O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
      if (made >= 0 || errno != EEXIST) return made;
    }
  }

  const int file_;
};

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_SHARED_NAMES_H_
