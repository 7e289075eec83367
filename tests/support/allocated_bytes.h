// How much memory the process holds, by the word of its allocator.
#ifndef MIVO_TESTS_SUPPORT_ALLOCATED_BYTES_H_
#define MIVO_TESTS_SUPPORT_ALLOCATED_BYTES_H_

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// Of the sanitizers' run-time library; not every compiler ships its header.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#else
#include <malloc.h>
#endif

namespace mivo_test {

inline std::size_t AllocatedBytes() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return __sanitizer_get_current_allocated_bytes();
#else
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
#endif
}

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_ALLOCATED_BYTES_H_
