// Sends a large message: cuts it into slices and gives them away one after another.
#ifndef MIVO_LARGEDATA_SLICE_SENDER_H_
#define MIVO_LARGEDATA_SLICE_SENDER_H_

#include <cstddef>
#include <functional>
#include <limits>
#include <string>

class MIVOParams;

namespace mivo {

inline constexpr std::size_t kLongestWhole = static_cast<std::size_t>(std::numeric_limits<int>::max());

// The size of all slices but the last of a transfer that begins now.
std::size_t SliceSizeOfTransfer();

// `send` sends one slice and waits for its answer; false ends the transfer. True if every slice was sent. There is
// always at least one; all but the last are of the slice size in force when the transfer begins. A message longer than
// kLongestWhole ends the program.
bool SendInSlices(const std::string& whole, int key, const std::function<bool(MIVOParams* slice)>& send);

}  // namespace mivo

#endif  // MIVO_LARGEDATA_SLICE_SENDER_H_
