// Takes the place of the C library's allocation functions in a program, and with it operator new and every library the
// program uses, and counts. Freeing is left alone: what is handed out is the C library's own.
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "harness/usage.h"

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
}

namespace {

std::atomic<std::int64_t> allocations{0};

void Count() {
  allocations.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

namespace bench {

std::int64_t AllocationsNow() {
  return allocations.load(std::memory_order_relaxed);
}

}  // namespace bench

extern "C" {

void* malloc(std::size_t size) {
  Count();
  return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) {
  Count();
  return __libc_calloc(count, size);
}

void* realloc(void* block, std::size_t size) {
  Count();
  return __libc_realloc(block, size);
}

void* memalign(std::size_t alignment, std::size_t size) {
  Count();
  return __libc_memalign(alignment, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
  Count();
  return __libc_memalign(alignment, size);
}

int posix_memalign(void** block, std::size_t alignment, std::size_t size) {
  Count();
  *block = __libc_memalign(alignment, size);
  return *block == nullptr ? ENOMEM : 0;
}

}  // extern "C"
