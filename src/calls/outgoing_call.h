// The middle of a synchronous call, the same on both sides: list, send, wait.
#ifndef MIVO_CALLS_OUTGOING_CALL_H_
#define MIVO_CALLS_OUTGOING_CALL_H_

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "base/wake_word.h"
#include "calls/waiters.h"
#include "transport/reading_role.h"

namespace mivo {

class Connection;

// A call whose thread waits for the reply; lives on that thread's stack. Given the chance, the thread reads from the
// connection meanwhile: it takes its own reply without being woken for it, and delivers what it reads for others.
class OutgoingCall final : public Waiter, private ReadingRole::Caller {
 public:
  using Waiter::Waiter;

  // Lists the call, then calls `send`, which sends the request and says whether somebody will wake the waiter: by the
  // reply, the sweep, the end of the connection, or the close. Returns the reply's payload, or nothing.
  //
  // Listed before sent: the reply, or the end of everything, may come before `send` returns. `connection` may be null:
  // then others read.
  std::optional<std::string> Await(Waiters& waiters, Connection* connection, const std::function<bool()>& send);

  // After Await without a reply: what `send` has said.
  bool was_sent() const { return was_sent_; }

 private:
  void OnWoken(std::optional<std::string> reply) override;
  void BecomeReader() override;

  bool IsWoken() const { return (news_.bits() & kWoken) != 0; }
  // Reads, or waits to be woken or to become the reader, until woken. False: no one wakes it any more.
  bool ReadUntilWoken(Waiters& waiters, Connection& connection);
  bool WaitForNews(Waiters& waiters);
  std::optional<std::string> Take();

  static constexpr std::uint32_t kWoken = 1;
  static constexpr std::uint32_t kReader = 2;

  bool was_sent_ = false;
  WakeWord news_;
  // Whoever wakes it writes it, before.
  std::optional<std::string> reply_;
};

}  // namespace mivo

#endif  // MIVO_CALLS_OUTGOING_CALL_H_
