// One stream between two peers: its descriptor, who reads from it, its incoming frames, and the door for what goes out.
#ifndef MIVO_TRANSPORT_CONNECTION_H_
#define MIVO_TRANSPORT_CONNECTION_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

#include "base/line_budget.h"
#include "base/looking.h"
#include "pool/pool.h"
#include "pool/source.h"
#include "pool/watch.h"
#include "transport/door.h"
#include "transport/frame.h"
#include "transport/frame_reassembler.h"
#include "transport/reading_role.h"

namespace mivo {

// Held by shared pointers: a request under way keeps its connection, so that its reply finds this object, closed if the
// peer has gone, and never another peer that got the same memory or descriptor.
//
// Any thread, except where said otherwise. What it tells its owner it tells on the thread that reads, one at a time.
class Connection : public Source,
                   public std::enable_shared_from_this<Connection>,
                   private ReadingRole::Listening,
                   private Door::Room {
 public:
  // Told of what happens; outlives whatever may still be read or sent. Must not block, nor run code of the application.
  class Owner {
   public:
    virtual ~Owner() = default;
    // The first read, also if it finds the end.
    virtual void OnFirstRead(Connection& connection) = 0;
    // `jobs` are run when the reader is done with what has arrived.
    virtual void OnPayload(Connection& connection, std::string_view payload, Jobs& jobs) = 0;
    // The peer has gone (kPeerLeft), the stream failed (another negative errno), or it made no sense any more (0).
    // Nothing more will be read. Once. The owner has the connection closed, elsewhere.
    virtual void OnEnd(Connection& connection, int status) = 0;
    // A frame was dropped: it could not be written, or came after the close.
    virtual void OnFrameDropped(Connection& connection) = 0;
  };
  static constexpr int kPeerLeft = 1;

  // `jobs` is the group that what has to be done for this connection belongs to.
  Connection(Owner& owner, JobGroup& jobs, int id);
  ~Connection() override;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  int id() const { return id_; }
  // Of the process at the other end of a local stream; -1 of others. Once it was opened.
  int peer_user() const { return peer_user_; }

  // Before it is opened: nothing is printed.
  void BeQuiet();

  // Once. Takes the descriptor of a connected stream that does not block; it is closed with the connection. From here
  // on it can be sent to. 0 or a negative errno: then it is not open.
  int Open(int descriptor);

  // Once. Whatever comes is read from here on, perhaps before this returns.
  void StartReading() { reading_.Start(); }

  // Has the frame on its way, or in line, when it returns true. False: it was dropped.
  bool Send(Frame frame);

  // In OnPayload: the payload's bytes, to be kept. Long ones are not copied, and stay where `payload` views them.
  OwnedPayload TakePayload(std::string_view payload) { return reassembler_.TakePayload(payload); }

  // As Send, for a reply whose owner may have gone: to nobody, without a word, when the connection was closed.
  void SendLate(Frame frame);

  // Whether the peer may cause one more line. Of too many in a second the rest is counted in one.
  bool MayCauseLine();

  // Writes a line that the peer has caused, if it may.
  void SayOfPeer(std::string_view line);

  // For what cannot be sent: reports a frame that is dropped as Send does.
  void Drop();

  // A peer that sends requests and does not read the replies is not read from while too much waits for it. For a
  // server; two peers that did this to each other would both stand still.
  void PauseReadingWhenFull() { pauses_when_full_ = true; }

  // Without memory for what the peer has sent, its connection ends, with a line: the reader will find the end.
  void EndForWantOfMemory();

  // A caller reads while it waits, until `is_done`, or `deadline_ns` by NowNs (0: none).
  enum class ReadEnd { kDone, kDeadline, kEnded };
  ReadEnd ReadAsCaller(const std::function<bool()>& is_done, std::int64_t deadline_ns);
  // A caller whose wait is over, whether it has read or not.
  void LeaveAsCaller(ReadingRole::Caller& caller);
  ReadingRole& reading() { return reading_; }

  // Sends what waits, while the peer reads, until `deadline_ms` by NowMs at the latest.
  void Drain(std::int64_t deadline_ms) { door_.Drain(deadline_ms); }

  // Not by the thread that reads. Nothing is read or written when this has returned, and the owner is told of nothing
  // more. May be repeated.
  void Close();
  bool is_closed() const { return is_closed_.load(std::memory_order_acquire); }

  // Source, for the pool's reader.
  bool Read(Cause cause, Jobs& jobs) override;
  void Write() override;

 private:
  class Continuation;

  // What one look has found.
  enum class Found {
    kNothing,
    kSomething,
    kLongPayload,  // complete, and not taken: whoever examines it is busy with that for a while
    kEnd,
  };
  enum class Reader { kPool, kCaller };

  // The holder of the reading role, all of these.
  Found Look(Reader reader, Jobs& jobs);
  Found LookAsCaller();
  Found TakePayloads(Reader reader, Jobs& jobs);
  Found ReadOnce(bool* may_be_more);
  void LeaveToOthers(Jobs& jobs);
  void EndReading(int status);

  // ReadingRole::Listening and Door::Room.
  void SetListening(bool on) override { watch_.SetReading(on); }
  void Mute() override { watch_.Mute(); }
  void SetAwaitingRoom(bool on) override { watch_.SetWriting(on); }

  Owner& owner_;
  JobGroup& jobs_;
  const int id_;
  Watch watch_;
  Door door_;
  ReadingRole reading_;
  int descriptor_ = -1;
  int peer_user_ = -1;
  bool is_quiet_ = false;
  bool pauses_when_full_ = false;
  std::atomic<bool> is_closed_{true};
  LineBudget lines_;

  // The holder of the reading role.
  FrameReassembler reassembler_;
  Looking looking_;
  bool has_read_ = false;
  bool has_ended_ = false;
  int end_status_ = 0;
};

}  // namespace mivo

#endif  // MIVO_TRANSPORT_CONNECTION_H_
