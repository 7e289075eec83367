// Large messages of which some slices are still missing.
#ifndef MIVO_LARGEDATA_PARTIAL_TABLE_H_
#define MIVO_LARGEDATA_PARTIAL_TABLE_H_

#include <map>
#include <optional>
#include <string>
#include <utility>

#include "base/mutex.h"
#include "largedata/slice.h"

namespace mivo {

// Each belongs to a connection and a call key: what somebody else sends under the key is no part of it, and it goes
// with its connection. A transfer that was broken off stays as long as the connection does, and the next one on the key
// goes on behind it.
//
// Slices carry no number: they are to be added in the order in which they arrive. Any thread.
class PartialTable {
 public:
  // The whole message, taken out of the table, if its announced size has been reached.
  std::optional<std::string> Add(int connection_id, const Slice& slice);

  // The connection has gone.
  void Forget(int connection_id);

  // Every connection has gone.
  void ForgetAll();

 private:
  using Table = std::map<std::pair<int, int>, std::string>;

  Mutex mutex_;
  Table partial_ MIVO_GUARDED_BY(mutex_);
};

}  // namespace mivo

#endif  // MIVO_LARGEDATA_PARTIAL_TABLE_H_
