#include "calls/waiters.h"

#include <utility>

#include "base/clock.h"
#include "base/identity.h"

namespace mivo {

Waiter::Waiter(const void* owner, int peer, int key, int timeout_ms)
    : owner_(owner),
      token_(NextWaiterToken()),
      peer_(peer),
      key_(key),
      timeout_ms_(static_cast<std::uint32_t>(timeout_ms)),
      start_ms_(NowMs()) {}

std::optional<std::string> Waiter::Wait() {
  woken_.Wait();
  return std::move(reply_);
}

void Waiter::Wake(std::optional<std::string> reply) {
  reply_ = std::move(reply);
  woken_.Set();
}

void Waiters::List(Waiter& waiter) {
  MutexLock lock(mutex_);
  listed_.emplace(waiter.token_, &waiter);
}

bool Waiters::Unlist(Waiter& waiter) {
  MutexLock lock(mutex_);
  return listed_.erase(waiter.token_) == 1;
}

std::optional<std::chrono::milliseconds> Waiters::TimeoutOf(const Waiter& waiter) const {
  if (waiter.timeout_ms_ == 0 && zero_timeout_ == ZeroTimeout::kWaitsForEver) return std::nullopt;
  return std::chrono::milliseconds(waiter.timeout_ms_);
}

Waiters::Woken Waiters::WakeByToken(std::uintptr_t token, int peer, int key, std::string* reply) {
  Waiter* waiter = nullptr;
  {
    MutexLock lock(mutex_);
    const Table::iterator found = listed_.find(token);
    if (found == listed_.end() || found->second->peer_ != peer) return Woken::kNobody;
    waiter = found->second;
    listed_.erase(found);
  }
  const bool is_its_reply = waiter->key_ == key;
  if (is_its_reply) {
    waiter->Wake(std::move(*reply));
    return Woken::kWithReply;
  }
  waiter->Wake(std::nullopt);
  return Woken::kWithNothing;
}

bool Waiters::WakeByKey(int key, std::string* reply) {
  bool found = false;
  const std::vector<Waiter*> taken = TakeIf([&found, key](const Waiter& waiter) {
    if (found || waiter.key_ != key) return false;
    found = true;
    return true;
  });
  if (taken.empty()) return false;
  taken.front()->Wake(std::move(*reply));
  return true;
}

void Waiters::Release(std::uintptr_t token) {
  Waiter* waiter = nullptr;
  {
    MutexLock lock(mutex_);
    const Table::iterator found = listed_.find(token);
    if (found == listed_.end()) return;
    waiter = found->second;
    listed_.erase(found);
  }
  waiter->Wake(std::nullopt);
}

void Waiters::Sweep(std::int64_t now_ms) {
  for (Waiter* const waiter : TakeIf([this, now_ms](const Waiter& listed) { return IsExpired(listed, now_ms); })) {
    waiter->Wake(std::nullopt);
  }
}

void Waiters::ReleaseAll(const void* owner) {
  for (Waiter* const waiter : TakeIf([owner](const Waiter& listed) { return listed.owner_ == owner; })) {
    waiter->Wake(std::nullopt);
  }
}

bool Waiters::IsExpired(const Waiter& waiter, std::int64_t now_ms) const {
  const std::optional<std::chrono::milliseconds> timeout = TimeoutOf(waiter);
  // A call that began after the clock was read has a negative age and is not expired.
  return timeout && now_ms - waiter.start_ms_ > timeout->count();
}

template <class Predicate>
std::vector<Waiter*> Waiters::TakeIf(Predicate is_wanted) {
  std::vector<Waiter*> taken;
  MutexLock lock(mutex_);
  for (Table::iterator it = listed_.begin(); it != listed_.end();) {
    if (is_wanted(*it->second)) {
      taken.push_back(it->second);
      it = listed_.erase(it);
    } else {
      ++it;
    }
  }
  return taken;
}

}  // namespace mivo
