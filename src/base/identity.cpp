#include "base/identity.h"

#include <atomic>

namespace mivo {

namespace {

// Steps like those of allocated blocks.
constexpr std::uint32_t kIdStep = 16;
constexpr std::uintptr_t kFirstToken = 0x5500'0000'0010;
// Tells the library's own from the application's.
constexpr std::uintptr_t kLibraryBit = kTokenStep / 2;

// Counted atomically, nothing is published through them. Constant-initialised: usable before main and during exit.
std::atomic<std::uint32_t> next_id{0x0000'1010};
std::atomic<std::uintptr_t> next_token{kFirstToken};

}  // namespace

int NextConnectionId() {
  std::uint32_t id = 0;
  while (id == 0)
    id = next_id.fetch_add(kIdStep, std::memory_order_relaxed);
  return static_cast<int>(id);
}

std::uintptr_t NextWaiterToken() {
  return next_token.fetch_add(kTokenStep, std::memory_order_relaxed);
}

std::uintptr_t NextLibraryToken() {
  return NextWaiterToken() | kLibraryBit;
}

bool IsToken(std::uintptr_t token) {
  const std::uintptr_t number = token & ~kLibraryBit;
  return number >= kFirstToken && number < next_token.load(std::memory_order_relaxed) &&
         (number - kFirstToken) % kTokenStep == 0;
}

bool IsLibraryToken(std::uintptr_t token) {
  return (token & kLibraryBit) != 0 && IsToken(token);
}

}  // namespace mivo
