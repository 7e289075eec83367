#ifndef MIVO_SRC_VALUES_WIRE_TAGS_H_
#define MIVO_SRC_VALUES_WIRE_TAGS_H_

#include <cstdint>

namespace mivo {

// First byte of every record of an encoding. Not the numbering of MIVOValue::Type; both are fixed.
enum class WireTag : std::uint8_t {
  kInt = 0,
  kBool = 1,
  kDouble = 2,
  kString = 3,
  kStream = 4,
  kKeyValue = 5,
  kList = 6,
  kListMap = 7,
};

inline constexpr std::uint8_t kLastScalarTag = static_cast<std::uint8_t>(WireTag::kStream);

}  // namespace mivo

#endif  // MIVO_SRC_VALUES_WIRE_TAGS_H_
