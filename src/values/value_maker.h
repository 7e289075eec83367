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

// The same for a number; false for anything else.
bool MakeNumber(std::string_view bytes, std::uint64_t offset, MIVOValue* place);

}  // namespace mivo

#endif  // MIVO_SRC_VALUES_VALUE_MAKER_H_
