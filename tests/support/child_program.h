// Other programs, and this one again, as child processes of a test.
#ifndef MIVO_TESTS_SUPPORT_CHILD_PROGRAM_H_
#define MIVO_TESTS_SUPPORT_CHILD_PROGRAM_H_

#include "support/event.h"
#include "support/raw_client.h"

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace mivo_test {

// A program run with exec. Its standard input and output are one stream socket whose other end the test drives by hand;
// its standard error is the test's.
class ChildProgram {
 public:
  // `arguments[0]` is looked for in PATH. Throws, naming the program, when it cannot be run: a test that needs it
  // fails. `environment` holds further variables, "NAME=value".
  explicit ChildProgram(const std::vector<std::string>& arguments, const std::vector<std::string>& environment = {});
  ChildProgram(ChildProgram&& other) noexcept;
  ChildProgram& operator=(ChildProgram&&) = delete;
  ~ChildProgram();  // kills it when it is still there

  pid_t pid() const { return pid_; }
  RawPeer& io() { return io_; }

  // What the program prints until it closes its output.
  std::string ReadOutput();

  // As a shell tells it: the exit status, or 128 + the number of the signal. Nothing when it is still running.
  std::optional<int> Wait(std::chrono::milliseconds patience = kPatience);

 private:
  pid_t pid_ = -1;
  RawPeer io_;
};

// A part played by this program when it is run again: for what ends the process, or needs a fresh one.
//
//   const mivo_test::Role kQuiet("quiet", [](const std::string& argument) { return 0; });
//   ... mivo_test::StartRole("quiet") ...
//
// The function runs before main, and the process exits with what it returns: no test is run, no assertion is counted.
class Role {
 public:
  Role(const char* name, int (*play)(const std::string& argument));
};

ChildProgram StartRole(const std::string& name, const std::string& argument = "");

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_CHILD_PROGRAM_H_
