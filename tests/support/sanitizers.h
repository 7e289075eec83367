// Whether the program is built with sanitizers, which make everything several times slower and larger.
#ifndef MIVO_TESTS_SUPPORT_SANITIZERS_H_
#define MIVO_TESTS_SUPPORT_SANITIZERS_H_

namespace mivo_test {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

// Bounds upward grow by this much.
constexpr int kSlowdown = kSanitized ? 4 : 1;
// Heavy loads shrink by this much.
constexpr int kScaledown = kSanitized ? 5 : 1;

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_SANITIZERS_H_
