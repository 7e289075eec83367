// The clock by which waiting is measured.
#ifndef MIVO_BASE_CLOCK_H_
#define MIVO_BASE_CLOCK_H_

#include <chrono>
#include <cstdint>

namespace mivo {

// Of a clock that only goes forward: setting the wall clock neither ends nor prolongs a wait.
inline std::int64_t NowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

inline std::int64_t NowMs() {
  return NowNs() / 1000000;
}

}  // namespace mivo

#endif  // MIVO_BASE_CLOCK_H_
