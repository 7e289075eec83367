#include "transport/reading_role.h"

#include <algorithm>
#include <cassert>
#include <utility>

namespace mivo {

void ReadingRole::Start() {
  MutexLock lock(mutex_);
  if (holder_ == Holder::kNotStarted) PassOn();
}

bool ReadingRole::TakeForPool(bool mute) {
  MutexLock lock(mutex_);
  if (is_over_ || is_paused_ || holder_ != Holder::kNobody) {
    if (mute) listening_.Mute();
    return false;
  }
  holder_ = Holder::kPool;
  return true;
}

bool ReadingRole::TakeOrQueue(Caller& caller) {
  MutexLock lock(mutex_);
  // It was given to it meanwhile.
  if (caller.is_reader_) {
    caller.must_look_ = false;
    return true;
  }
  if (is_over_) return false;
  if (holder_ == Holder::kNobody || holder_ == Holder::kParked) {
    holder_ = Holder::kCaller;
    caller.is_reader_ = true;
    listening_.SetListening(false);
    return true;
  }
  if (!caller.is_queued_) queue_.push_back(&caller);
  caller.is_queued_ = true;
  return false;
}

void ReadingRole::GiveBack() {
  MutexLock lock(mutex_);
  PassOn();
}

bool ReadingRole::GiveToCallerOrPark() {
  MutexLock lock(mutex_);
  assert(holder_ == Holder::kPool);
  if (!is_over_ && GiveToNextCaller(true)) return true;
  holder_ = Holder::kParked;
  listening_.SetListening(false);
  given_back_.NotifyAll();
  return false;
}

bool ReadingRole::TakeParked() {
  MutexLock lock(mutex_);
  if (is_over_ || holder_ != Holder::kParked) return false;
  holder_ = Holder::kPool;
  return true;
}

bool ReadingRole::Leave(Caller& caller) {
  MutexLock lock(mutex_);
  if (caller.is_queued_) queue_.erase(std::find(queue_.begin(), queue_.end(), &caller));
  caller.is_queued_ = false;
  if (!caller.is_reader_) return true;
  if (std::exchange(caller.must_look_, false) && !is_over_) return false;
  caller.is_reader_ = false;
  PassOn();
  return true;
}

void ReadingRole::PausePool(bool on) {
  MutexLock lock(mutex_);
  if (is_paused_ == on) return;
  is_paused_ = on;
  if (holder_ == Holder::kNobody && !is_over_) Listen();
}

void ReadingRole::End() {
  MutexLock lock(mutex_);
  is_over_ = true;
}

void ReadingRole::Close() {
  MutexLock lock(mutex_);
  is_over_ = true;
  while (IsHeld())
    given_back_.Wait(mutex_);
}

void ReadingRole::PassOn() {
  if (is_over_) {
    holder_ = Holder::kNobody;
    listening_.SetListening(false);
    given_back_.NotifyAll();
    return;
  }
  if (GiveToNextCaller(false)) return;
  holder_ = Holder::kNobody;
  // Under the lock: a caller that takes the role now must find its "do not listen" the last word.
  Listen();
}

bool ReadingRole::GiveToNextCaller(bool must_look) {
  if (queue_.empty()) return false;
  Caller* const next = queue_.front();
  queue_.erase(queue_.begin());
  holder_ = Holder::kCaller;
  next->is_queued_ = false;
  next->is_reader_ = true;
  next->must_look_ = must_look;
  listening_.SetListening(false);
  // Under the lock: once it is given up, the caller may leave, and be gone.
  next->BecomeReader();
  return true;
}

void ReadingRole::Listen() {
  listening_.SetListening(!is_paused_);
}

}  // namespace mivo
