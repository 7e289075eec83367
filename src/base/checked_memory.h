// Whether this was compiled under a checker of memory.
#ifndef MIVO_BASE_CHECKED_MEMORY_H_
#define MIVO_BASE_CHECKED_MEMORY_H_

namespace mivo {

#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kMemoryIsChecked = true;
#elif defined(__has_feature)
inline constexpr bool kMemoryIsChecked = __has_feature(address_sanitizer);
#else
inline constexpr bool kMemoryIsChecked = false;
#endif

}  // namespace mivo

#endif  // MIVO_BASE_CHECKED_MEMORY_H_
