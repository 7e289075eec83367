#include "calls/reply_table.h"

#include <mivo/params.h>

#include <algorithm>
#include <limits>
#include <utility>

#include "values/params_bytes.h"

namespace mivo {

namespace {

// What may wait for a call that may never come.
constexpr std::size_t kMostUnread = 1024;
constexpr std::size_t kMostUnreadBytes = std::size_t{64} << 20;
// Sets of peers that have gone, and that somebody may still read.
constexpr std::size_t kMostLeft = 1024;

std::unique_ptr<MIVOParams> DecodeSet(std::string payload) {
  auto set = std::make_unique<MIVOParams>();
  ParamsBytes::Decode(*set, std::move(payload));
  return set;
}

}  // namespace

ReplyTable::ReplyTable(Retention retention) : retention_(retention) {}

ReplyTable::~ReplyTable() = default;

void ReplyTable::DropUnread(Table::iterator entry) {
  if (entry == entries_.end() || !entry->second.unread) return;
  unread_bytes_ -= entry->second.unread->size();
  entry->second.unread.reset();
  unread_.erase(std::find(unread_.begin(), unread_.end(), entry->first));
}

std::vector<ReplyTable::Set> ReplyTable::TakeOutdated(int key) {
  std::vector<Set> outdated;
  for (auto left = left_.begin(); left != left_.end();) {
    if (left->key == key && ++left->calls >= 2) {
      outdated.push_back(std::move(left->set));
      left = left_.erase(left);
    } else {
      ++left;
    }
  }
  return outdated;
}

void ReplyTable::BeginCall(ReplyPlace place) {
  Table::node_type dropped;
  std::vector<Displaced> outdated;
  std::vector<Set> left;
  MutexLock lock(mutex_);
  if (!left_.empty()) left = TakeOutdated(place.key);
  const Table::iterator found = entries_.find(place);
  if (found == entries_.end()) return;
  if (retention_ == Retention::kUntilNextCall) {
    DropUnread(found);
    dropped = entries_.extract(found);
    return;
  }
  // A set displaced during a call, or between two, is freed when the second call after that begins: the application may
  // hold on to what it got until it calls again.
  Entry& entry = found->second;
  ++entry.calls;
  std::vector<Displaced> recent;
  for (Displaced& displaced : entry.displaced) {
    (entry.calls - displaced.at_call >= 2 ? outdated : recent).push_back(std::move(displaced));
  }
  entry.displaced = std::move(recent);
}

MIVOParams* ReplyTable::Collect(ReplyPlace place, std::string payload) {
  Set set = DecodeSet(std::move(payload));
  MIVOParams* const result = set.get();
  MutexLock lock(mutex_);
  const Table::iterator entry = entries_.try_emplace(place).first;
  Set& returned = entry->second.returned;
  if (returned) entry->second.displaced.push_back({std::move(returned), entry->second.calls});
  returned = std::move(set);
  // The reply of a call is newer than what came for nobody before it.
  DropUnread(entry);
  return result;
}

std::optional<std::string> ReplyTable::TakeUnread(ReplyPlace place) {
  MutexLock lock(mutex_);
  const Table::iterator found = entries_.find(place);
  if (found == entries_.end() || !found->second.unread) return std::nullopt;
  std::optional<std::string> unread(std::string{});
  unread->swap(*found->second.unread);
  unread_bytes_ -= unread->size();
  DropUnread(found);
  return unread;
}

MIVOParams* ReplyTable::CollectStored(ReplyPlace place) {
  if (std::optional<std::string> unread = TakeUnread(place)) return Collect(place, std::move(*unread));
  MutexLock lock(mutex_);
  const Table::iterator found = entries_.find(place);
  if (retention_ != Retention::kStale || found == entries_.end()) return nullptr;
  return found->second.returned.get();
}

void ReplyTable::Store(ReplyPlace place, std::string payload) {
  MutexLock lock(mutex_);
  const Table::iterator entry = entries_.try_emplace(place).first;
  // A client's next call on the key would drop it unread.
  if (retention_ == Retention::kUntilNextCall && entry->second.returned) return;
  DropUnread(entry);
  unread_bytes_ += payload.size();
  entry->second.unread = std::move(payload);
  unread_.push_back(place);
  while (unread_.size() > kMostUnread || (unread_bytes_ > kMostUnreadBytes && unread_.size() > 1)) {
    const Table::iterator oldest = entries_.find(unread_.front());
    DropUnread(oldest);
    if (!oldest->second.returned && oldest->second.displaced.empty()) entries_.erase(oldest);
  }
}

void ReplyTable::ForgetPeer(int peer) {
  std::vector<Table::node_type> dropped;
  std::deque<Left> outdated;
  MutexLock lock(mutex_);
  auto entry = entries_.lower_bound({std::numeric_limits<int>::min(), peer});
  while (entry != entries_.end() && entry->first.peer == peer) {
    DropUnread(entry);
    if (entry->second.returned) left_.push_back({entry->first.key, 0, std::move(entry->second.returned)});
    for (Displaced& displaced : entry->second.displaced)
      left_.push_back({entry->first.key, 0, std::move(displaced.set)});
    dropped.push_back(entries_.extract(entry++));
  }
  while (left_.size() > kMostLeft) {
    outdated.push_back(std::move(left_.front()));
    left_.pop_front();
  }
}

void ReplyTable::Clear() {
  Table entries;
  std::vector<Table> retired;
  std::deque<Left> left;
  MutexLock lock(mutex_);
  entries.swap(entries_);
  retired.swap(retired_);
  left.swap(left_);
  unread_.clear();
  unread_bytes_ = 0;
}

void ReplyTable::Retire() {
  std::vector<Table> outdated;
  MutexLock lock(mutex_);
  outdated.swap(retired_);
  retired_.push_back(std::move(entries_));
  entries_.clear();
  unread_.clear();
  unread_bytes_ = 0;
}

}  // namespace mivo
