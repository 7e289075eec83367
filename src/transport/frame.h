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

struct Frame {
  // A payload whose frame would not fit a signed 32-bit length cannot be sent by anyone: it ends the program here
  // rather than travel with a wrapped length.
  explicit Frame(std::string bytes) : payload(std::move(bytes)) {
    if (payload.size() > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max()) - kFramePrefixSize) {
      std::abort();
    }
    length = static_cast<std::int32_t>(payload.size());
  }

  std::int32_t length = 0;
  std::string payload;
};

}  // namespace mivo

#endif  // MIVO_TRANSPORT_FRAME_H_
