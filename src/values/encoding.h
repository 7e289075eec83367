// A set's encoded bytes, whatever their number.
#ifndef MIVO_VALUES_ENCODING_H_
#define MIVO_VALUES_ENCODING_H_

#include <mivo/params.h>

#include <string_view>

namespace mivo {

// A set's encoding at its true size; what Size says ends at INT_MAX.
inline std::string_view EncodingOf(const MIVOParams& params) {
  // GetParamas is for those who change the buffer, and itself changes nothing.
  return *const_cast<MIVOParams&>(params).GetParamas();
}

}  // namespace mivo

#endif  // MIVO_VALUES_ENCODING_H_
