#include "server/socket_file.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "base/standard_output.h"
#include "transport/socket.h"

namespace mivo {

namespace {

constexpr mode_t kMode = 0777;
constexpr uid_t kUser = 1000;
constexpr gid_t kGroup = 1000;

// By its descriptor, for the path may name another file by now: fchmod does not take one that was opened for this, and
// the name under /proc leads to the very file.
bool OpenToEverybody(int file) {
  return ::chmod(("/proc/self/fd/" + std::to_string(file)).c_str(), kMode) == 0;
}

bool GiveAway(int file) {
  return ::fchownat(file, "", kUser, kGroup, AT_EMPTY_PATH) == 0;
}

}  // namespace

void SocketFile::MakeRoom(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) ::unlink(path.c_str());
}

bool SocketFile::IsServed(const SocketAddress& address) {
  const int socket = OpenSocket(Endpoint::kLocal);
  if (socket < 0) return false;
  // A full list of newcomers is somebody's, too.
  const bool is_served = ::connect(socket, address.get(), address.size) == 0 || errno == EAGAIN;
  ::close(socket);
  return is_served;
}

void SocketFile::Own(std::string path) {
  struct stat status {};
  // Where others may remove our file, what is there now may be theirs.
  if (::lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode) && status.st_uid == ::geteuid()) {
    path_ = std::move(path);
    device_ = status.st_dev;
    inode_ = status.st_ino;
  }
}

void SocketFile::OpenToAll(bool quietly) {
  const int file = OpenIfOurs();
  if (!OpenToEverybody(file) && !quietly) PrintDirect("chmod failed");
  if (!GiveAway(file) && !quietly) PrintDirect("chown error");
  if (file >= 0) ::close(file);
}

int SocketFile::OpenIfOurs() const {
  if (path_.empty()) return -1;
  const int file = ::open(path_.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
  if (file < 0) return -1;
  struct stat status {};
  if (::fstat(file, &status) == 0 && IsOurs(status)) return file;
  ::close(file);
  return -1;
}

void SocketFile::Remove() {
  const std::string path = std::exchange(path_, "");
  struct stat status {};
  if (!path.empty() && ::lstat(path.c_str(), &status) == 0 && IsOurs(status)) ::unlink(path.c_str());
}

bool SocketFile::IsOurs(const struct stat& status) const {
  return status.st_dev == device_ && status.st_ino == inode_;
}

}  // namespace mivo
