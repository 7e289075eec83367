// How large the slices of a large message are: one size for the process.
#ifndef MIVO_LARGEDATA_SLICE_SIZE_H_
#define MIVO_LARGEDATA_SLICE_SIZE_H_

namespace mivo {

// Any thread. Kept as it is, sensible or not.
void SetSliceSize(int bytes);
int SliceSizeAsSet();

// What a sender uses: the size as set, or 32768 where that is below 1.
int SliceSizeToUse();

}  // namespace mivo

#endif  // MIVO_LARGEDATA_SLICE_SIZE_H_
