#include "support/stdout_capture.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <stdexcept>

namespace mivo_test {
namespace {

void FlushAll() {
  std::cout.flush();
  std::fflush(stdout);
}

}  // namespace

StdoutCapture::StdoutCapture() {
  FlushAll();
  file_ = memfd_create("captured standard output", MFD_CLOEXEC);
  real_stdout_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
  // Appending, so that writers through other descriptors of the file never overwrite each other.
  if (file_ < 0 || real_stdout_ < 0 || fcntl(file_, F_SETFL, O_APPEND) != 0 || dup2(file_, STDOUT_FILENO) < 0) {
    throw std::runtime_error("cannot capture standard output");
  }
}

StdoutCapture::~StdoutCapture() {
  FlushAll();
  const std::string text = Text();
  dup2(real_stdout_, STDOUT_FILENO);
  close(real_stdout_);
  close(file_);
  if (testing::Test::HasFailure()) {
    std::printf("captured standard output:\n%.100000s\n(end of it)\n", text.c_str());
    std::fflush(stdout);
  }
}

std::string StdoutCapture::Text() const {
  struct stat status {};
  fstat(file_, &status);
  std::string text(static_cast<std::size_t>(status.st_size), '\0');
  const ssize_t got = pread(file_, text.data(), text.size(), 0);
  text.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
  return text;
}

bool StdoutCapture::WaitFor(const std::string& text, int count, std::chrono::milliseconds patience) const {
  return Eventually([&] { return Count(text) >= count; }, patience);
}

int StdoutCapture::Count(const std::string& text) const {
  const std::string all = Text();
  int count = 0;
  for (std::size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + text.size()))
    ++count;
  return count;
}

}  // namespace mivo_test
