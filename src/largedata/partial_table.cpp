#include "largedata/partial_table.h"

#include <iterator>
#include <utility>

namespace mivo {

PartialTable::Arrival::Arrival(PartialTable& table, const Slice& slice) : table_(table), slice_(slice) {
  MutexLock lock(table_.arrivals_mutex_);
  table_.arrivals_.push_back(this);
  place_ = std::prev(table_.arrivals_.end());
}

PartialTable::Arrival::~Arrival() {
  if (is_appended_) return;
  // It may be appended at this moment.
  MutexLock lock(table_.mutex_);
  if (!is_appended_) table_.Unlist(*this);
}

std::optional<std::string> PartialTable::Arrival::Append() {
  MutexLock lock(table_.mutex_);
  while (!is_appended_) {
    Arrival& oldest = table_.OldestArrival();
    // Appended first: without memory for it, it stays listed.
    oldest.whole_ = table_.AddLocked(oldest.slice_);
    table_.Unlist(oldest);
    oldest.is_appended_ = true;
  }
  return std::exchange(whole_, std::nullopt);
}

PartialTable::Arrival& PartialTable::OldestArrival() {
  MutexLock lock(arrivals_mutex_);
  return *arrivals_.front();
}

void PartialTable::Unlist(const Arrival& arrival) {
  MutexLock lock(arrivals_mutex_);
  arrivals_.erase(arrival.place_);
}

std::optional<std::string> PartialTable::Add(const Slice& slice) {
  MutexLock lock(mutex_);
  return AddLocked(slice);
}

std::optional<std::string> PartialTable::AddLocked(const Slice& slice) {
  const std::map<int, std::string>::iterator entry = partial_.try_emplace(slice.key).first;
  entry->second.append(slice.bytes);
  // The total is the peer's word: it decides when we are done, never how much we allocate.
  if (slice.total_size > 0 && static_cast<std::size_t>(slice.total_size) > entry->second.size()) return std::nullopt;
  std::string whole = std::move(entry->second);
  partial_.erase(entry);
  return whole;
}

}  // namespace mivo
