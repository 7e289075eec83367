#include "base/process.h"

#include <pthread.h>

#include <atomic>

namespace mivo {

namespace {

// Written in a child of fork, where there is one thread; read by any.
std::atomic<unsigned int> generation{0};

[[maybe_unused]] const int counts_forks = ::pthread_atfork(nullptr, nullptr, [] { ++generation; });

}  // namespace

unsigned int ForkGeneration() {
  return generation.load(std::memory_order_relaxed);
}

}  // namespace mivo
