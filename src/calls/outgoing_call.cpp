#include "calls/outgoing_call.h"

#include <algorithm>
#include <utility>

#include "base/clock.h"
#include "loop/event_loop.h"
#include "transport/connection.h"

namespace mivo {

namespace {
// A sweep that is late is not waited for longer than this.
constexpr std::int64_t kLateSweepNs = 100'000'000;
constexpr std::int64_t kGlanceNs = 2'000'000;
}  // namespace

std::optional<std::string> OutgoingCall::Await(Waiters& waiters, Connection* connection,
                                               const std::function<bool()>& send) {
  waiters.List(*this);
  try {
    was_sent_ = send();
  } catch (...) {
    // It must not stay listed when it is gone.
    if (!waiters.Unlist(*this)) Take();
    throw;
  }
  if (!was_sent_ && waiters.Unlist(*this)) return std::nullopt;

  bool will_be_woken = true;
  if (connection != nullptr) {
    will_be_woken = ReadUntilWoken(waiters, *connection);
    connection->LeaveAsCaller(*this);
  } else {
    while (will_be_woken && !IsWoken())
      will_be_woken = WaitForNews(waiters);
  }
  return will_be_woken ? Take() : std::nullopt;
}

bool OutgoingCall::ReadUntilWoken(Waiters& waiters, Connection& connection) {
  while (!IsWoken()) {
    if (!connection.reading().TakeOrQueue(*this)) {
      if (!WaitForNews(waiters)) return false;
      continue;
    }
    // The sweep does not wake a thread that reads: when it is due, that one looks whether it was meant.
    const std::optional<std::int64_t> sweep_ns = waiters.LastSweepFor(*this);
    const std::int64_t deadline_ns = sweep_ns ? std::max(*sweep_ns, NowNs()) + kGlanceNs : 0;
    const Connection::ReadEnd end = connection.ReadAsCaller([this] { return IsWoken(); }, deadline_ns);
    if (end == Connection::ReadEnd::kDone) return true;
    if (end == Connection::ReadEnd::kDeadline) {
      if (NowNs() < *waiters.LastSweepFor(*this) + kLateSweepNs) continue;
      return !waiters.Unlist(*this);
    }
    // The connection has ended, and those who wait are told of it in their turn.
    connection.LeaveAsCaller(*this);
    while (!IsWoken()) {
      if (!WaitForNews(waiters)) return false;
    }
  }
  return true;
}

// The sweep that ends calls runs on the loop thread of the object that calls. A loop thread that calls through another
// object may be waited for by that very thread, and looks after its own time-out.
bool OutgoingCall::WaitForNews(Waiters& waiters) {
  std::optional<std::int64_t> deadline_ns = EventLoop::InAnyThread() ? waiters.LastSweepFor(*this) : std::nullopt;
  if (deadline_ns) *deadline_ns += kLateSweepNs;
  const bool has_news = news_.Sleep(deadline_ns);
  news_.Clear(kReader);
  return has_news || !waiters.Unlist(*this);
}

void OutgoingCall::OnWoken(std::optional<std::string> reply) {
  reply_ = std::move(reply);
  news_.Set(kWoken);
}

void OutgoingCall::BecomeReader() {
  news_.Set(kReader);
}

std::optional<std::string> OutgoingCall::Take() {
  while (!IsWoken()) {
    news_.Sleep();
    news_.Clear(kReader);
  }
  return std::move(reply_);
}

}  // namespace mivo
