// The descriptors that the pool waits for.
#ifndef MIVO_POOL_POLLER_H_
#define MIVO_POOL_POLLER_H_

#include <cstdint>
#include <memory>
#include <vector>

#include "base/mutex.h"
#include "pool/source.h"

namespace mivo {

// Any thread, except where said otherwise.
class Poller {
 public:
  Poller() = default;
  ~Poller();
  Poller(const Poller&) = delete;
  Poller& operator=(const Poller&) = delete;

  // 0 or a negative errno. May be repeated.
  int Open();

  // What happened to one source. An end may also be an error, which a write will meet.
  struct Event {
    std::shared_ptr<Source> source;
    bool may_read = false;
    bool may_write = false;
    bool has_ended = false;
  };

  // Waits for `timeout_ms` (-1: without end, 0: not at all) and replaces `events` by what has happened. Only the thread
  // that reads for the pool.
  void Wait(int timeout_ms, std::vector<Event>* events);

 private:
  friend class Watch;

  // A descriptor that was closed is another's a moment later, and an event of the old one may be on its way meanwhile.
  // So events carry a ticket that is not given twice: a place in this table, and how often the place was given.
  struct Place {
    std::weak_ptr<Source> source;
    std::uint32_t uses = 0;
  };

  struct Admission {
    std::uint64_t ticket;
    int descriptor;  // of the set
  };

  Admission TakePlace(std::weak_ptr<Source> source);
  void GivePlaceBack(std::uint64_t ticket);
  std::shared_ptr<Source> Find(std::uint64_t ticket);

  Mutex mutex_;
  int descriptor_ MIVO_GUARDED_BY(mutex_) = -1;
  std::vector<Place> places_ MIVO_GUARDED_BY(mutex_);
  std::vector<std::uint32_t> free_ MIVO_GUARDED_BY(mutex_);
};

}  // namespace mivo

#endif  // MIVO_POOL_POLLER_H_
