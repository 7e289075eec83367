// Two ends of a stream: one that the library gets, one that a test reads and writes by hand.
#ifndef MIVO_TESTS_UNIT_STREAM_PAIR_H_
#define MIVO_TESTS_UNIT_STREAM_PAIR_H_

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace mivo_test {

class StreamPair {
 public:
  static StreamPair Local() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0) throw std::runtime_error("pair");
    return StreamPair(ends[0], ends[1]);
  }

  static StreamPair Tcp() {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    const int peer = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listener, any, size) != 0 || listen(listener, 1) != 0 || getsockname(listener, any, &size) != 0 ||
        connect(peer, any, size) != 0) {
      throw std::runtime_error("pair");
    }
    const int ours = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    close(listener);
    fcntl(peer, F_SETFL, O_NONBLOCK);
    return StreamPair(ours, peer);
  }

  StreamPair(StreamPair&& other) noexcept
      : ours_(std::exchange(other.ours_, -1)), peer_(std::exchange(other.peer_, -1)) {}
  ~StreamPair() {
    if (ours_ >= 0) close(ours_);
    ClosePeer();
  }

  // Of the end that the library is going to own.
  int TakeOurs() { return std::exchange(ours_, -1); }

  void Write(std::string_view bytes) {
    if (send(peer_, bytes.data(), bytes.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(bytes.size())) {
      throw std::runtime_error("the pair takes no more");
    }
  }

  // False if there is no room for all of it; then nothing was written. For a few bytes at a time: of more, a part may
  // be.
  bool TryWrite(std::string_view bytes) {
    const ssize_t count = send(peer_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count > 0 && count != static_cast<ssize_t>(bytes.size())) throw std::runtime_error("the pair takes a part");
    return count > 0;
  }

  // Whether what was written was taken by whoever reads the other end. Not over TCP.
  bool IsTaken() const {
    int left = 0;
    return ioctl(peer_, SIOCOUTQ, &left) == 0 && left == 0;
  }

  // What has arrived by now, up to `most` bytes at a time.
  std::string ReadSome(std::size_t most = 1 << 20) {
    std::string bytes(most, '\0');
    const ssize_t count = recv(peer_, bytes.data(), bytes.size(), 0);
    if (count == 0) has_ended_ = true;
    bytes.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
    return bytes;
  }

  // Whether a read has found the end of the stream.
  bool has_ended() const { return has_ended_; }

  void ClosePeer() {
    if (peer_ >= 0) close(std::exchange(peer_, -1));
  }

 private:
  StreamPair(int ours, int peer) : ours_(ours), peer_(peer) {}

  int ours_ = -1;
  int peer_ = -1;
  bool has_ended_ = false;
};

}  // namespace mivo_test

#endif  // MIVO_TESTS_UNIT_STREAM_PAIR_H_
