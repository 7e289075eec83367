// Large messages of which some slices are still missing.
#ifndef MIVO_LARGEDATA_PARTIAL_TABLE_H_
#define MIVO_LARGEDATA_PARTIAL_TABLE_H_

#include <map>
#include <optional>
#include <string>

#include "base/mutex.h"
#include "largedata/slice.h"

namespace mivo {

// By call key alone: a message whose transfer was broken off stays, also beyond its connection, and the next transfer
// on the key goes on behind it. Any thread.
class PartialTable {
 public:
  // Appends the slice; the whole message, taken out of the table, if its announced size has been reached.
  std::optional<std::string> Add(const Slice& slice);

 private:
  Mutex mutex_;
  std::map<int, std::string> partial_ MIVO_GUARDED_BY(mutex_);
};

}  // namespace mivo

#endif  // MIVO_LARGEDATA_PARTIAL_TABLE_H_
