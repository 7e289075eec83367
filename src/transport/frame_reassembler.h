// Cuts messages out of a byte stream.
#ifndef MIVO_TRANSPORT_FRAME_REASSEMBLER_H_
#define MIVO_TRANSPORT_FRAME_REASSEMBLER_H_

#include <cstddef>
#include <string>
#include <string_view>

namespace mivo {

// One per connection. Feed a chunk, then take payloads with Next until it says there are no more:
//
//     reassembler.Feed(chunk);
//     while (reassembler.Next(&payload) == FrameReassembler::kFrame) Use(payload);
//
// A length is the peer's word: it decides how long we wait, never how much we allocate. What is kept of an unfinished
// frame is what has really arrived.
class FrameReassembler {
 public:
  enum Result {
    kFrame,      // `payload` is the next one
    kNeedMore,   // every whole frame has been taken
    kBadLength,  // a negative length: the stream makes no sense any more
  };

  // `chunk` is read until Next has returned something other than kFrame, and must stay valid until then.
  //
  // A chunk that is one whole frame by itself is taken for that, whatever is pending: pending bytes stay as they are
  // and go on with the chunk after it.
  void Feed(std::string_view chunk);

  // `payload` stays valid until the next call of Feed or Next.
  Result Next(std::string_view* payload);

 private:
  Result NextFrom(std::string_view bytes, std::string_view* payload);
  void KeepRest();

  std::string pending_;
  std::string_view chunk_;    // fed, and neither taken nor kept yet
  std::size_t taken_ = 0;     // how much of pending_ was handed out
  bool whole_chunk_ = false;  // chunk_ is a frame by itself
};

}  // namespace mivo

#endif  // MIVO_TRANSPORT_FRAME_REASSEMBLER_H_
