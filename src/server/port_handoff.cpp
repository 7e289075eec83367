#include <mivo/port_handoff.h>

#include "base/hold_across_fork.h"
#include "base/mutex.h"
#include "base/sigpipe_guard.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <system_error>

namespace {

// As many digits as the highest port has. A reader stops here, since the writer may keep its end open.
constexpr std::size_t kLongestPort = 5;

mivo::Mutex mutex;
[[maybe_unused]] const int held_across_fork = mivo::HoldAcrossFork<mutex>();

struct Handoff {
  std::string path;  // set once
  std::string port;  // only ever grows
};

// Never destroyed, so that it serves static constructors and the process's exit too.
Handoff& TheHandoff() MIVO_REQUIRES(mutex) {
  static auto* const handoff = new Handoff;
  return *handoff;
}

std::string Path() {
  mivo::MutexLock lock(mutex);
  return TheHandoff().path;
}

std::string SetPath() {
  mivo::MutexLock lock(mutex);
  std::string& path = TheHandoff().path;
  if (path.empty()) path = "/tmp/echo.pipe." + std::to_string(getppid());
  return path;
}

// Returns the whole text so far.
std::string Append(const std::string& digits) {
  mivo::MutexLock lock(mutex);
  return TheHandoff().port += digits;
}

// Flushed, so that what comes before a wait for the other process is seen before it.
void PrintLine(const std::string& line) {
  const std::string text = line + "\n";
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

// Everybody may put something under a name in /tmp, and this name is easy to guess.
bool IsOwnFifo(const struct stat& status) {
  return S_ISFIFO(status.st_mode) && status.st_uid == geteuid();
}

// Blocks until the other end is opened. -1 when there is no FIFO of this user's.
int Open(const std::string& path, int mode) {
  // What was opened decides. Before that, a look: opening a stranger's FIFO would wait for the stranger.
  struct stat status = {};
  if (lstat(path.c_str(), &status) != 0 || !IsOwnFifo(status)) return -1;

  int descriptor = -1;
  do {
    descriptor = open(path.c_str(), mode | O_CLOEXEC | O_NOFOLLOW);
  } while (descriptor < 0 && errno == EINTR);
  if (descriptor < 0 || (fstat(descriptor, &status) == 0 && IsOwnFifo(status))) return descriptor;
  close(descriptor);
  return -1;
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
  std::string path = SetPath();
  unlink(path.c_str());
  if (mkfifo(path.c_str(), 0777) != 0) {
    const int error = errno;
    PrintLine("create pipe error: " + path + ": " + std::generic_category().message(error));
    return std::string();
  }
  PrintLine("create pipe: " + path);
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
