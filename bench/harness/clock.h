#ifndef MIVO_BENCH_HARNESS_CLOCK_H_
#define MIVO_BENCH_HARNESS_CLOCK_H_

#include <chrono>
#include <cstdint>
#include <thread>

namespace bench {

inline std::uint64_t NowNs() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
}

inline double SecondsSince(std::uint64_t begin_ns) {
  return static_cast<double>(NowNs() - begin_ns) * 1e-9;
}

inline void Sleep(double seconds) {
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

}  // namespace bench

#endif  // MIVO_BENCH_HARNESS_CLOCK_H_
