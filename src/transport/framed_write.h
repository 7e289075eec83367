// The one place where messages go out.
#ifndef MIVO_TRANSPORT_FRAMED_WRITE_H_
#define MIVO_TRANSPORT_FRAMED_WRITE_H_

#include <uv.h>

#include <vector>

#include "transport/frame.h"

namespace mivo {

// Loop thread. Hands `frames`, at least one, to libuv in one request: what the kernel takes at once is gone when this
// returns, the rest follows in order. A refused request is tried three times more, a millisecond apart; then the frames
// are dropped, "write error" is printed for each, and the last result is returned. The stream stays as it is.
//
// A write that fails later is reported on standard output, once for each of its frames.
int FramedWrite(uv_stream_t* stream, std::vector<Frame> frames);

// What FramedWrite prints for a frame that it drops.
void ReportDroppedFrame();

}  // namespace mivo

#endif  // MIVO_TRANSPORT_FRAMED_WRITE_H_
