#include "calls/reply_table.h"

#include <mivo/params.h>

#include <utility>

namespace mivo {

namespace {

std::unique_ptr<MIVOParams> DecodeSet(std::string payload) {
  auto set = std::make_unique<MIVOParams>();
  *set->GetParamas() = std::move(payload);
  set->ToParams();
  return set;
}

}  // namespace

ReplyTable::ReplyTable(Retention retention) : retention_(retention) {}

ReplyTable::~ReplyTable() = default;

void ReplyTable::BeginCall(int key) {
  Table::node_type dropped;
  std::vector<Displaced> outdated;
  MutexLock lock(mutex_);
  if (retention_ == Retention::kUntilNextCall) {
    dropped = entries_.extract(key);
    return;
  }
  // A set displaced during a call, or between two, is freed when the second call after that begins: the application may
  // hold on to what it got until it calls again.
  Entry& entry = entries_[key];
  ++entry.calls;
  std::vector<Displaced> recent;
  for (Displaced& displaced : entry.displaced) {
    (entry.calls - displaced.at_call >= 2 ? outdated : recent).push_back(std::move(displaced));
  }
  entry.displaced = std::move(recent);
}

MIVOParams* ReplyTable::Collect(int key, std::string payload) {
  Set set = DecodeSet(std::move(payload));
  MIVOParams* const result = set.get();
  std::optional<std::string> outdated;
  MutexLock lock(mutex_);
  Entry& entry = entries_[key];
  if (entry.returned) entry.displaced.push_back({std::move(entry.returned), entry.calls});
  entry.returned = std::move(set);
  // The reply of a call is newer than what came for nobody before it.
  outdated = std::exchange(entry.unread, std::nullopt);
  return result;
}

std::optional<std::string> ReplyTable::TakeUnread(int key) {
  MutexLock lock(mutex_);
  const Table::iterator found = entries_.find(key);
  if (found == entries_.end()) return std::nullopt;
  return std::exchange(found->second.unread, std::nullopt);
}

MIVOParams* ReplyTable::CollectStored(int key) {
  if (std::optional<std::string> unread = TakeUnread(key)) return Collect(key, std::move(*unread));
  MutexLock lock(mutex_);
  const Table::iterator found = entries_.find(key);
  if (retention_ != Retention::kStale || found == entries_.end()) return nullptr;
  return found->second.returned.get();
}

void ReplyTable::Store(int key, std::string payload) {
  MutexLock lock(mutex_);
  Entry& entry = entries_[key];
  // A client's next call on the key would drop it unread.
  if (retention_ == Retention::kUntilNextCall && entry.returned) return;
  entry.unread.emplace().swap(payload);
}

void ReplyTable::Clear() {
  Table entries;
  std::vector<Table> retired;
  MutexLock lock(mutex_);
  entries.swap(entries_);
  retired.swap(retired_);
}

void ReplyTable::Retire() {
  std::vector<Table> outdated;
  MutexLock lock(mutex_);
  outdated.swap(retired_);
  retired_.push_back(std::move(entries_));
  entries_.clear();
}

}  // namespace mivo
