#include <mivo/port_handoff.h>

#include "base/sigpipe_guard.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <mutex>

namespace {

// As many digits as the highest port has. A reader stops here, since the writer may keep its end open.
constexpr std::size_t kLongestPort = 5;

struct Handoff {
  std::mutex mutex;
  std::string path;  // guarded by mutex; set once
  std::string port;  // guarded by mutex; only ever grows
};

// Never destroyed, so that it serves static constructors and the process's exit too.
Handoff& TheHandoff() {
  static auto* const handoff = new Handoff;
  return *handoff;
}

std::string Path() {
  Handoff& handoff = TheHandoff();
  const std::lock_guard<std::mutex> lock(handoff.mutex);
  return handoff.path;
}

// Returns the whole text so far.
std::string Append(const std::string& digits) {
  Handoff& handoff = TheHandoff();
  const std::lock_guard<std::mutex> lock(handoff.mutex);
  handoff.port += digits;
  return handoff.port;
}

// Flushed, so that what comes before a wait for the other process is seen before it.
void PrintLine(const std::string& line) {
  const std::string text = line + "\n";
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

// Blocks until the other end is opened.
int Open(const std::string& path, int mode) {
  int descriptor = -1;
  do {
    descriptor = open(path.c_str(), mode | O_CLOEXEC);
  } while (descriptor < 0 && errno == EINTR);
  return descriptor;
}

bool ReadByte(int descriptor, char* byte) {
  ssize_t count = 0;
  do {
    count = read(descriptor, byte, 1);
  } while (count < 0 && errno == EINTR);
  return count == 1;
}

}  // namespace

std::string CreatePortPipe() {
  std::string path;
  {
    Handoff& handoff = TheHandoff();
    const std::lock_guard<std::mutex> lock(handoff.mutex);
    if (handoff.path.empty()) handoff.path = "/tmp/echo.pipe." + std::to_string(getppid());
    path = handoff.path;
  }
  unlink(path.c_str());
  if (mkfifo(path.c_str(), 0777) == 0) PrintLine("create pipe: " + path);
  return path;
}

std::string ReadPortPipe() {
  const int descriptor = Open(Path(), O_RDONLY);
  if (descriptor < 0) return std::string();

  std::string port = Append("");
  char byte = 0;
  // At least one byte is taken, even by a call that finds the text full.
  do {
    if (!ReadByte(descriptor, &byte)) break;
    port = Append(std::string(1, byte));
  } while (port.size() < kLongestPort);
  close(descriptor);
  PrintLine("server port: " + port);
  return port;
}

bool WritePortPipe(int port) {
  const std::string path = Path();
  const int descriptor = Open(path, O_WRONLY);
  if (descriptor < 0) {
    PrintLine("open pipe error: " + path);
    return false;
  }
  const std::string text = std::to_string(port);
  PrintLine("write port to pipe: " + std::to_string(port));
  PrintLine("write port to pipe: " + text);
  {
    // A reader that has gone already is not told of.
    const mivo::SigpipeGuard guard;
    ssize_t written = 0;
    do {
      written = write(descriptor, text.data(), text.size());
    } while (written < 0 && errno == EINTR);
  }
  return true;  // with the descriptor open: readers see the end of the text when this process ends
}
