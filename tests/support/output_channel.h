// Standard output led into something whose reader is the test: it may read, or let the writers see what that is like.
#ifndef MIVO_TESTS_SUPPORT_OUTPUT_CHANNEL_H_
#define MIVO_TESTS_SUPPORT_OUTPUT_CHANNEL_H_

#include "support/event.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace mivo_test {

enum class Channel { Pipe, Socket, Terminal };

// From construction to destruction descriptor 1 leads there, or until something has failed: the framework prints that
// to standard output, and would wait for ever for the test to read it. One at a time. Of a test that has failed, what
// was not read is shown at the end.
class OutputChannel : private testing::EmptyTestEventListener {
 public:
  explicit OutputChannel(Channel channel) {
    std::fflush(stdout);
    int writer = -1;
    if (channel == Channel::Terminal) {
      reader_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
      if (reader_ >= 0 && grantpt(reader_) == 0 && unlockpt(reader_) == 0) {
        writer = open(ptsname(reader_), O_RDWR | O_NOCTTY | O_CLOEXEC);
      }
    } else {
      int ends[2] = {-1, -1};
      if ((channel == Channel::Pipe ? pipe2(ends, O_CLOEXEC)
                                    : socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends)) == 0) {
        reader_ = ends[0];
        writer = ends[1];
      }
    }
    real_stdout_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    if (reader_ < 0 || writer < 0 || real_stdout_ < 0 || dup2(writer, STDOUT_FILENO) < 0) {
      throw std::runtime_error("cannot lead standard output elsewhere");
    }
    close(writer);
    BeAheadOfThePrinter();
  }
  OutputChannel(const OutputChannel&) = delete;
  OutputChannel& operator=(const OutputChannel&) = delete;
  ~OutputChannel() override {
    testing::UnitTest::GetInstance()->listeners().Release(this);
    // A writer that is stuck gets an error, or goes on into the real one.
    dup2(real_stdout_, STDOUT_FILENO);
    close(real_stdout_);
    if (testing::Test::HasFailure()) std::printf("unread:\n%.100000s\n(end of it)\n", ReadNow().c_str());
    close(reader_);
  }

  // What can be read without waiting.
  std::string ReadNow() {
    std::string text;
    while (IsReadable(0) && Append(&text)) {
    }
    return text;
  }

  // What is read until it ends with `end`, or until the patience does.
  std::string ReadUntil(const std::string& end, std::chrono::milliseconds patience = kPatience) {
    std::string text;
    const auto ends = [&] {
      return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
    };
    const Stopwatch watch;
    while (!ends() && watch.ElapsedMs() < patience.count()) {
      if (IsReadable(10) && !Append(&text)) break;
    }
    return text;
  }

  // Leaves no room, by a writer of the test's own.
  void Fill() {
    const int writer = open("/proc/self/fd/1", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (writer < 0) throw std::runtime_error("cannot fill");  // a socket
    const std::string dots(512, '.');
    while (write(writer, dots.data(), dots.size()) > 0) {
    }
    while (write(writer, ".", 1) > 0) {
    }
    close(writer);
  }
  // Leaves room for so many bytes, in a pipe.
  void FillBut(std::size_t room) {
    const int size = fcntl(STDOUT_FILENO, F_GETPIPE_SZ);
    if (size < 0) throw std::runtime_error("no pipe");
    const std::string dots(static_cast<std::size_t>(size) - room, '.');
    if (write(STDOUT_FILENO, dots.data(), dots.size()) < 0) throw std::runtime_error("cannot fill");
  }

 private:
  void OnTestPartResult(const testing::TestPartResult& result) override {
    if (result.failed()) dup2(real_stdout_, STDOUT_FILENO);
  }
  void BeAheadOfThePrinter() {
    auto& listeners = testing::UnitTest::GetInstance()->listeners();
    static testing::TestEventListener* const printer = listeners.default_result_printer();
    listeners.Append(this);
    if (listeners.Release(printer) != nullptr) listeners.Append(printer);
  }

  bool IsReadable(int patience_ms) const {
    pollfd entry{reader_, POLLIN, 0};
    return poll(&entry, 1, patience_ms) == 1;
  }
  // Without what a terminal makes of line ends.
  bool Append(std::string* text) const {
    char chunk[4096];
    const ssize_t count = read(reader_, chunk, sizeof chunk);
    if (count <= 0) return false;
    std::copy_if(chunk, chunk + count, std::back_inserter(*text), [](char byte) { return byte != '\r'; });
    return true;
  }

  int reader_ = -1;
  int real_stdout_ = -1;
};

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_OUTPUT_CHANNEL_H_
