// One end of a byte stream, driven by hand: what a peer written by somebody else may do to the library.
#ifndef MIVO_TESTS_SUPPORT_RAW_CLIENT_H_
#define MIVO_TESTS_SUPPORT_RAW_CLIENT_H_

#include "support/event.h"
#include "support/transport.h"

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace mivo_test {

// Blocking, each operation with its bound. Not for use by several threads at once, except that one may send while
// another reads.
class RawPeer {
 public:
  RawPeer() = default;
  RawPeer(int descriptor, Transport transport) : descriptor_(descriptor), transport_(transport) {}
  RawPeer(RawPeer&& other) noexcept;
  RawPeer& operator=(RawPeer&& other) noexcept;
  ~RawPeer() { Close(); }

  // Connects, trying again while nobody listens yet. Test with connected().
  static RawPeer ConnectTo(const Address& address, std::chrono::milliseconds patience = kPatience);

  bool connected() const { return descriptor_ >= 0; }
  int descriptor() const { return descriptor_; }

  // False when the other side has gone, or takes nothing within kPatience.
  bool SendBytes(std::string_view bytes);
  bool SendFrame(std::string_view payload);

  // The payload of the next frame; nothing at the end of the stream or of the patience.
  std::optional<std::string> ReadFrame(std::chrono::milliseconds patience = kPatience);

  // The next `count` bytes as they come.
  std::optional<std::string> ReadBytes(std::size_t count, std::chrono::milliseconds patience = kPatience);

  // True once everything that was sent has been read by the other side, not only taken by its kernel. After it the next
  // bytes arrive there as a chunk of their own.
  bool WaitUntilTaken(std::chrono::milliseconds patience = kPatience);

  // Sends a frame and reads the next one.
  std::optional<std::string> Exchange(std::string_view payload);

  // True when the stream ends, by end of file or reset, before anything more arrives.
  bool ReadEof(std::chrono::milliseconds patience = kPatience);

  // True when something, or the end, can be read.
  bool WaitReadable(std::chrono::milliseconds patience = kPatience);

  // True when nothing arrives, not even the end, for this long.
  bool ExpectSilence(std::chrono::milliseconds duration);

  // True when the server answers, and with nothing in front: an "s_c_close_server" request is answered in the order of
  // the stream, so whatever the server had to send at once has been seen before its answer.
  bool AnswersInOrder();

  // No more bytes to the other side.
  void HalfClose();

  // Ends the connection the hard way: the other side sees a reset. On the local transport only where something was sent
  // to this end and not read; elsewhere the other side sees an ordinary end.
  void Reset();
  void Close();

 private:
  int descriptor_ = -1;
  Transport transport_ = Transport::Local;
  std::string received_;  // read from the descriptor, not yet given out

  bool Fill(std::size_t count, std::chrono::steady_clock::time_point deadline);
};

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_RAW_CLIENT_H_
