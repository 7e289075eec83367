#include "tcpserver/loop_turn.h"

#include <algorithm>
#include <vector>

#include "base/hold_across_fork.h"
#include "base/mutex.h"

namespace mivo {
namespace {

// The turns of this thread, innermost first.
thread_local const LoopTurn* innermost = nullptr;

Mutex mutex;
[[maybe_unused]] const int held_across_fork = HoldAcrossFork<mutex>();

// The loops that some thread is turning. Never destroyed: servers with static storage ask while the process exits.
std::vector<const uv_loop_t*>& TurningLoops() MIVO_REQUIRES(mutex) {
  static auto* const loops = new std::vector<const uv_loop_t*>;
  return *loops;
}

bool IsListed(const uv_loop_t* loop) {
  MutexLock lock(mutex);
  const std::vector<const uv_loop_t*>& loops = TurningLoops();
  return std::find(loops.begin(), loops.end(), loop) != loops.end();
}

}  // namespace

// A callback under a run of ours is the common case, and finds the loop of its thread on top without a lock.
LoopTurn::LoopTurn(const uv_loop_t* loop, Purpose purpose)
    : loop_(loop),
      purpose_(innermost != nullptr && innermost->loop_ == loop ? innermost->purpose_ : purpose),
      outer_(innermost),
      listed_(innermost == nullptr || innermost->loop_ != loop) {
  innermost = this;
  if (!listed_) return;
  MutexLock lock(mutex);
  TurningLoops().push_back(loop);
}

LoopTurn::~LoopTurn() {
  innermost = outer_;
  if (!listed_) return;
  MutexLock lock(mutex);
  std::vector<const uv_loop_t*>& loops = TurningLoops();
  loops.erase(std::find(loops.begin(), loops.end(), loop_));
}

bool LoopTurn::IsRunning(const uv_loop_t* loop) {
  return (innermost != nullptr && innermost->loop_ == loop) || IsListed(loop);
}

bool LoopTurn::IsDraining(const uv_loop_t* loop) {
  return innermost != nullptr && innermost->loop_ == loop && innermost->purpose_ == Purpose::kDrain;
}

}  // namespace mivo
