// One message on the stream: its length, then its payload.
#ifndef MIVO_TRANSPORT_FRAME_H_
#define MIVO_TRANSPORT_FRAME_H_

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>
#include <utility>

namespace mivo {

// The length counts the payload only. It goes out in the byte order of this machine, little-endian.
inline constexpr std::size_t kFramePrefixSize = 4;

// The payload's and the whole frame's length are counted by signed 32-bit numbers.
inline constexpr std::size_t kLongestPayload =
    static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max()) - kFramePrefixSize;

// A message that nobody can send ends the program that makes it, rather than travel with a wrapped length. To be called
// before it is copied: without memory for that, there would be an exception instead.
inline void RequireSendable(std::size_t size) {
  if (size > kLongestPayload) std::abort();
}

struct Frame {
  explicit Frame(std::string bytes) : payload(std::move(bytes)) {
    RequireSendable(payload.size());
    length = static_cast<std::int32_t>(payload.size());
  }

  std::int32_t length = 0;
  std::string payload;
};

}  // namespace mivo

#endif  // MIVO_TRANSPORT_FRAME_H_
