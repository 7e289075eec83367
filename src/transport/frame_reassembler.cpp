#include "transport/frame_reassembler.h"

#include <cstdint>
#include <cstring>

#include "transport/frame.h"

namespace mivo {

namespace {

// Room that a connection may keep while little or nothing is pending.
constexpr std::size_t kIdleCapacity = 65536;

std::int32_t LengthAt(std::string_view bytes) {
  std::int32_t length = 0;
  std::memcpy(&length, bytes.data(), sizeof length);
  return length;
}

}  // namespace

void FrameReassembler::Feed(std::string_view chunk) {
  chunk_ = chunk;
  whole_chunk_ =
      chunk.size() >= kFramePrefixSize && LengthAt(chunk) == static_cast<std::int64_t>(chunk.size() - kFramePrefixSize);
  if (!whole_chunk_ && !pending_.empty()) {
    pending_.append(chunk);
    chunk_ = {};
  }
}

FrameReassembler::Result FrameReassembler::Next(std::string_view* payload) {
  if (whole_chunk_) {
    whole_chunk_ = false;
    *payload = chunk_.substr(kFramePrefixSize);
    chunk_ = {};
    return kFrame;
  }
  // Either the frames are cut from the chunk itself and only its rest is kept, or the chunk went behind what was
  // pending.
  if (!chunk_.empty()) {
    const Result result = NextFrom(chunk_, payload);
    if (result == kFrame) {
      chunk_.remove_prefix(kFramePrefixSize + payload->size());
    } else {
      KeepRest();
    }
    return result;
  }
  const Result result = NextFrom(std::string_view(pending_).substr(taken_), payload);
  if (result == kFrame) {
    taken_ += kFramePrefixSize + payload->size();
  } else {
    KeepRest();
  }
  return result;
}

FrameReassembler::Result FrameReassembler::NextFrom(std::string_view bytes, std::string_view* payload) {
  if (bytes.size() < kFramePrefixSize) return kNeedMore;
  const std::int32_t length = LengthAt(bytes);
  if (length < 0) return kBadLength;
  if (bytes.size() - kFramePrefixSize < static_cast<std::size_t>(length)) return kNeedMore;
  *payload = bytes.substr(kFramePrefixSize, static_cast<std::size_t>(length));
  return kFrame;
}

void FrameReassembler::KeepRest() {
  pending_.erase(0, taken_);
  taken_ = 0;
  pending_.append(chunk_);
  chunk_ = {};
  // What a large frame took is given back when little is left behind it.
  if (pending_.capacity() > kIdleCapacity && pending_.size() < pending_.capacity() / 4) pending_.shrink_to_fit();
}

}  // namespace mivo
