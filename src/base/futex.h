// Sleeping on a word until somebody changes it, where a mutex would cost the one who is woken another sleep.
#ifndef MIVO_BASE_FUTEX_H_
#define MIVO_BASE_FUTEX_H_

#include <atomic>
#include <cstdint>
#include <optional>

namespace mivo {

// Unless the word is another than `expected` already. May return for no reason: look again. False once it is later than
// `deadline_ns` by NowNs.
bool FutexSleep(std::atomic<std::uint32_t>& word, std::uint32_t expected,
                std::optional<std::int64_t> deadline_ns = std::nullopt);

// Wakes one who sleeps. Uses the word's address only: it may be gone since it was changed, for whoever sleeps at that
// address by then looks again.
void FutexWake(std::atomic<std::uint32_t>& word);

}  // namespace mivo

#endif  // MIVO_BASE_FUTEX_H_
