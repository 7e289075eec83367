#include "client/turn_lock.h"

#include <pthread.h>

#include <new>

#include "loop/event_loop.h"

namespace mivo {

namespace {

Mutex call_mutex;
Mutex large_call_mutex;

// A child of fork has no thread that would give back what was taken at that moment.
[[maybe_unused]] const int renewed_in_child = ::pthread_atfork(nullptr, nullptr, [] {
  new (&call_mutex) Mutex;
  new (&large_call_mutex) Mutex;
});

}  // namespace

TurnLock::TurnLock(Turn turn) MIVO_NO_THREAD_SAFETY_ANALYSIS
    : mutex_(EventLoop::InAnyThread() ? nullptr : (turn == Turn::kCall ? &call_mutex : &large_call_mutex)) {
  if (mutex_ != nullptr) mutex_->lock();
}

TurnLock::~TurnLock() MIVO_NO_THREAD_SAFETY_ANALYSIS {
  if (mutex_ != nullptr) mutex_->unlock();
}

}  // namespace mivo
