#include "largedata/partial_table.h"

#include <algorithm>
#include <limits>
#include <utility>
#include <vector>

#include "base/spare_memory.h"

namespace mivo {

namespace {

// The total is the peer's word: no room is made for it before a part of it has arrived, and one that is always just
// ahead does not have all that there is copied with each slice.
void MakeRoom(std::string& so_far, const Slice& slice) {
  constexpr std::size_t kSmallestPart = 8;
  const std::size_t needed = so_far.size() + slice.bytes.size();
  if (needed <= so_far.capacity()) return;
  const std::size_t total = static_cast<std::size_t>(std::max(slice.total_size, 0));
  const bool may_be_whole = needed >= total / kSmallestPart && total >= 2 * so_far.size();
  const std::size_t wanted = may_be_whole ? std::max(total, needed) : 2 * needed;
  std::string grown = TakeSpareString(wanted);
  grown.reserve(wanted);
  grown.append(so_far);
  so_far.swap(grown);
  GiveSpareString(std::move(grown));
}

}  // namespace

std::optional<std::string> PartialTable::Add(int connection_id, const Slice& slice) {
  const std::pair<int, int> place(connection_id, slice.key);
  // A long append keeps no other transfer waiting: one connection's slices come one after another.
  std::string so_far;
  {
    MutexLock lock(mutex_);
    so_far.swap(partial_[place]);
  }
  MakeRoom(so_far, slice);
  so_far.append(slice.bytes);
  // The total is the peer's word: it decides when we are done.
  const bool is_whole = slice.total_size <= 0 || static_cast<std::size_t>(slice.total_size) <= so_far.size();
  MutexLock lock(mutex_);
  if (is_whole) {
    partial_.erase(place);
    return so_far;
  }
  // Empty, unless a large message that names this receiver as its method has added to it meanwhile.
  std::string& entry = partial_[place];
  so_far += entry;
  entry.swap(so_far);
  return std::nullopt;
}

void PartialTable::Forget(int connection_id) {
  std::vector<std::string> forgotten;  // freed without the lock
  MutexLock lock(mutex_);
  auto entry = partial_.lower_bound({connection_id, std::numeric_limits<int>::min()});
  while (entry != partial_.end() && entry->first.first == connection_id) {
    forgotten.push_back(std::move(entry->second));
    entry = partial_.erase(entry);
  }
}

void PartialTable::ForgetAll() {
  Table forgotten;  // freed without the lock
  MutexLock lock(mutex_);
  forgotten.swap(partial_);
}

}  // namespace mivo
