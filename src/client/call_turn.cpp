#include "client/call_turn.h"

#include <pthread.h>

#include <new>

#include "base/mutex.h"
#include "loop/event_loop.h"

namespace mivo {

namespace {

struct Turn {
  Mutex mutex;
  Condition given_back;
  bool is_taken MIVO_GUARDED_BY(mutex) = false;
};
struct Turns {
  Turn of_calls;
  Turn of_large_calls;
};

// Never destroyed: works before main and during exit.
alignas(Turns) char storage[sizeof(Turns)];

Turns& AllTurns() {
  static Turns* const turns = new (storage) Turns;
  return *turns;
}

// A child of fork has no thread that would give back what was taken at that moment.
[[maybe_unused]] const int renewed_in_child = ::pthread_atfork(nullptr, nullptr, [] { new (&AllTurns()) Turns; });

Turn& TurnOf(CallTurn::Kind kind) {
  return kind == CallTurn::Kind::kCall ? AllTurns().of_calls : AllTurns().of_large_calls;
}

}  // namespace

CallTurn::CallTurn(Kind kind, const std::function<bool()>& is_pointless) : kind_(kind) {
  if (EventLoop::InAnyThread()) return;
  Turn& turn = TurnOf(kind);
  MutexLock lock(turn.mutex);
  while (turn.is_taken && !is_pointless())
    turn.given_back.Wait(turn.mutex);
  is_given_up_ = turn.is_taken;
  is_held_ = !is_given_up_;
  turn.is_taken = true;
}

CallTurn::~CallTurn() {
  if (!is_held_) return;
  Turn& turn = TurnOf(kind_);
  MutexLock lock(turn.mutex);
  turn.is_taken = false;
  turn.given_back.NotifyOne();
}

void CallTurn::AskAgain() {
  for (const Kind kind : {Kind::kCall, Kind::kLargeCall}) {
    Turn& turn = TurnOf(kind);
    MutexLock lock(turn.mutex);
    turn.given_back.NotifyAll();
  }
}

}  // namespace mivo
