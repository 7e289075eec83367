#include "peers/raw_stream.h"

#include <sched.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "harness/clock.h"

namespace bench {
namespace {

constexpr std::uint64_t kLookNs = 20'000;
constexpr std::size_t kBufferSize = 65536;
// Above this a body is read into its own place.
constexpr std::size_t kDirect = 32768;

}  // namespace

RawStream::RawStream(const Options& options, int descriptor)
    : descriptor_(descriptor), polling_(options.flavour == "polling"), buffer_(new char[kBufferSize]) {}

RawStream::~RawStream() {
  ::close(descriptor_);
}

bool RawStream::Write(RawKind kind, const char* body, std::size_t size) {
  char head[5];
  const auto length = static_cast<std::uint32_t>(size);
  std::memcpy(head, &length, sizeof length);
  head[4] = static_cast<char>(kind);
  iovec parts[2] = {{head, sizeof head}, {const_cast<char*>(body), size}};
  std::size_t first = 0;
  for (std::size_t left = size + sizeof head; left > 0;) {
    const ssize_t written = ::writev(descriptor_, parts + first, static_cast<int>(2 - first));
    if (written <= 0) return false;
    auto taken = static_cast<std::size_t>(written);
    left -= taken;
    while (first < 2 && taken >= parts[first].iov_len)
      taken -= parts[first++].iov_len;
    if (first < 2) {
      parts[first].iov_base = static_cast<char*>(parts[first].iov_base) + taken;
      parts[first].iov_len -= taken;
    }
  }
  return true;
}

long RawStream::Receive(char* to, std::size_t size) const {
  if (polling_) {
    const std::uint64_t begin = NowNs();
    do {
      const ssize_t count = ::recv(descriptor_, to, size, MSG_DONTWAIT);
      if (count >= 0 || errno != EAGAIN) return count;
      ::sched_yield();
    } while (NowNs() - begin < kLookNs);
  }
  return ::recv(descriptor_, to, size, 0);
}

bool RawStream::Fill(std::size_t size) {
  while (end_ - begin_ < size) {
    if (begin_ > 0) {
      std::memmove(buffer_.get(), buffer_.get() + begin_, end_ - begin_);
      end_ -= begin_;
      begin_ = 0;
    }
    const long count = Receive(buffer_.get() + end_, kBufferSize - end_);
    if (count <= 0) return false;
    end_ += static_cast<std::size_t>(count);
  }
  return true;
}

bool RawStream::Read() {
  if (!Fill(5)) return false;
  std::uint32_t length = 0;
  std::memcpy(&length, buffer_.get() + begin_, sizeof length);
  kind_ = static_cast<RawKind>(buffer_[begin_ + 4]);
  begin_ += 5;
  const std::size_t size = length;
  if (body_.size() != size) body_.resize(size);
  std::size_t have = 0;
  while (true) {
    const std::size_t part = std::min(size - have, end_ - begin_);
    std::copy_n(buffer_.get() + begin_, part, body_.data() + have);
    begin_ += part;
    have += part;
    if (begin_ == end_) begin_ = end_ = 0;
    while (size - have >= kDirect) {
      const long count = Receive(body_.data() + have, size - have);
      if (count <= 0) return false;
      have += static_cast<std::size_t>(count);
    }
    if (have == size) return true;
    if (!Fill(1)) return false;
  }
}

}  // namespace bench
