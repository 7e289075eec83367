// The one door by which frames leave a connection.
#ifndef MIVO_TRANSPORT_DOOR_H_
#define MIVO_TRANSPORT_DOOR_H_

#include <sys/uio.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>

#include "base/mutex.h"
#include "transport/frame.h"

namespace mivo {

// A frame leaves from the thread that has it: when nothing waits before it, in one system call. What the kernel does
// not take waits here, and every later frame behind it, until there is room again and the pool writes on. "Does
// anything wait, write, keep the rest" is one step under the lock: otherwise a frame would land inside another.
//
// Any thread.
class Door {
 public:
  // Whether the pool is told of room to write. Called under the door's lock.
  class Room {
   public:
    virtual ~Room() = default;
    virtual void SetAwaitingRoom(bool on) = 0;
  };

  explicit Door(Room& room) : room_(room) {}
  Door(const Door&) = delete;
  Door& operator=(const Door&) = delete;

  // Before it is opened: what is lost is not printed.
  void BeQuiet() { is_quiet_ = true; }

  // Opens it. `descriptor` is a connected stream that does not block; it stays the caller's, who closes the door first.
  void Open(int descriptor);

  enum class Sent {
    kAccepted,  // it was written, or will be, or the peer has gone and the connection is about to end
    kDropped,   // it could not be written; that was printed
    kClosed,    // the door is not open
  };
  // What the kernel refuses for a want of memory or the like is tried three times more, a millisecond apart.
  Sent Send(Frame frame);

  // There is room again.
  void WriteOn();

  // Bytes that wait.
  std::size_t waiting() const { return waiting_.load(std::memory_order_relaxed); }

  // Writes what waits as long as the peer takes it, until `deadline_ms` by NowMs at the latest. Blocks for that long.
  void Drain(std::int64_t deadline_ms);

  // Nothing more is sent, and whoever reads finds the end of the stream.
  void Break();

  // For good: nothing touches the descriptor when this has returned. What still waits is dropped, and that is printed.
  // May be repeated.
  void Close();

 private:
  // What a write came to: how many bytes the kernel has taken, and the error if it has refused.
  struct Written {
    std::size_t size;
    int error;
  };
  Written Write(const iovec* parts, std::size_t count) MIVO_REQUIRES(mutex_);
  // What is to be told of a peer that has gone, without the lock: how many frames were lost, and why.
  struct Loss {
    int error = 0;
    std::size_t frames = 0;
  };
  void Tell(const Loss& loss) const;
  // False if the kernel takes no more for now. What is done with goes to `written`, to be let go of without the lock.
  bool WriteSome(Loss* loss, std::list<Frame>* written) MIVO_REQUIRES(mutex_);
  void WriteWaiting(Loss* loss, std::list<Frame>* written) MIVO_REQUIRES(mutex_);
  void PeerHasGone(int error, std::size_t frames, Loss* loss) MIVO_REQUIRES(mutex_);
  Sent SendLocked(Frame& frame, Loss* loss) MIVO_REQUIRES(mutex_);
  void SetAwaitingRoom(bool on) MIVO_REQUIRES(mutex_);

  Room& room_;
  bool is_quiet_ = false;
  Mutex mutex_;
  int descriptor_ MIVO_GUARDED_BY(mutex_) = -1;
  std::list<Frame> queue_ MIVO_GUARDED_BY(mutex_);
  std::size_t first_written_ MIVO_GUARDED_BY(mutex_) = 0;  // of the first frame that waits
  // Written under the lock, read by anyone who judges by it whether the peer reads at all.
  std::atomic<std::size_t> waiting_{0};
  bool is_broken_ MIVO_GUARDED_BY(mutex_) = false;
  bool awaits_room_ MIVO_GUARDED_BY(mutex_) = false;
};

}  // namespace mivo

#endif  // MIVO_TRANSPORT_DOOR_H_
