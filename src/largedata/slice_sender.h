// Sends a large message: cuts it into slices and gives them away one after another.
#ifndef MIVO_LARGEDATA_SLICE_SENDER_H_
#define MIVO_LARGEDATA_SLICE_SENDER_H_

#include <functional>
#include <string>

class MIVOParams;

namespace mivo {

// `send` sends one slice and waits for its answer; false ends the transfer. True if every slice was sent. There is
// always at least one; all but the last are of the slice size in force when the transfer begins.
bool SendInSlices(const std::string& whole, int key, const std::function<bool(MIVOParams* slice)>& send);

}  // namespace mivo

#endif  // MIVO_LARGEDATA_SLICE_SENDER_H_
