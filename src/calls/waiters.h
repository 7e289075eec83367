// Calls that wait for a reply.
#ifndef MIVO_CALLS_WAITERS_H_
#define MIVO_CALLS_WAITERS_H_

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/mutex.h"
#include "base/one_shot.h"

namespace mivo {

// One call that waits; lives on the stack of its caller.
//
// While it is listed in a Waiters it belongs to whoever unlists it. Whoever unlists a waiter wakes it: so it is woken
// once, and not touched afterwards.
class Waiter {
 public:
  // `owner` is the object the call was made through, `peer` the id of the connection it goes to. `timeout_ms` 0 means
  // what the list says; otherwise it is taken as unsigned, so that a negative one is some 50 days.
  Waiter(const void* owner, int peer, int key, int timeout_ms);
  Waiter(const Waiter&) = delete;
  Waiter& operator=(const Waiter&) = delete;

  std::uintptr_t token() const { return token_; }

  // The caller, once. Returns what the waiter was woken with: the reply's payload, or nothing.
  std::optional<std::string> Wait();

  // Whether it is woken within `patience`.
  bool WaitFor(std::chrono::milliseconds patience) { return woken_.WaitFor(patience); }

 private:
  friend class Waiters;
  void Wake(std::optional<std::string> reply);

  const void* const owner_;
  const std::uintptr_t token_;
  const int peer_;
  const int key_;
  const std::uint32_t timeout_ms_;
  const std::int64_t start_ms_;
  std::optional<std::string> reply_;  // written before woken_ is set, read after it was waited for
  OneShot woken_;
};

// The list. Any thread.
class Waiters {
 public:
  enum class ZeroTimeout {
    kWaitsForEver,
    kEndsAtNextSweep,
  };

  explicit Waiters(ZeroTimeout zero_timeout) : zero_timeout_(zero_timeout) {}

  // Lists a waiter. From here on it must be waited for, unless Unlist gives it back.
  void List(Waiter& waiter);

  // Takes a waiter back; false if somebody has unlisted it and wakes it.
  bool Unlist(Waiter& waiter);

  // Whether a sweep ever ends its wait, and after how long at the earliest.
  std::optional<std::chrono::milliseconds> TimeoutOf(const Waiter& waiter) const;

  enum class Woken {
    kWithReply,    // the reply was taken
    kWithNothing,  // the waiter waits under another key: it was woken, the reply is as it was
    kNobody,       // no such waiter: the reply is as it was
  };

  // Wakes the waiter that `token` names, if its call went to `peer`: nobody answers a call made to another.
  Woken WakeByToken(std::uintptr_t token, int peer, int key, std::string* reply);

  // Wakes a waiter under `key` with `reply`. False if there is none: then `reply` is as it was.
  bool WakeByKey(int key, std::string* reply);

  // Wakes the waiter that `token` names, if it is listed, with nothing.
  void Release(std::uintptr_t token);

  // Wakes every waiter whose time-out has passed; `now_ms` by NowMs.
  void Sweep(std::int64_t now_ms);

  // Wakes every waiter of `owner`.
  void ReleaseAll(const void* owner);

 private:
  using Table = std::unordered_map<std::uintptr_t, Waiter*>;

  bool IsExpired(const Waiter& waiter, std::int64_t now_ms) const;
  // Unlists what `is_wanted`; its caller wakes them, without the lock.
  template <class Predicate>
  std::vector<Waiter*> TakeIf(Predicate is_wanted);

  const ZeroTimeout zero_timeout_;
  Mutex mutex_;
  Table listed_ MIVO_GUARDED_BY(mutex_);
};

}  // namespace mivo

#endif  // MIVO_CALLS_WAITERS_H_
