#include "largedata/partial_table.h"

#include <utility>

namespace mivo {

std::optional<std::string> PartialTable::Add(const Slice& slice) {
  MutexLock lock(mutex_);
  const std::map<int, std::string>::iterator entry = partial_.try_emplace(slice.key).first;
  entry->second.append(slice.bytes);
  // The total is the peer's word: it decides when we are done, never how much we allocate.
  if (slice.total_size > 0 && static_cast<std::size_t>(slice.total_size) > entry->second.size()) return std::nullopt;
  std::string whole = std::move(entry->second);
  partial_.erase(entry);
  return whole;
}

}  // namespace mivo
