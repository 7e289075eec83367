// The road of a frame through here, in both directions: Send -> Door; recv -> FrameReassembler -> Owner::OnPayload.
//
// The descriptor's number is another stream's as soon as it was closed. So it is touched only under the door's lock, by
// the holder of the reading role, or by the watch, and Close goes to each of the three before it closes it.
#include "transport/connection.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <new>
#include <utility>

#include "base/clock.h"
#include "base/counted_lines.h"
#include "base/standard_output.h"
#include "transport/envelope.h"

namespace mivo {

namespace {

constexpr std::size_t kChunkSize = 65536;
// How many chunks one stream may have before the others get their turn.
constexpr int kChunksAtOnce = 16;
// To examine a payload of tiny records takes up to 2 ms a megabyte. A stream of a whole megabyte, in its envelope, is
// not meant.
constexpr std::size_t kLongPayload = (std::size_t{1} << 20) + 4096;
// What may wait for a peer before it is not read from any more, and when it is again.
constexpr std::size_t kFull = std::size_t{4} << 20;
constexpr std::size_t kHasRoom = kFull / 2;

// One chunk; only for as long as its frames are taken, which leads to no other read on this thread.
char* ChunkOfThread() {
  thread_local std::array<char, kChunkSize> chunk;
  return chunk.data();
}

// What a local socket takes at once is a fifth of a megabyte; twice that halves the turns that a large message takes.
// TCP finds its size by itself, as long as nobody sets it.
void WidenLocalStream(int descriptor) {
  int domain = 0;
  socklen_t size = sizeof domain;
  if (::getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &domain, &size) != 0 || domain != AF_UNIX) return;
  // The kernel doubles it, for its own needs.
  constexpr int kSendBuffer = 212992;
  ::setsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer);
}

int UserAt(int descriptor) {
  ucred peer{};
  socklen_t size = sizeof peer;
  const bool is_known = ::getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0;
  return is_known ? static_cast<int>(peer.uid) : -1;
}

bool IsMessage(std::string_view payload) {
  const Envelope envelope = ReadEnvelope(payload);
  return envelope.well_formed && envelope.name.has_value();
}

}  // namespace

// Goes on reading on a pool thread of its own, where a long payload keeps nobody else waiting.
class Connection::Continuation : public Job {
 public:
  explicit Continuation(std::shared_ptr<Connection> connection)
      : Job(connection->jobs_), connection_(std::move(connection)) {}

  void Run() override {
    if (!connection_->reading_.TakeParked()) return;
    Jobs jobs;
    connection_->Look(Reader::kCaller, jobs);
    connection_->reading_.GiveBack();
    Pool::OfProcess().Push(std::move(jobs));
  }

 private:
  const std::shared_ptr<Connection> connection_;
};

Connection::Connection(Owner& owner, JobGroup& jobs, int id)
    : owner_(owner), jobs_(jobs), id_(id), door_(*this), reading_(*this), reassembler_(IsMessage) {}

Connection::~Connection() {
  Close();
}

void Connection::BeQuiet() {
  is_quiet_ = true;
  door_.BeQuiet();
}

int Connection::Open(int descriptor) {
  descriptor_ = descriptor;
  WidenLocalStream(descriptor);
  peer_user_ = UserAt(descriptor);
  is_closed_.store(false, std::memory_order_release);
  door_.Open(descriptor);
  const int status = Pool::OfProcess().Start(watch_, descriptor, weak_from_this());
  if (status < 0) Close();
  return status;
}

bool Connection::Send(Frame frame) {
  switch (door_.Send(std::move(frame))) {
    case Door::Sent::kAccepted:
      if (pauses_when_full_ && door_.waiting() > kFull) reading_.PausePool(true);
      return true;
    case Door::Sent::kDropped:
      owner_.OnFrameDropped(*this);
      return false;
    case Door::Sent::kClosed:
      break;
  }
  Drop();
  return false;
}

void Connection::SendLate(Frame frame) {
  if (door_.Send(std::move(frame)) != Door::Sent::kAccepted) return;
  if (pauses_when_full_ && door_.waiting() > kFull) reading_.PausePool(true);
}

bool Connection::MayCauseLine() {
  if (is_quiet_) return false;
  const std::int64_t now_ms = NowMs();
  if (!lines_.Allow(now_ms)) return false;
  if (const std::int64_t count = lines_.TakeSuppressed(now_ms)) WriteLine(CountedLines(count, "suppressed"));
  return true;
}

void Connection::SayOfPeer(std::string_view line) {
  if (MayCauseLine()) WriteLine(line);
}

void Connection::Drop() {
  if (!is_closed() && !is_quiet_) PrintDirect("write error\n");
  owner_.OnFrameDropped(*this);
}

void Connection::Write() {
  door_.WriteOn();
  if (pauses_when_full_ && door_.waiting() <= kHasRoom) reading_.PausePool(false);
}

bool Connection::Read(Cause cause, Jobs& jobs) {
  if (!reading_.TakeForPool(cause == Cause::kEnded)) return false;
  const Found found = Look(Reader::kPool, jobs);
  if (found == Found::kLongPayload) {
    LeaveToOthers(jobs);
  } else {
    reading_.GiveBack();
  }
  return found != Found::kNothing;
}

void Connection::LeaveToOthers(Jobs& jobs) {
  try {
    auto continuation = std::make_unique<Continuation>(shared_from_this());
    if (!reading_.GiveToCallerOrPark()) jobs.Push(std::move(continuation));
  } catch (const std::bad_alloc&) {
    EndForWantOfMemory();
    EndReading(0);
    reading_.GiveBack();
  }
}

Connection::ReadEnd Connection::ReadAsCaller(const std::function<bool()>& is_done, std::int64_t deadline_ns) {
  looking_.Saw(NowNs());
  for (;;) {
    const Found found = LookAsCaller();
    if (is_done()) return ReadEnd::kDone;
    if (found == Found::kEnd) return ReadEnd::kEnded;
    const std::int64_t now_ns = NowNs();
    if (found != Found::kNothing) {
      looking_.Saw(now_ns);
      continue;
    }
    if (deadline_ns != 0 && now_ns >= deadline_ns) return ReadEnd::kDeadline;
    if (looking_.MayGoOn(now_ns)) {
      looking_.GiveAway(now_ns);
      continue;
    }
    // Its own request, perhaps: it need not wait for another thread to write on.
    const bool is_waiting = door_.waiting() > 0;
    pollfd bytes{descriptor_, static_cast<short>(is_waiting ? POLLIN | POLLOUT : POLLIN), 0};
    // Up to a millisecond late, never early.
    const std::int64_t left_ms = deadline_ns == 0 ? -1 : (deadline_ns - now_ns) / 1'000'000 + 1;
    ::poll(&bytes, 1, static_cast<int>(std::min<std::int64_t>(left_ms, std::numeric_limits<int>::max())));
    if ((bytes.revents & POLLOUT) != 0) Write();
  }
}

void Connection::LeaveAsCaller(ReadingRole::Caller& caller) {
  while (!reading_.Leave(caller))
    LookAsCaller();
}

Connection::Found Connection::LookAsCaller() {
  Jobs jobs;
  const Found found = Look(Reader::kCaller, jobs);
  if (!jobs.empty()) Pool::OfProcess().Push(std::move(jobs));
  return found;
}

Connection::Found Connection::Look(Reader reader, Jobs& jobs) {
  if (has_ended_ || is_closed()) return Found::kEnd;
  Found found = Found::kNothing;
  try {
    // What a reader before us has left because it was too long.
    found = TakePayloads(reader, jobs);
    bool may_be_more = true;
    for (int chunks = 0; may_be_more && chunks < kChunksAtOnce; ++chunks) {
      if (found == Found::kEnd || found == Found::kLongPayload) break;
      const Found more = ReadOnce(&may_be_more);
      if (more == Found::kNothing) break;
      found = more;
      if (more == Found::kSomething) {
        const Found taken = TakePayloads(reader, jobs);
        if (taken != Found::kNothing) found = taken;
      }
    }
    if (found == Found::kEnd) EndReading(end_status_);
  } catch (const std::bad_alloc&) {
    EndForWantOfMemory();
    EndReading(0);
    found = Found::kEnd;
  }
  return found;
}

Connection::Found Connection::ReadOnce(bool* may_be_more) {
  FrameReassembler::Room room = reassembler_.RoomForMore();
  const bool is_in_room = room.size > 0;
  if (!is_in_room) room = {ChunkOfThread(), kChunkSize};
  ssize_t count = 0;
  do {
    count = ::recv(descriptor_, room.bytes, room.size, MSG_DONTWAIT);
  } while (count < 0 && errno == EINTR);
  if (count < 0 && (errno == EAGAIN)) return Found::kNothing;

  if (!std::exchange(has_read_, true)) owner_.OnFirstRead(*this);
  if (count <= 0) {
    end_status_ = count == 0 ? kPeerLeft : -errno;
    return Found::kEnd;
  }
  *may_be_more = static_cast<std::size_t>(count) == room.size;
  if (is_in_room) {
    reassembler_.FeedInRoom(static_cast<std::size_t>(count));
  } else {
    reassembler_.Feed(std::string_view(room.bytes, static_cast<std::size_t>(count)));
  }
  return Found::kSomething;
}

Connection::Found Connection::TakePayloads(Reader reader, Jobs& jobs) {
  Found found = Found::kNothing;
  std::string_view payload;
  for (;;) {
    if (is_closed()) return Found::kEnd;
    if (reader == Reader::kPool && reassembler_.NextSize() > kLongPayload) return Found::kLongPayload;
    const FrameReassembler::Result result = reassembler_.Next(&payload);
    if (result == FrameReassembler::kNeedMore) return found;
    if (result == FrameReassembler::kBadLength) {
      end_status_ = 0;
      return Found::kEnd;
    }
    found = Found::kSomething;
    owner_.OnPayload(*this, payload, jobs);
  }
}

void Connection::EndReading(int status) {
  has_ended_ = true;
  reading_.End();
  if (!is_closed()) owner_.OnEnd(*this, status);
}

void Connection::EndForWantOfMemory() {
  if (!is_quiet_) PrintDirect("out of memory: connection %d ends\n", id_);
  door_.Break();
}

void Connection::Close() {
  // The door first: from here on whoever has something to send is told.
  if (is_closed_.exchange(true)) return;
  door_.Close();
  // A caller that reads may be waiting for bytes: this is the end of them.
  ::shutdown(descriptor_, SHUT_RDWR);
  reading_.Close();
  watch_.Stop();
  ::close(descriptor_);
  if (const std::int64_t count = lines_.TakeAllSuppressed()) WriteLine(CountedLines(count, "suppressed"));
}

}  // namespace mivo
