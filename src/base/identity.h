// Numbers that name a connection or a waiting call, and that do not come back soon.
//
// On the wire and in the interface such a number looks like an address. An address itself would not do: the allocator
// hands freed memory out again at once, and then a late reply wakes a stranger, or a call meant for a client that has
// left reaches the next one.
#ifndef MIVO_BASE_IDENTITY_H_
#define MIVO_BASE_IDENTITY_H_

#include <cstdint>

namespace mivo {

// A connection's id: the same number in handlers, notices, diagnostic lines and calls. Never 0. Having 32 bits, ids
// come round, after 2^28 connections: whoever keeps connections by their ids has to pass over those that still live.
// Any thread.
int NextConnectionId();

// A waiting call's token. Never 0, and never given twice. Any thread.
std::uintptr_t NextWaiterToken();

// The same for a call that the library makes of its own accord.
std::uintptr_t NextLibraryToken();

// How far tokens are from each other, at least.
inline constexpr std::uintptr_t kTokenStep = 16;

// Whether one of the two gave this number out, in this process; whether it was the second. Any thread.
bool IsToken(std::uintptr_t token);
bool IsLibraryToken(std::uintptr_t token);

}  // namespace mivo

#endif  // MIVO_BASE_IDENTITY_H_
