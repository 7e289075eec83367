// Something that the pool reads from.
#ifndef MIVO_POOL_SOURCE_H_
#define MIVO_POOL_SOURCE_H_

#include "pool/job.h"

namespace mivo {

class Source {
 public:
  virtual ~Source() = default;

  enum class Cause {
    kLooking,  // it was active a moment ago
    kEvent,    // the kernel says that there is something, and goes on saying so until it was taken
    kEnded,    // the kernel says that the stream has ended, and goes on saying so until the watch is muted or stopped
  };

  // The thread that reads for the pool; there is one at a time. Takes what is there without blocking, and adds to
  // `jobs` what has to be done about it. Runs no code of the application. Returns whether there was anything.
  virtual bool Read(Cause cause, Jobs& jobs) = 0;

  // The same thread. There is room again for what waits to be written.
  virtual void Write() = 0;
};

}  // namespace mivo

#endif  // MIVO_POOL_SOURCE_H_
