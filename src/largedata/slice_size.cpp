#include "largedata/slice_size.h"

#include <atomic>

namespace mivo {

namespace {

constexpr int kDefaultSliceSize = 32768;

// Set and read by any thread; publishes nothing else.
std::atomic<int> bigfile_buffer_size{kDefaultSliceSize};

}  // namespace

void SetSliceSize(int bytes) {
  bigfile_buffer_size = bytes;
}

int SliceSizeAsSet() {
  return bigfile_buffer_size;
}

int SliceSizeToUse() {
  const int bytes = bigfile_buffer_size;
  return bytes < 1 ? kDefaultSliceSize : bytes;
}

}  // namespace mivo
