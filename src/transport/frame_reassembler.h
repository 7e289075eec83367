// Cuts messages out of a byte stream.
#ifndef MIVO_TRANSPORT_FRAME_REASSEMBLER_H_
#define MIVO_TRANSPORT_FRAME_REASSEMBLER_H_

#include <cstddef>
#include <string_view>

#include "base/byte_buffer.h"

namespace mivo {

// A payload's bytes, to be kept; `bytes` views them in `storage`.
struct OwnedPayload {
  ByteBuffer storage;
  std::string_view bytes;
};

// One per connection. Feed a chunk, then take payloads with Next until it says there are no more:
//
//     reassembler.Feed(chunk);
//     while (reassembler.Next(&payload) == FrameReassembler::kFrame) Use(payload);
//
// A length is the peer's word: it decides how long we wait, never how much we allocate. What is kept of an unfinished
// frame is what has really arrived, and at most as much room again; of memory that is spare anyway, up to seven times
// as much.
class FrameReassembler {
 public:
  enum Result {
    kFrame,      // `payload` is the next one
    kNeedMore,   // every whole frame has been taken
    kBadLength,  // a negative length: the stream makes no sense any more
  };

  // Whether a payload can be a message. Null: any can.
  using IsMessage = bool (*)(std::string_view payload);
  explicit FrameReassembler(IsMessage is_message = nullptr) : is_message_(is_message) {}

  // `chunk` is read until Next has returned something other than kFrame, and must stay valid until then.
  //
  // A chunk that is one whole frame by itself is taken for that although something is pending, if it is a message:
  // pending bytes stay as they are and go on with the chunk after it. Otherwise it only looks like a frame, as numbers
  // in the middle of a stream may do.
  void Feed(std::string_view chunk);

  // Where the next bytes belong while a long frame is under way: read into it, and say how many came. Otherwise of size
  // 0: then read anywhere, and feed.
  struct Room {
    char* bytes;
    std::size_t size;
  };
  Room RoomForMore();
  void FeedInRoom(std::size_t size);

  // The size of the payload that Next would hand out; 0 if there is none, or it is empty.
  std::size_t NextSize() const;

  // `payload` stays valid until the next call of any but NextSize.
  Result Next(std::string_view* payload);

  // Right after Next: the bytes of the payload it has handed out, to be kept. Where a long frame has arrived in a
  // buffer of its own they are not copied but given away with it, and stay where `payload` views them.
  OwnedPayload TakePayload(std::string_view payload);

 private:
  void Take(std::string_view chunk, bool is_in_room);
  std::string_view Untaken() const { return chunk_.empty() ? pending_.view().substr(taken_) : chunk_; }
  void KeepRest();

  const IsMessage is_message_;
  ByteBuffer pending_;
  std::string_view chunk_;    // fed, and neither taken nor kept yet
  std::size_t taken_ = 0;     // how much of pending_ was handed out
  bool whole_chunk_ = false;  // chunk_ is a frame by itself
};

}  // namespace mivo

#endif  // MIVO_TRANSPORT_FRAME_REASSEMBLER_H_
