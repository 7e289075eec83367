#include "tcpserver/loop_turn.h"

#include <algorithm>
#include <mutex>
#include <vector>

namespace mivo {
namespace {

// The turns of this thread, innermost first.
thread_local const LoopTurn* innermost = nullptr;

// The loops that some thread is turning. Never destroyed: servers with static storage ask while the process exits.
struct Turning {
  std::mutex mutex;
  std::vector<const uv_loop_t*> loops;  // guarded by mutex
};

Turning& TurningLoops() {
  static auto* const turning = new Turning;
  return *turning;
}

bool IsListed(const uv_loop_t* loop) {
  Turning& turning = TurningLoops();
  const std::lock_guard<std::mutex> lock(turning.mutex);
  return std::find(turning.loops.begin(), turning.loops.end(), loop) != turning.loops.end();
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
  Turning& turning = TurningLoops();
  const std::lock_guard<std::mutex> lock(turning.mutex);
  turning.loops.push_back(loop);
}

LoopTurn::~LoopTurn() {
  innermost = outer_;
  if (!listed_) return;
  Turning& turning = TurningLoops();
  const std::lock_guard<std::mutex> lock(turning.mutex);
  turning.loops.erase(std::find(turning.loops.begin(), turning.loops.end(), loop_));
}

bool LoopTurn::IsRunning(const uv_loop_t* loop) {
  return (innermost != nullptr && innermost->loop_ == loop) || IsListed(loop);
}

bool LoopTurn::IsDraining(const uv_loop_t* loop) {
  return innermost != nullptr && innermost->loop_ == loop && innermost->purpose_ == Purpose::kDrain;
}

}  // namespace mivo
