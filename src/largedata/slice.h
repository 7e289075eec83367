// One slice of a large message, as a parameter set.
#ifndef MIVO_LARGEDATA_SLICE_H_
#define MIVO_LARGEDATA_SLICE_H_

#include <string_view>

class MIVOParams;

namespace mivo {

struct Slice {
  int key = 0;             // the call the message belongs to
  int total_size = 0;      // of the whole message, in bytes, as the peer says
  std::string_view bytes;  // this slice's part of it
};

void WriteSlice(const Slice& slice, MIVOParams* out);

// Reads an encoded slice without building values. What is missing or of another type than agreed counts as 0 or empty,
// and what stands before a fault counts. `bytes` points into `encoded`.
Slice ReadSlice(std::string_view encoded);

}  // namespace mivo

#endif  // MIVO_LARGEDATA_SLICE_H_
