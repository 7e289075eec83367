// A set's bytes, as the library itself deals with them.
//
// MIVOParams::GetParamas gives the buffer away for good: whoever has the pointer may change the bytes at any time, so
// that the values decoded from them need a copy. What the library does with a set's bytes costs no such copy here.
#ifndef MIVO_SRC_VALUES_PARAMS_BYTES_H_
#define MIVO_SRC_VALUES_PARAMS_BYTES_H_

#include <mivo/params.h>

#include <string>
#include <string_view>

namespace mivo {

class EncodingBuffer;

class ParamsBytes {
 public:
  // The set's encoding at its true size; what Size says ends at INT_MAX. Holds until the set is changed.
  static std::string_view Of(const MIVOParams& params);

  // Moves the encoding out. The set's buffer is empty then; what it shows stays.
  static std::string Take(MIVOParams& params);

  // Replaces the whole set with these bytes and what they decode to, as Parser does.
  static bool Decode(MIVOParams& params, std::string bytes);

  // The same without a copy: `bytes` must outlive the set and all its copies, unchanged, or be given up by Clear or
  // the next decoding before. The set takes a copy when its buffer is asked for or added to.
  static bool DecodeBorrowed(MIVOParams& params, std::string_view bytes);

 private:
  friend MIVOParams;

  static EncodingBuffer& Buffer(MIVOParams& params);
  static bool DecodeBuffer(MIVOParams& params);
  static void DropReadFace(MIVOParams& params);
};

}  // namespace mivo

#endif  // MIVO_SRC_VALUES_PARAMS_BYTES_H_
