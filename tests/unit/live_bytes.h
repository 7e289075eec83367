// How much memory is in use: what is allocated, without what the library keeps spare for a second.
#ifndef MIVO_TESTS_UNIT_LIVE_BYTES_H_
#define MIVO_TESTS_UNIT_LIVE_BYTES_H_

#include <cstddef>

#include "base/clock.h"
#include "base/spare_memory.h"
#include "support/allocated_bytes.h"

namespace mivo_test {

inline std::size_t LiveBytes() {
  constexpr std::int64_t kTenSeconds = 10'000'000'000;
  mivo::AgeSpareMemory(mivo::NowNs() + kTenSeconds);
  return AllocatedBytes();
}

}  // namespace mivo_test

#endif  // MIVO_TESTS_UNIT_LIVE_BYTES_H_
