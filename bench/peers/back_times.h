// How long a server's calls to its clients have taken, kept until a client asks.
#ifndef MIVO_BENCH_PEERS_BACK_TIMES_H_
#define MIVO_BENCH_PEERS_BACK_TIMES_H_

#include <cstdint>
#include <mutex>
#include <string>

#include "harness/clock.h"

namespace bench {

class BackTimes {
 public:
  // Times one call.
  template <class Function>
  void Time(const Function& call) {
    const std::uint64_t begin = NowNs();
    call();
    Add(NowNs() - begin);
  }
  void Add(std::uint64_t ns) {
    const auto value = static_cast<std::uint32_t>(ns);
    const std::lock_guard<std::mutex> lock(mutex_);
    times_.append(reinterpret_cast<const char*>(&value), sizeof value);
  }
  // As Connection::BackTimes.
  std::string Take() {
    std::string times;
    const std::lock_guard<std::mutex> lock(mutex_);
    times.swap(times_);
    return times;
  }

 private:
  std::mutex mutex_;
  std::string times_;
};

}  // namespace bench

#endif  // MIVO_BENCH_PEERS_BACK_TIMES_H_
