#include "transport/door.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <uv.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "base/clock.h"
#include "base/spare_memory.h"
#include "base/standard_output.h"

namespace mivo {

namespace {

constexpr int kTries = 4;
constexpr unsigned int kPauseUs = 1000;
constexpr std::size_t kPartsAtOnce = 128;

iovec Part(const void* bytes, std::size_t size) {
  return {const_cast<void*>(bytes), size};
}

// The parts of one frame behind its first `skip` bytes; returns how many.
std::size_t PartsOf(const Frame& frame, std::size_t skip, iovec* parts) {
  std::size_t count = 0;
  if (skip < kFramePrefixSize) {
    parts[count++] = Part(reinterpret_cast<const char*>(&frame.length) + skip, kFramePrefixSize - skip);
    skip = 0;
  } else {
    skip -= kFramePrefixSize;
  }
  if (frame.payload.size() > skip) parts[count++] = Part(frame.payload.data() + skip, frame.payload.size() - skip);
  return count;
}

std::size_t SizeOf(const Frame& frame) {
  return kFramePrefixSize + frame.payload.size();
}

void LetGo(std::list<Frame>& frames) {
  for (Frame& frame : frames)
    GiveSpareString(std::move(frame.payload));
}

bool HasPeerGone(int error) {
  return error == EPIPE || error == ECONNRESET || error == ENOTCONN || error == ETIMEDOUT || error == ECONNABORTED;
}

}  // namespace

void Door::Open(int descriptor) {
  MutexLock lock(mutex_);
  descriptor_ = descriptor;
}

Door::Sent Door::Send(Frame frame) {
  Loss loss;
  Sent sent = Sent::kClosed;
  {
    MutexLock lock(mutex_);
    sent = SendLocked(frame, &loss);
  }
  GiveSpareString(std::move(frame.payload));
  Tell(loss);
  if (sent == Sent::kDropped && !is_quiet_) PrintDirect("write error\n");
  return sent;
}

Door::Sent Door::SendLocked(Frame& frame, Loss* loss) {
  if (descriptor_ < 0) return Sent::kClosed;
  if (is_broken_) return Sent::kAccepted;

  std::size_t size = 0;
  if (queue_.empty()) {
    std::array<iovec, 2> parts;
    const std::size_t count = PartsOf(frame, 0, parts.data());
    Written written = Write(parts.data(), count);
    for (int tries = 1; written.error != 0 && !HasPeerGone(written.error) && tries < kTries; ++tries) {
      // Nobody tells when there is memory again.
      ::usleep(kPauseUs);
      written = Write(parts.data(), count);
    }
    if (written.size == SizeOf(frame)) return Sent::kAccepted;
    if (HasPeerGone(written.error)) {
      PeerHasGone(written.error, 1, loss);
      return Sent::kAccepted;
    }
    if (written.error != 0) return Sent::kDropped;
    size = written.size;
  }
  const std::size_t rest = SizeOf(frame) - size;
  queue_.push_back(std::move(frame));
  if (queue_.size() == 1) first_written_ = size;
  waiting_ += rest;
  SetAwaitingRoom(true);
  return Sent::kAccepted;
}

void Door::WriteOn() {
  Loss loss;
  std::list<Frame> written;
  {
    MutexLock lock(mutex_);
    if (descriptor_ < 0) return;
    WriteWaiting(&loss, &written);
  }
  LetGo(written);
  Tell(loss);
}

void Door::WriteWaiting(Loss* loss, std::list<Frame>* written) {
  while (!queue_.empty() && WriteSome(loss, written)) {
  }
  SetAwaitingRoom(!queue_.empty());
}

bool Door::WriteSome(Loss* loss, std::list<Frame>* written) {
  std::array<iovec, kPartsAtOnce> parts;
  std::size_t count = 0;
  std::size_t skip = first_written_;
  for (const Frame& frame : queue_) {
    if (count + 2 > parts.size()) break;
    count += PartsOf(frame, skip, parts.data() + count);
    skip = 0;
  }
  const Written step = Write(parts.data(), count);
  if (HasPeerGone(step.error)) {
    PeerHasGone(step.error, queue_.size(), loss);
    return false;
  }
  // Any other error is met again, or not, when there is room.
  waiting_ -= step.size;
  first_written_ += step.size;
  while (!queue_.empty() && first_written_ >= SizeOf(queue_.front())) {
    first_written_ -= SizeOf(queue_.front());
    written->splice(written->end(), queue_, queue_.begin());
  }
  return step.size > 0;
}

Door::Written Door::Write(const iovec* parts, std::size_t count) {
  msghdr message{};
  message.msg_iov = const_cast<iovec*>(parts);
  message.msg_iovlen = count;
  ssize_t size = 0;
  do {
    size = ::sendmsg(descriptor_, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
  } while (size < 0 && errno == EINTR);
  if (size >= 0) return {static_cast<std::size_t>(size), 0};
  return {0, errno == EAGAIN ? 0 : errno};
}

void Door::PeerHasGone(int error, std::size_t frames, Loss* loss) {
  *loss = {error, frames};
  is_broken_ = true;
  queue_.clear();
  first_written_ = 0;
  waiting_ = 0;
  // Whoever reads finds the end, behind what has arrived. There is one place that ends a connection.
  ::shutdown(descriptor_, SHUT_RDWR);
}

void Door::Tell(const Loss& loss) const {
  if (loss.error == 0 || is_quiet_) return;
  const char* const text = uv_strerror(uv_translate_sys_error(loss.error));
  if (loss.frames > 1) {
    PrintDirect("Write error: %s (%zu messages)\n", text, loss.frames);
  } else {
    PrintDirect("Write error: %s\n", text);
  }
}

void Door::SetAwaitingRoom(bool on) {
  if (awaits_room_ == on) return;
  awaits_room_ = on;
  room_.SetAwaitingRoom(on);
}

void Door::Drain(std::int64_t deadline_ms) {
  for (;;) {
    pollfd room{};
    Loss loss;
    std::list<Frame> written;
    {
      MutexLock lock(mutex_);
      if (descriptor_ < 0) return;
      WriteWaiting(&loss, &written);
      if (!queue_.empty()) room = {descriptor_, POLLOUT, 0};
    }
    LetGo(written);
    Tell(loss);
    if (room.events == 0) return;
    const std::int64_t left_ms = deadline_ms - NowMs();
    if (left_ms <= 0) return;
    ::poll(&room, 1, static_cast<int>(left_ms));
  }
}

void Door::Break() {
  Loss untold;
  MutexLock lock(mutex_);
  if (descriptor_ >= 0) PeerHasGone(0, 0, &untold);
}

void Door::Close() {
  std::list<Frame> dropped;
  {
    MutexLock lock(mutex_);
    if (descriptor_ < 0) return;
    SetAwaitingRoom(false);
    descriptor_ = -1;
    dropped.swap(queue_);
    first_written_ = 0;
    waiting_ = 0;
  }
  if (!dropped.empty()) Tell({ECANCELED, dropped.size()});
}

}  // namespace mivo
