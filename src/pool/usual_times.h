// How long jobs have lately taken, by their kind.
#ifndef MIVO_POOL_USUAL_TIMES_H_
#define MIVO_POOL_USUAL_TIMES_H_

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

namespace mivo {

// A kind is any number, such as the hash of a method's name; two that share a place are taken for one. One thread at a
// time.
class UsualTimes {
 public:
  bool IsSlow(std::size_t kind) const { return times_[kind % kPlaces] > kSlowNs; }

  void Count(std::size_t kind, std::int64_t took_ns) {
    std::int64_t& usual_ns = times_[kind % kPlaces];
    usual_ns += (std::min(took_ns, kLongestCountedNs) - usual_ns) / kWeightOfPast;
  }

 private:
  static constexpr std::size_t kPlaces = 256;
  // Jobs that take longer are worth waking somebody who reads meanwhile.
  static constexpr std::int64_t kSlowNs = 10'000;
  static constexpr std::int64_t kWeightOfPast = 16;
  // One job alone that was kept from its processor for a while does not make a kind slow.
  static constexpr std::int64_t kLongestCountedNs = kWeightOfPast * kSlowNs;

  std::array<std::int64_t, kPlaces> times_{};
};

}  // namespace mivo

#endif  // MIVO_POOL_USUAL_TIMES_H_
