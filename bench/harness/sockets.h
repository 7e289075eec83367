// Plain blocking sockets, for the peers that are nothing else.
#ifndef MIVO_BENCH_HARNESS_SOCKETS_H_
#define MIVO_BENCH_HARNESS_SOCKETS_H_

#include "harness/options.h"

namespace bench {

// Both throw std::system_error. The descriptor is the caller's.
int Listen(const Options& options);
int Connect(const Options& options);
// -1 when it failed.
int Accept(const Options& options, int listening);

}  // namespace bench

#endif  // MIVO_BENCH_HARNESS_SOCKETS_H_
