// A program of the tests, run as a process of its own.
#ifndef MIVO_TESTS_SUPPORT_CHILD_PROCESS_H_
#define MIVO_TESTS_SUPPORT_CHILD_PROCESS_H_

#include "support/event.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace mivo_test {

// The child's standard input is a pipe that ends with CloseInput or the object; its standard output goes nowhere; what
// it writes to descriptor 3 is its report.
class ChildProcess {
 public:
  // `extra_environment` as "NAME=value", in front of what the test itself has.
  ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
               const std::vector<std::string>& extra_environment);
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  // Kills it if it still runs.
  ~ChildProcess();

  bool started() const { return pid_ > 0; }
  void CloseInput();

  // The report up to the next line end, without it; nothing at its end or the patience's.
  std::optional<std::string> ReadLine(std::chrono::milliseconds patience = kPatience);

  // The exit status, 128 and the signal's number for a child that was killed; nothing while it runs.
  std::optional<int> WaitForExit(std::chrono::milliseconds patience = kPatience);

 private:
  pid_t pid_ = -1;
  int input_ = -1;
  int report_ = -1;
  std::string read_;
  std::optional<int> status_;
};

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_CHILD_PROCESS_H_
