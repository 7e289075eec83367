// How the bytes are read
//
// Every scalar record ends in a stamp that repeats the stamp's own offset. A record is taken in two steps: first its
// value, under a bound that asks for no more than the value's bytes, its last one left out for numbers, then the stamp.
// So a record cut in its stamp, or one byte earlier, still reports its value and only then is a fault: peers see how
// far the bytes went. A value byte beyond the end reads as 0; a stamp that is not wholly inside the input never
// matches, even if its missing bytes would be zeros.
//
// Lengths and counts are the peer's word. A length is compared with what is really there before anything is made of it;
// a count only limits a loop that consumes bytes in every round, because the rounds that would consume nothing (see
// TakeList, TakeListMap) are left in one step. Offsets are 64 bits wide, so no announced length wraps them.
#ifndef MIVO_SRC_VALUES_DECODER_H_
#define MIVO_SRC_VALUES_DECODER_H_

#include <cstdint>
#include <cstring>
#include <string_view>

#include "values/wire_tags.h"

namespace mivo {

// One decoded scalar. Only the member that `tag` names is meaningful.
struct Scalar {
  WireTag tag = WireTag::kInt;
  bool boolean = false;
  std::int32_t integer = 0;
  double real = 0;
  std::string_view bytes;  // strings and streams; views the decoder's input
};

// Receives what Decode finds, in the order of the bytes. Views handed over live as long as the decoded input.
//
// A value is reported before its position stamp is tested: with Decode returning false the last report may be the value
// of a record that was cut or whose stamp is wrong.
class DecodeSink {
 public:
  virtual ~DecodeSink() = default;

  virtual void OnPositional(const Scalar& value) = 0;

  // A pair, at the top level or inside a list map, names `key`: whatever the top level held under that key is gone, but
  // an entry that existed stays, without a value until OnKeyed gives it one. If OnKeyed comes, it comes next.
  virtual void OnKey(std::string_view key) = 0;
  virtual void OnKeyed(std::string_view key, const Scalar& value) = 0;

  // A list or list map whose end is never reported was cut by a fault and counts as absent. They do not nest.
  virtual void OnListBegin() = 0;
  virtual void OnListElement(const Scalar& value) = 0;
  virtual void OnListEnd() = 0;

  virtual void OnListMapBegin() = 0;
  virtual void OnListMapEntry(std::string_view key, const Scalar& value) = 0;  // the latest report of a key wins
  virtual void OnListMapEnd() = 0;
};

// For those who look at what stands under keys, and pass over all else.
class KeyedSink : public DecodeSink {
 public:
  void OnPositional(const Scalar&) final {}
  void OnListBegin() final {}
  void OnListElement(const Scalar&) final {}
  void OnListEnd() final {}
  void OnListMapBegin() final {}
  void OnListMapEntry(std::string_view, const Scalar&) final {}
  void OnListMapEnd() final {}
};

// Reads one whole encoding, from its first byte on: records carry their own absolute offsets, so a part of an encoding
// does not decode. Returns true when the end was reached without a fault, false at the first fault; what was reported
// until then stands.
//
// Total: any bytes of any length are safe. Reads nothing outside `bytes`, allocates nothing, does not recurse, and
// takes time linear in the bytes, whatever lengths and counts they announce. An exception of the sink's passes through.
bool Decode(std::string_view bytes, DecodeSink& sink);

// The same for a sink that is known when this is compiled, any class with the operations of DecodeSink. Those that a
// value comes with, and those of a beginning, are told in front where in the bytes the value's record, or the list,
// begins.
template <class Sink>
class Decoder {
 public:
  Decoder(std::string_view bytes, Sink& sink) : bytes_(bytes), sink_(sink) {}

  bool TakeAll() {
    while (position_ < bytes_.size()) {
      if (!TakeRecord()) return false;
    }
    return true;
  }

  // The record at `offset` again, of those that OnPositional, OnListEnd and OnListMapEnd have told of.
  bool TakeRecordAt(std::uint64_t offset) {
    position_ = offset;
    const std::uint8_t tag = ByteAt(offset);
    if (tag == static_cast<std::uint8_t>(WireTag::kList)) return TakeList();
    if (tag == static_cast<std::uint8_t>(WireTag::kListMap)) return TakeListMap();
    return TakePositional();
  }

  // The value alone of a scalar's record; false where none begins. The sink hears nothing of it.
  bool TakeScalarAt(std::uint64_t offset, Scalar& value) {
    position_ = offset;
    if (ByteAt(offset) > kLastScalarTag) return false;
    return TakeValue(value);
  }

 private:
  bool TakeRecord() {
    const std::uint8_t tag = ByteAt(position_);
    if (tag <= kLastScalarTag) return TakePositional();
    switch (static_cast<WireTag>(tag)) {
      case WireTag::kKeyValue:
        return TakePair();
      case WireTag::kList:
        return TakeList();
      case WireTag::kListMap:
        return TakeListMap();
      default:
        return false;
    }
  }

  bool TakePositional() {
    const std::uint64_t start = position_;
    Scalar value;
    if (!TakeValue(value)) return false;
    sink_.OnPositional(start, value);
    return TakeStamp();
  }

  bool TakePair() {
    std::string_view key;
    if (!TakeKey(key)) return false;
    const std::uint64_t start = position_;
    // Anything but a scalar leaves the key without a value; the byte starts the next record.
    if (ByteAt(start) > kLastScalarTag) return true;
    Scalar value;
    if (!TakeValue(value)) return false;
    sink_.OnKeyed(start, key, value);
    return TakeStamp();
  }

  bool TakeList() {
    const std::uint64_t start = position_;
    std::int32_t count = 0;
    if (!TakeCount(count)) return false;
    sink_.OnListBegin(start);
    for (; count > 0; --count) {
      const std::uint64_t element = position_;
      // Not an element: it is never consumed here, so all the remaining rounds would meet it again.
      if (ByteAt(element) > kLastScalarTag) break;
      Scalar value;
      if (!TakeValue(value)) return false;
      sink_.OnListElement(element, value);
      if (!TakeStamp()) return false;
    }
    sink_.OnListEnd();
    return true;
  }

  bool TakeListMap() {
    const std::uint64_t start = position_;
    std::int32_t count = 0;
    if (!TakeCount(count)) return false;
    sink_.OnListMapBegin(start);
    for (; count > 0; --count) {
      // Not a pair: never consumed here either. The end of the input is no pair, hence an end of the list map.
      if (ByteAt(position_) != static_cast<std::uint8_t>(WireTag::kKeyValue)) break;
      std::string_view key;
      if (!TakeKey(key)) return false;
      const std::uint64_t entry = position_;
      if (ByteAt(entry) > kLastScalarTag) continue;
      Scalar value;
      if (!TakeValue(value)) return false;
      sink_.OnListMapEntry(entry, key, value);
      if (!TakeStamp()) return false;
    }
    sink_.OnListMapEnd();
    return true;
  }

  bool TakeKey(std::string_view& key) {
    constexpr std::uint64_t kSmallestKey = 10;  // pair tag, string tag, length, stamp
    if (ByteAt(position_ + 1) != static_cast<std::uint8_t>(WireTag::kString)) return false;
    if (!Holds(position_ + kSmallestKey)) return false;
    const auto length = static_cast<std::int32_t>(WholeU32At(position_ + 2));
    if (length < 0) return false;
    const std::uint64_t start = position_ + 6;
    position_ = start + static_cast<std::uint64_t>(length);
    if (!TakeStamp()) return false;
    key = std::string_view(bytes_.data() + start, static_cast<std::size_t>(length));
    sink_.OnKey(key);
    return true;
  }

  bool TakeCount(std::int32_t& count) {
    if (!Holds(position_ + 5)) return false;
    count = static_cast<std::int32_t>(WholeU32At(position_ + 1));
    position_ += 5;
    return count >= 0;
  }

  // Needs a scalar tag at the position (the end of the input reads as an integer's, which the bound turns down). Leaves
  // the position on the record's stamp.
  bool TakeValue(Scalar& value) {
    value.tag = static_cast<WireTag>(ByteAt(position_));
    const std::uint64_t payload = position_ + 1;
    switch (value.tag) {
      case WireTag::kInt:
        if (!Holds(position_ + 4)) return false;
        value.integer = static_cast<std::int32_t>(U32At(payload));
        position_ = payload + 4;
        return true;
      case WireTag::kBool:
        value.boolean = ByteAt(payload) == '1';
        position_ = payload + 1;
        return true;
      case WireTag::kDouble:
        if (!Holds(position_ + 8)) return false;
        value.real = DoubleAt(payload);
        position_ = payload + 8;
        return true;
      default:
        return TakeText(value.bytes);
    }
  }

  bool TakeText(std::string_view& text) {
    const std::uint64_t start = position_ + 5;
    if (!Holds(start)) return false;
    const auto length = static_cast<std::int32_t>(WholeU32At(position_ + 1));
    if (length < 0) return false;
    const std::uint64_t end = start + static_cast<std::uint64_t>(length);
    if (!Holds(end)) return false;
    text = std::string_view(bytes_.data() + start, static_cast<std::size_t>(length));
    position_ = end;
    return true;
  }

  bool TakeStamp() {
    const std::uint64_t stamp = position_;
    if (!Holds(stamp + 4)) return false;
    position_ += 4;
    return WholeU32At(stamp) == static_cast<std::uint32_t>(stamp);
  }

  bool Holds(std::uint64_t size) const { return bytes_.size() >= size; }

  std::uint8_t ByteAt(std::uint64_t offset) const { return Holds(offset + 1) ? ByteInside(offset) : std::uint8_t{0}; }

  std::uint8_t ByteInside(std::uint64_t offset) const { return static_cast<std::uint8_t>(bytes_.data()[offset]); }

  std::uint32_t ThreeBytesAt(std::uint64_t offset) const {
    return static_cast<std::uint32_t>(ByteInside(offset)) | static_cast<std::uint32_t>(ByteInside(offset + 1)) << 8 |
           static_cast<std::uint32_t>(ByteInside(offset + 2)) << 16;
  }

  // Numbers travel as they lie in memory; the library is for little-endian machines.
  std::uint32_t WholeU32At(std::uint64_t offset) const {
    std::uint32_t value = 0;
    std::memcpy(&value, bytes_.data() + offset, sizeof(value));
    return value;
  }

  // The caller's bound covers the first three bytes; the fourth may be the one byte a cut value lacks.
  std::uint32_t U32At(std::uint64_t offset) const {
    return Holds(offset + 4) ? WholeU32At(offset) : ThreeBytesAt(offset);
  }

  double DoubleAt(std::uint64_t offset) const {
    const std::uint64_t bits = WholeU32At(offset) | static_cast<std::uint64_t>(U32At(offset + 4)) << 32;
    double value = 0;
    std::memcpy(&value, &bits, sizeof(value));
    return value;
  }

  const std::string_view bytes_;
  Sink& sink_;
  std::uint64_t position_ = 0;
};

}  // namespace mivo

#endif  // MIVO_SRC_VALUES_DECODER_H_
