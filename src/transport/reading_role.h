// Who reads from a connection now.
#ifndef MIVO_TRANSPORT_READING_ROLE_H_
#define MIVO_TRANSPORT_READING_ROLE_H_

#include <vector>

#include "base/mutex.h"

namespace mivo {

// One thread at a time reads: the pool's reader, or a caller that waits for its reply anyway and so needs nobody to
// wake it. Whoever has read enough gives the role back; it goes to a caller that waits for it, or else to the pool, at
// once: what the peer sends of its own accord must not wait for the next call.
//
//   kNobody   the pool listens, and takes the role when something arrives
//   kPool     the pool's reader has it
//   kCaller   a caller has it, and the pool does not listen; others queue for it
//   kParked   nobody has it, and the pool does not listen: what comes next keeps a thread busy for a while, and waits
//             for one that can be spared, or for a caller
//
// The end comes in two ways: End, by the holder that has found the stream's end, and Close, by the owner, who takes the
// role away.
//
// Any thread.
class ReadingRole {
 public:
  // Whether the pool is told of bytes that arrive. Called under the role's lock.
  class Listening {
   public:
    virtual ~Listening() = default;
    virtual void SetListening(bool on) = 0;
    // Tells the pool of nothing, not even of an end, until it is to listen again.
    virtual void Mute() = 0;
  };

  // A thread that would read while it waits for something else.
  class Caller {
   public:
    virtual ~Caller() = default;
    // It has the role now, and is to wake up. Called under the role's lock.
    virtual void BecomeReader() = 0;

   private:
    friend class ReadingRole;
    bool is_queued_ = false;
    bool is_reader_ = false;
    bool must_look_ = false;
  };

  // Nothing is read before Start.
  explicit ReadingRole(Listening& listening) : listening_(listening) {}
  ReadingRole(const ReadingRole&) = delete;
  ReadingRole& operator=(const ReadingRole&) = delete;

  void Start();

  // False if somebody else reads, or nothing is to be read any more. The kernel tells of an end again and again, until
  // it was read: when the one who reads is not the pool, `mute` keeps the pool from hearing it.
  bool TakeForPool(bool mute);

  // Takes the role, unless the caller has been given it (true), or queues the caller for it. After the end: neither.
  bool TakeOrQueue(Caller& caller);

  // The holder. Gives the role to whoever comes next.
  void GiveBack();

  // The pool's reader, as the holder. Gives the role to a caller (true), or parks it: then whoever asks first gets it.
  bool GiveToCallerOrPark();

  // For a thread that can be spared. False if somebody else was first.
  bool TakeParked();

  // A caller whose wait is over: gives back what it was given, and waits for it no longer. To be called once, whatever
  // has happened before. False if it was given the role by the pool's reader, with what that one has left, and never
  // took it: it still has it. It is to look once, for nobody else would be told, and to leave again.
  bool Leave(Caller& caller);

  // The pool stops listening, until told otherwise; callers may still read. Any thread, in any state.
  void PausePool(bool on);

  // The holder. Nobody will read again.
  void End();

  // The owner: nobody gets the role from now on. Returns when no thread has it; the one that does must be on its way to
  // give it back, and not be the calling thread.
  void Close();

 private:
  enum class Holder { kNotStarted, kNobody, kPool, kCaller, kParked };

  bool IsHeld() const MIVO_REQUIRES(mutex_) { return holder_ == Holder::kPool || holder_ == Holder::kCaller; }

  void PassOn() MIVO_REQUIRES(mutex_);
  bool GiveToNextCaller(bool must_look) MIVO_REQUIRES(mutex_);
  void Listen() MIVO_REQUIRES(mutex_);

  Listening& listening_;
  Mutex mutex_;
  Condition given_back_;
  Holder holder_ MIVO_GUARDED_BY(mutex_) = Holder::kNotStarted;
  bool is_over_ MIVO_GUARDED_BY(mutex_) = false;
  bool is_paused_ MIVO_GUARDED_BY(mutex_) = false;
  std::vector<Caller*> queue_ MIVO_GUARDED_BY(mutex_);
};

}  // namespace mivo

#endif  // MIVO_TRANSPORT_READING_ROLE_H_
