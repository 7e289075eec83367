// One descriptor that the pool waits for.
#ifndef MIVO_POOL_WATCH_H_
#define MIVO_POOL_WATCH_H_

#include <cstdint>
#include <memory>

#include "base/mutex.h"
#include "pool/source.h"

namespace mivo {

class Poller;

// Any thread.
class Watch {
 public:
  Watch() = default;
  ~Watch() { Stop(); }
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  // Once. `source` is told of what was asked for before, and perhaps of the end. Until Stop has returned, `descriptor`
  // stays open. 0 or a negative errno.
  int Start(Poller& poller, int descriptor, std::weak_ptr<Source> source);

  // Whether the pool is told of bytes to read, and of room to write. Costs nothing where nothing changes. The end of
  // the stream may be told all the same.
  void SetReading(bool on);
  void SetWriting(bool on);

  // Nothing is told any more, not even the end, until the next SetReading(true).
  void Mute();

  // For good. An event may still be on its way, and finds the source gone or closed. May be repeated.
  void Stop();

 private:
  void Apply() MIVO_REQUIRES(mutex_);

  Mutex mutex_;
  Poller* poller_ MIVO_GUARDED_BY(mutex_) = nullptr;
  int set_ MIVO_GUARDED_BY(mutex_) = -1;  // the poller's descriptor
  int descriptor_ MIVO_GUARDED_BY(mutex_) = -1;
  std::uint64_t ticket_ MIVO_GUARDED_BY(mutex_) = 0;
  bool reading_ MIVO_GUARDED_BY(mutex_) = false;
  bool writing_ MIVO_GUARDED_BY(mutex_) = false;
  bool muted_ MIVO_GUARDED_BY(mutex_) = false;
};

}  // namespace mivo

#endif  // MIVO_POOL_WATCH_H_
