// Writes one part of an encoding into a buffer of its own: an encoding whose bytes lie in several places, one behind
// the other when they are sent.
//
// A long stream need not be copied then: the part before it ends in OpenKeyValueStream, its bytes are sent from where
// they are, and the part behind begins with the stamp that CloseStream writes.
#ifndef MIVO_SRC_VALUES_PART_ENCODER_H_
#define MIVO_SRC_VALUES_PART_ENCODER_H_

#include <cstdint>
#include <string>
#include <string_view>

namespace mivo {

class PartEncoder {
 public:
  // Appends to `out`, whose bytes up to now are none of this part. The part's first byte will be that at `base` of the
  // encoding.
  PartEncoder(std::string& out, std::uint64_t base) : out_(out), start_(out.size()), base_(base) {}

  // Texts must not view `out`. What runs out of memory throws std::bad_alloc and leaves `out` as it was.
  void KeyValueInt(std::string_view key, std::int32_t value);
  void KeyValueString(std::string_view key, std::string_view text);

  // A pair up to the first byte of its stream, which has `size` bytes: the end of this part.
  void OpenKeyValueStream(std::string_view key, std::uint64_t size);
  // The end of a stream whose last byte stands before `base`: the beginning of this part.
  void CloseStream();

  // Where in the encoding this part ends.
  std::uint64_t end() const { return base_ + (out_.size() - start_); }

 private:
  // Adds so many bytes to the part, to be written.
  char* Room(std::size_t size);

  std::string& out_;
  const std::size_t start_;
  const std::uint64_t base_;
};

}  // namespace mivo

#endif  // MIVO_SRC_VALUES_PART_ENCODER_H_
