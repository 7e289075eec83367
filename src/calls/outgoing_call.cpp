#include "calls/outgoing_call.h"

#include <algorithm>
#include <utility>

#include "base/clock.h"
#include "loop/event_loop.h"
#include "transport/connection.h"

namespace mivo {

namespace {
// A sweep that is late is not waited for longer than this.
constexpr std::chrono::milliseconds kLateSweep{100};
constexpr std::int64_t kLateSweepNs = 100'000'000;
constexpr std::int64_t kGlanceNs = 2'000'000;
}  // namespace

std::optional<std::string> OutgoingCall::Await(Waiters& waiters, Connection* connection,
                                               const std::function<bool()>& send) {
  waiters.List(*this);
  bool is_sent = false;
  try {
    is_sent = send();
  } catch (...) {
    // It must not stay listed when it is gone.
    if (!waiters.Unlist(*this)) Take();
    throw;
  }
  if (!is_sent && waiters.Unlist(*this)) return std::nullopt;

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
  const std::optional<std::int64_t> sweep_ns = EventLoop::InAnyThread() ? waiters.LastSweepFor(*this) : std::nullopt;
  {
    MutexLock lock(mutex_);
    const auto deadline =
        std::chrono::steady_clock::time_point(std::chrono::nanoseconds(sweep_ns.value_or(0))) + kLateSweep;
    while (!is_woken_ && !is_reader_) {
      if (!sweep_ns) {
        news_.Wait(mutex_);
      } else if (!news_.WaitUntil(mutex_, deadline)) {
        break;
      }
    }
    is_reader_ = false;
    if (is_woken_ || !sweep_ns || std::chrono::steady_clock::now() < deadline) return true;
  }
  return !waiters.Unlist(*this);
}

void OutgoingCall::OnWoken(std::optional<std::string> reply) {
  MutexLock lock(mutex_);
  reply_ = std::move(reply);
  is_woken_.store(true, std::memory_order_release);
  news_.NotifyAll();
}

void OutgoingCall::BecomeReader() {
  MutexLock lock(mutex_);
  is_reader_ = true;
  news_.NotifyAll();
}

std::optional<std::string> OutgoingCall::Take() {
  // Whoever has woken it has let go of it when the lock can be had.
  MutexLock lock(mutex_);
  while (!is_woken_)
    news_.Wait(mutex_);
  return std::move(reply_);
}

}  // namespace mivo
