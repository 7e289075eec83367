#include "calls/waiters.h"

#include <algorithm>
#include <utility>

#include "base/clock.h"
#include "base/identity.h"

namespace mivo {

namespace {
constexpr std::int64_t kNsPerMs = 1'000'000;
}  // namespace

Waiter::Waiter(int peer, int key, int timeout_ms, Of of)
    : token_(of == Of::kLibrary ? NextLibraryToken() : NextWaiterToken()),
      peer_(peer),
      key_(key),
      timeout_ms_(static_cast<std::uint32_t>(timeout_ms)),
      start_ns_(NowNs()) {}

std::size_t Waiters::RowOf(std::uintptr_t token) const {
  return token / kTokenStep & (rows_.size() - 1);
}

void Waiters::Link(Waiter& waiter) {
  Waiter*& row = rows_[RowOf(waiter.token_)];
  waiter.next_ = row;
  row = &waiter;
}

void Waiters::List(Waiter& waiter) {
  MutexLock lock(mutex_);
  if (count_ >= 2 * rows_.size()) {
    std::vector<Waiter*> old(4 * rows_.size());
    old.swap(rows_);
    for (Waiter* listed : old) {
      while (listed != nullptr)
        Link(*std::exchange(listed, listed->next_));
    }
  }
  ++count_;
  Link(waiter);
}

Waiter** Waiters::Find(std::uintptr_t token) {
  Waiter** link = &rows_[RowOf(token)];
  while (*link != nullptr && (*link)->token_ != token)
    link = &(*link)->next_;
  return *link == nullptr ? nullptr : link;
}

void Waiters::Remove(Waiter** link) {
  *link = std::exchange((*link)->next_, nullptr);
  --count_;
}

bool Waiters::Unlist(std::uintptr_t token) {
  MutexLock lock(mutex_);
  Waiter** const link = Find(token);
  if (link == nullptr) return false;
  Remove(link);
  return true;
}

bool Waiters::WaitsForEver(const Waiter& waiter) const {
  return waiter.timeout_ms_ == 0 && zero_timeout_ == ZeroTimeout::kWaitsForEver;
}

void Waiters::AnnounceSweep(std::int64_t next_ns, std::int64_t step_ns) {
  next_sweep_ns_.store(next_ns, std::memory_order_relaxed);
  sweep_step_ns_.store(std::max<std::int64_t>(step_ns, 1), std::memory_order_relaxed);
}

std::optional<std::int64_t> Waiters::LastSweepFor(const Waiter& waiter) const {
  if (WaitsForEver(waiter)) return std::nullopt;
  const std::int64_t over_ns = waiter.start_ns_ + static_cast<std::int64_t>(waiter.timeout_ms_) * kNsPerMs;
  const std::int64_t next_ns = next_sweep_ns_.load(std::memory_order_relaxed);
  if (over_ns < next_ns) return next_ns;
  const std::int64_t step_ns = sweep_step_ns_.load(std::memory_order_relaxed);
  return next_ns + ((over_ns - next_ns) / step_ns + 1) * step_ns;
}

Waiters::Woken Waiters::WakeByToken(std::uintptr_t token, int peer, int key, std::string* reply) {
  Waiter* waiter = nullptr;
  {
    MutexLock lock(mutex_);
    Waiter** const link = Find(token);
    if (link == nullptr || (*link)->peer_ != peer) return Woken::kNobody;
    waiter = *link;
    Remove(link);
  }
  if (waiter->key_ == key) {
    waiter->OnWoken(std::move(*reply));
    return Woken::kWithReply;
  }
  waiter->OnWoken(std::nullopt);
  return Woken::kWithNothing;
}

bool Waiters::WakeByKey(int key, std::string* reply) {
  bool found = false;
  Waiter* const taken = TakeIf([&found, key](const Waiter& waiter) {
    if (found || waiter.key_ != key) return false;
    found = true;
    return true;
  });
  if (taken == nullptr) return false;
  taken->OnWoken(std::move(*reply));
  return true;
}

void Waiters::Sweep(std::int64_t now_ns) {
  WakeChain(TakeIf([this, now_ns](const Waiter& listed) { return IsExpired(listed, now_ns); }));
}

void Waiters::ReleaseAll() {
  WakeChain(TakeIf([](const Waiter&) { return true; }));
}

void Waiters::WakeChain(Waiter* first) {
  while (first != nullptr) {
    Waiter* const waiter = std::exchange(first, first->next_);
    waiter->OnWoken(std::nullopt);
  }
}

bool Waiters::IsExpired(const Waiter& waiter, std::int64_t now_ns) const {
  if (WaitsForEver(waiter)) return false;
  // A call that began after the clock was read has a negative age and is not expired.
  return now_ns - waiter.start_ns_ > static_cast<std::int64_t>(waiter.timeout_ms_) * kNsPerMs;
}

template <class Predicate>
Waiter* Waiters::TakeIf(Predicate is_wanted) {
  Waiter* taken = nullptr;
  MutexLock lock(mutex_);
  for (Waiter*& row : rows_) {
    Waiter** link = &row;
    while (*link != nullptr) {
      if (!is_wanted(**link)) {
        link = &(*link)->next_;
        continue;
      }
      Waiter* const waiter = *link;
      Remove(link);
      waiter->next_ = taken;
      taken = waiter;
    }
  }
  return taken;
}

}  // namespace mivo
