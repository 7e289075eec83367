// The file under which a local socket is found.
#ifndef MIVO_SERVER_SOCKET_FILE_H_
#define MIVO_SERVER_SOCKET_FILE_H_

#include <sys/stat.h>
#include <sys/types.h>

#include <string>

#include "transport/endpoint.h"

namespace mivo {

// Whoever binds last has the name: a server that starts takes it from one that has ended without a word, and from one
// that still serves. So the file at our path may be another's. It is ours as long as it is the one we have seen there
// after the bind, by device and inode; our socket keeps that inode from being used again.
//
// Between two looks at the path another server may take the name, and the kernel offers nothing to prevent it. Servers
// that do so within the same microseconds are not told apart.
class SocketFile {
 public:
  SocketFile() = default;
  SocketFile(const SocketFile&) = delete;
  SocketFile& operator=(const SocketFile&) = delete;

  // Before the bind. Removes a socket at `path`, whose ever it is. What is no socket stays, a link too: then the bind
  // finds the name in use.
  static void MakeRoom(const std::string& path);

  // Whether somebody listens at that address, answering or not.
  static bool IsServed(const SocketAddress& address);

  // After the bind. From now on the file is ours.
  void Own(std::string path);

  // Opens our file to everybody and gives it to the machine's first ordinary user. What fails of that is said on
  // standard output, unless `quietly`.
  void OpenToAll(bool quietly);

  // Before the socket is closed. Removes the file if it is still ours. May be repeated.
  void Remove();

 private:
  // The file, for its mode and owner only, or -1.
  int OpenIfOurs() const;
  bool IsOurs(const struct stat& status) const;

  std::string path_;  // empty: none is ours
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

}  // namespace mivo

#endif  // MIVO_SERVER_SOCKET_FILE_H_
