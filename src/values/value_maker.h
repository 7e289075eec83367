// Value objects, made from the records of decoded bytes.
#ifndef MIVO_SRC_VALUES_VALUE_MAKER_H_
#define MIVO_SRC_VALUES_VALUE_MAKER_H_

#include <mivo/value.h>

#include <cstdint>
#include <string_view>

namespace mivo {

// Makes the value of the record at `offset` in the memory at `place`. False, with nothing made, where no record that
// holds a value stands; that does not happen in bytes that were decoded and are still the same.
bool MakeValue(std::string_view bytes, std::uint64_t offset, MIVOValue* place);

// Makes those of up to 64 values that cost little beside their objects, numbers and short texts: that of the record at
// offsets[i] in places[i], and its bit of `made` set. Nothing stands at an offset beyond the bytes. An exception leaves
// what was made until then.
void MakeSmallValues(std::string_view bytes, const std::uint32_t* offsets, std::uint32_t count, MIVOValue* places,
                     std::uint64_t& made);

}  // namespace mivo

#endif  // MIVO_SRC_VALUES_VALUE_MAKER_H_
