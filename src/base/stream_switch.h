// Taking the C++ streams off C's.
#ifndef MIVO_BASE_STREAM_SWITCH_H_
#define MIVO_BASE_STREAM_SWITCH_H_

namespace mivo {

// std::ios_base::sync_with_stdio(false), once in the life of the process, unless this is no moment for it: it flushes
// all three of C's streams, and the lock of one is held by whoever waits inside it for input, or for a reader; and
// input that one of them has read ahead would be lost. False then, and nothing has changed; a later call tries again.
// Any thread.
bool SwitchStreamsOffStdio();

}  // namespace mivo

#endif  // MIVO_BASE_STREAM_SWITCH_H_
