#include "transport/frame_reassembler.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>

#include "transport/frame.h"

namespace mivo {

namespace {

// Room that a connection may keep while little or nothing is pending.
constexpr std::size_t kIdleCapacity = 65536;
// The part of the memory that a frame takes that must have arrived.
constexpr std::size_t kSmallestPart = 8;
// A frame of which so much is missing gets its bytes read to where they belong.
constexpr std::size_t kLongRest = 65536;

std::int32_t LengthAt(std::string_view bytes) {
  std::int32_t length = 0;
  std::memcpy(&length, bytes.data(), sizeof length);
  return length;
}

FrameReassembler::Result NextFrom(std::string_view bytes, std::string_view* payload) {
  if (bytes.size() < kFramePrefixSize) return FrameReassembler::kNeedMore;
  const std::int32_t length = LengthAt(bytes);
  if (length < 0) return FrameReassembler::kBadLength;
  if (bytes.size() - kFramePrefixSize < static_cast<std::size_t>(length)) return FrameReassembler::kNeedMore;
  *payload = bytes.substr(kFramePrefixSize, static_cast<std::size_t>(length));
  return FrameReassembler::kFrame;
}

bool IsWholeFrame(std::string_view chunk) {
  return chunk.size() >= kFramePrefixSize &&
         LengthAt(chunk) == static_cast<std::int64_t>(chunk.size() - kFramePrefixSize);
}

}  // namespace

void FrameReassembler::Feed(std::string_view chunk) {
  Take(chunk, false);
}

void FrameReassembler::FeedInRoom(std::size_t size) {
  Take(std::string_view(pending_.end(), size), true);
}

void FrameReassembler::Take(std::string_view chunk, bool is_in_room) {
  const bool looks_whole = IsWholeFrame(chunk);
  whole_chunk_ =
      looks_whole && (pending_.empty() || is_message_ == nullptr || is_message_(chunk.substr(kFramePrefixSize)));
  chunk_ = {};
  if (whole_chunk_ || pending_.empty()) {
    chunk_ = chunk;
  } else if (is_in_room) {
    pending_.Grow(chunk.size());
  } else {
    pending_.Append(chunk);
  }
}

FrameReassembler::Room FrameReassembler::RoomForMore() {
  const std::string_view pending = pending_.view();
  if (pending.size() < kFramePrefixSize || LengthAt(pending) < 0) return {nullptr, 0};
  const std::size_t whole = kFramePrefixSize + static_cast<std::size_t>(LengthAt(pending));
  if (whole < pending.size() + kLongRest) return {nullptr, 0};
  // Twice what has arrived, not what was announced; but what is spare may as well be used for the whole of it.
  const bool may_be_whole = pending.size() >= whole / kSmallestPart;
  if (pending_.capacity() - pending.size() < kLongRest && !(may_be_whole && pending_.TakeSpare(whole))) {
    pending_.Reserve(std::min(whole, std::max(2 * pending.size(), pending.size() + kLongRest)));
  }
  return {pending_.end(), std::min(whole, pending_.capacity()) - pending.size()};
}

std::size_t FrameReassembler::NextSize() const {
  std::string_view payload;
  return NextFrom(Untaken(), &payload) == kFrame ? payload.size() : 0;
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
  const bool is_in_chunk = !chunk_.empty();
  const Result result = NextFrom(Untaken(), payload);
  if (result != kFrame) {
    KeepRest();
  } else if (is_in_chunk) {
    chunk_.remove_prefix(kFramePrefixSize + payload->size());
  } else {
    taken_ += kFramePrefixSize + payload->size();
  }
  return result;
}

OwnedPayload FrameReassembler::TakePayload(std::string_view payload) {
  const std::string_view pending = pending_.view();
  const bool is_all_of_it = taken_ == pending.size() && payload.size() + kFramePrefixSize == pending.size() &&
                            payload.data() == pending.data() + kFramePrefixSize;
  if (is_all_of_it && payload.size() > kIdleCapacity) {
    taken_ = 0;
    return {std::move(pending_), payload};
  }
  ByteBuffer copy;
  copy.Append(payload);
  const std::string_view bytes = copy.view();
  return {std::move(copy), bytes};
}

void FrameReassembler::KeepRest() {
  pending_.RemoveFront(taken_);
  taken_ = 0;
  pending_.Append(chunk_);
  chunk_ = {};
  // What a large frame took is given back when little is left behind it.
  if (pending_.capacity() > kIdleCapacity && pending_.size() < pending_.capacity() / (2 * kSmallestPart))
    pending_.Shrink();
}

}  // namespace mivo
