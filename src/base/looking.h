// Looking again for a while before going to sleep.
#ifndef MIVO_BASE_LOOKING_H_
#define MIVO_BASE_LOOKING_H_

#include <sched.h>

#include <algorithm>
#include <cstdint>

#include "base/clock.h"

namespace mivo {

// To be woken on another processor costs some 25 us, a call without it 5. So whoever waits for the next message looks
// for it without blocking for a short while after the last one, and gives the processor away between two looks. Without
// traffic there is nothing to look for, and nobody looks.
//
// When a look away has taken long, and another one soon after, somebody else wants this processor, and looking is a
// burden to both: it is left for a while, for longer each time. One alone means little: any machine holds a thread up
// for a moment, now and then.
//
// One thread at a time.
class Looking {
 public:
  // Something came, or was sent off and will be answered.
  void Saw(std::int64_t now_ns) { last_ns_ = now_ns; }

  // Whether to look once more; otherwise it is time to sleep.
  bool MayGoOn(std::int64_t now_ns) const { return now_ns >= off_until_ns_ && now_ns - last_ns_ < kPatienceNs; }

  // Between two looks. `now_ns` is the time.
  void GiveAway(std::int64_t now_ns) {
    ::sched_yield();
    WasAway(now_ns, NowNs());
  }

  // What GiveAway makes of it: the processor was somebody else's from then until `back_ns`.
  void WasAway(std::int64_t away_ns, std::int64_t back_ns) {
    if (back_ns - away_ns <= kCrowdedNs) return;
    const bool was_crowded_before = back_ns - crowded_ns_ < kTogetherNs;
    crowded_ns_ = back_ns;
    if (!was_crowded_before) return;
    if (back_ns > off_until_ns_ + kForgivenNs) pause_ns_ = kShortestPauseNs;
    off_until_ns_ = back_ns + pause_ns_;
    pause_ns_ = std::min(2 * pause_ns_, kLongestPauseNs);
  }

 private:
  // Measured: 20 us end before the answer of another side that was itself just woken, and then both go on sleeping and
  // waking each other; with 50 they get out of it, and 100 shorten nothing any more.
  static constexpr std::int64_t kPatienceNs = 50'000;
  static constexpr std::int64_t kCrowdedNs = 200'000;
  static constexpr std::int64_t kTogetherNs = 10'000'000;
  static constexpr std::int64_t kShortestPauseNs = 20'000'000;
  static constexpr std::int64_t kLongestPauseNs = 1'000'000'000;
  static constexpr std::int64_t kForgivenNs = 2'000'000'000;

  std::int64_t last_ns_ = -kPatienceNs;
  std::int64_t crowded_ns_ = -kTogetherNs;
  std::int64_t off_until_ns_ = 0;
  std::int64_t pause_ns_ = kShortestPauseNs;
};

}  // namespace mivo

#endif  // MIVO_BASE_LOOKING_H_
