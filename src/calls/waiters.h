// Calls that wait for a reply.
#ifndef MIVO_CALLS_WAITERS_H_
#define MIVO_CALLS_WAITERS_H_

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/mutex.h"

namespace mivo {

// One call that waits.
//
// While it is listed in a Waiters it belongs to whoever unlists it. Whoever unlists a waiter wakes it: so it is woken
// once, and not touched afterwards.
class Waiter {
 public:
  // Whose call it is: a late reply to one of the library's own is of no interest to the application.
  enum class Of { kApplication, kLibrary };

  // `peer` is the id of the connection that the call goes to. `timeout_ms` 0 means what the list says; otherwise it is
  // taken as unsigned, so that a negative one is some 50 days.
  Waiter(int peer, int key, int timeout_ms, Of of = Of::kApplication);
  virtual ~Waiter() = default;
  Waiter(const Waiter&) = delete;
  Waiter& operator=(const Waiter&) = delete;

  std::uintptr_t token() const { return token_; }

 private:
  friend class Waiters;

  // The reply's payload, or nothing. On the thread that has unlisted it, without a lock.
  virtual void OnWoken(std::optional<std::string> reply) = 0;

  const std::uintptr_t token_;
  const int peer_;
  const int key_;
  const std::uint32_t timeout_ms_;
  const std::int64_t start_ns_;
  Waiter* next_ = nullptr;  // in its row of the list
};

// The list. Any thread.
class Waiters {
 public:
  enum class ZeroTimeout {
    kWaitsForEver,
    kEndsAtNextSweep,
  };

  explicit Waiters(ZeroTimeout zero_timeout) : zero_timeout_(zero_timeout), rows_(kFirstRows) {}

  // Lists a waiter. From here on it is woken once, unless Unlist gives it back.
  void List(Waiter& waiter);

  // Takes a waiter back; false if somebody has unlisted it and wakes it.
  bool Unlist(Waiter& waiter) { return Unlist(waiter.token()); }
  // The same for one that may be gone by now: for a waiter that belongs to whoever wakes it.
  bool Unlist(std::uintptr_t token);

  // When the list will be swept next, and how often from then on. Whoever sweeps says so each time, after the sweep.
  void AnnounceSweep(std::int64_t next_ns, std::int64_t step_ns);

  // The sweep that will end the waiter's wait, by NowNs; nothing if none ever does.
  std::optional<std::int64_t> LastSweepFor(const Waiter& waiter) const;

  enum class Woken {
    kWithReply,    // the reply was taken
    kWithNothing,  // the waiter waits under another key: it was woken, the reply is as it was
    kNobody,       // no such waiter: the reply is as it was
  };

  // Wakes the waiter that `token` names, if its call went to `peer`: nobody answers a call made to another.
  Woken WakeByToken(std::uintptr_t token, int peer, int key, std::string* reply);

  // Wakes a waiter under `key` with `reply`. False if there is none: then `reply` is as it was.
  bool WakeByKey(int key, std::string* reply);

  // Wakes every waiter whose time-out has passed; `now_ns` by NowNs.
  void Sweep(std::int64_t now_ns);

  // Wakes every waiter.
  void ReleaseAll();

 private:
  static constexpr std::size_t kFirstRows = 16;

  // Rows of waiters by their tokens, linked through themselves: to list one costs no memory.
  std::size_t RowOf(std::uintptr_t token) const MIVO_REQUIRES(mutex_);
  void Link(Waiter& waiter) MIVO_REQUIRES(mutex_);
  // The link that points to it; null if it is not listed.
  Waiter** Find(std::uintptr_t token) MIVO_REQUIRES(mutex_);
  void Remove(Waiter** link) MIVO_REQUIRES(mutex_);
  bool IsExpired(const Waiter& waiter, std::int64_t now_ns) const;
  // Unlists what `is_wanted`; its caller wakes the chain, without the lock.
  template <class Predicate>
  Waiter* TakeIf(Predicate is_wanted);
  static void WakeChain(Waiter* first);

  bool WaitsForEver(const Waiter& waiter) const;

  const ZeroTimeout zero_timeout_;
  // Written by whoever sweeps, read by callers. A sweep that is missed for a moment is the next one.
  std::atomic<std::int64_t> next_sweep_ns_{0};
  std::atomic<std::int64_t> sweep_step_ns_{1};
  Mutex mutex_;
  std::vector<Waiter*> rows_ MIVO_GUARDED_BY(mutex_);
  std::size_t count_ MIVO_GUARDED_BY(mutex_) = 0;
};

}  // namespace mivo

#endif  // MIVO_CALLS_WAITERS_H_
