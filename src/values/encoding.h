// A set's encoded bytes, whatever their number.
#ifndef MIVO_VALUES_ENCODING_H_
#define MIVO_VALUES_ENCODING_H_

#include <string_view>

#include "values/params_bytes.h"

namespace mivo {

// A set's encoding at its true size; what Size says ends at INT_MAX.
inline std::string_view EncodingOf(const MIVOParams& params) {
  return ParamsBytes::Of(params);
}

}  // namespace mivo

#endif  // MIVO_VALUES_ENCODING_H_
