// Large messages of which some slices are still missing.
#ifndef MIVO_LARGEDATA_PARTIAL_TABLE_H_
#define MIVO_LARGEDATA_PARTIAL_TABLE_H_

#include <atomic>
#include <list>
#include <map>
#include <optional>
#include <string>

#include "base/mutex.h"
#include "largedata/slice.h"

namespace mivo {

// By call key alone: a message whose transfer was broken off stays, also beyond its connection, and the next transfer
// on the key goes on behind it. Any thread.
//
// Slices carry no number: their order is the order in which they arrived. But each is brought here by a job of the
// pool's, and when jobs have piled up, several threads take one each and the later job may come first. So a slice is
// listed on arrival, and whoever appends one appends before it what arrived earlier. The job of an earlier one finds
// that done, and what it came to. So nobody waits for a job that has no thread yet, and each job answers its own
// request.
class PartialTable {
 public:
  // A slice from its arrival on. Outlived by the table and by the slice's bytes.
  class Arrival {
   public:
    // Slices are appended in the order in which these are made. Waits for no append, so it is for the loop thread too.
    Arrival(PartialTable& table, const Slice& slice);
    // A slice that nobody has appended yet is taken back.
    ~Arrival();
    Arrival(const Arrival&) = delete;
    Arrival& operator=(const Arrival&) = delete;

    int key() const { return slice_.key; }

    // Appends the slice, unless it was appended with one that arrived later. The whole message that this slice has
    // completed, if it has; once.
    std::optional<std::string> Append();

   private:
    friend class PartialTable;

    PartialTable& table_;
    const Slice slice_;
    std::list<Arrival*>::iterator place_;
    std::optional<std::string> whole_;  // guarded by the table's mutex_
    // Written with the table's mutex_, last of all: then the table has let go of this object.
    std::atomic<bool> is_appended_{false};
  };

  // Appends a slice that did not arrive on its own, at once; the whole message, taken out of the table, if its
  // announced size has been reached.
  std::optional<std::string> Add(const Slice& slice);

 private:
  std::optional<std::string> AddLocked(const Slice& slice) MIVO_REQUIRES(mutex_);
  Arrival& OldestArrival() MIVO_REQUIRES(mutex_);
  void Unlist(const Arrival& arrival) MIVO_REQUIRES(mutex_);

  Mutex mutex_;
  std::map<int, std::string> partial_ MIVO_GUARDED_BY(mutex_);

  // Taken within mutex_, or alone, to list or unlist and for nothing else: an append may move hundreds of megabytes,
  // and the loop thread must not wait for that. Arrivals are unlisted with mutex_ only.
  Mutex arrivals_mutex_;
  std::list<Arrival*> arrivals_ MIVO_GUARDED_BY(arrivals_mutex_);  // not appended yet, oldest first
};

}  // namespace mivo

#endif  // MIVO_LARGEDATA_PARTIAL_TABLE_H_
