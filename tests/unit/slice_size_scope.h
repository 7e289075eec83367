#ifndef MIVO_TESTS_UNIT_SLICE_SIZE_SCOPE_H_
#define MIVO_TESTS_UNIT_SLICE_SIZE_SCOPE_H_

#include "largedata/slice_size.h"

namespace mivo {

// Another slice size until its end: the size is one for the process, and other tests run in it.
class SliceSizeScope {
 public:
  explicit SliceSizeScope(int bytes) : before_(SliceSizeAsSet()) { SetSliceSize(bytes); }
  ~SliceSizeScope() { SetSliceSize(before_); }
  SliceSizeScope(const SliceSizeScope&) = delete;
  SliceSizeScope& operator=(const SliceSizeScope&) = delete;

 private:
  const int before_;
};

}  // namespace mivo

#endif  // MIVO_TESTS_UNIT_SLICE_SIZE_SCOPE_H_
