// What the process prints on standard output, seen by the test while it is printed.
#ifndef MIVO_TESTS_SUPPORT_STDOUT_CAPTURE_H_
#define MIVO_TESTS_SUPPORT_STDOUT_CAPTURE_H_

#include "support/event.h"

#include <chrono>
#include <string>

namespace mivo_test {

// From construction to destruction descriptor 1 leads into a file without a name. The text is shown again at the end
// when the test has failed, since the test's own messages may be among it. One at a time.
class StdoutCapture {
 public:
  StdoutCapture();
  StdoutCapture(const StdoutCapture&) = delete;
  StdoutCapture& operator=(const StdoutCapture&) = delete;
  ~StdoutCapture();

  // Everything that has reached the descriptor. Nothing is flushed here: a line that only sits in a buffer of the
  // process was not printed.
  std::string Text() const;

  // The position for TextFrom.
  std::size_t Size() const { return Text().size(); }
  std::string TextFrom(std::size_t position) const { return Text().substr(position); }

  // True once `text` was printed, `count` times in all.
  bool WaitFor(const std::string& text, int count = 1, std::chrono::milliseconds patience = kPatience) const;

  bool Contains(const std::string& text) const { return Text().find(text) != std::string::npos; }
  int Count(const std::string& text) const;

 private:
  int file_ = -1;
  int real_stdout_ = -1;
};

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_STDOUT_CAPTURE_H_
