// The clock by which waiting is measured.
#ifndef MIVO_BASE_CLOCK_H_
#define MIVO_BASE_CLOCK_H_

#include <chrono>
#include <cstdint>

namespace mivo {

// Milliseconds of a clock that only goes forward: setting the wall clock neither ends nor prolongs a wait.
inline std::int64_t NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace mivo

#endif  // MIVO_BASE_CLOCK_H_
