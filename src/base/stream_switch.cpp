#include "base/stream_switch.h"

#include <atomic>
#include <cstdio>
#include <ios>

#include "base/stdout_attempt.h"

namespace mivo {

namespace {

// Rebuilding the streams' buffers more than once would race with threads that print through them.
enum class State { kBefore, kSwitching, kAfter };
std::atomic<State> state{State::kBefore};

// A thread may take such a lock again, so the switch itself does not wait for one that is held here.
class TryFileLock {
 public:
  explicit TryFileLock(std::FILE* file) : file_(file), held_(::ftrylockfile(file) == 0) {}
  ~TryFileLock() {
    if (held_) ::funlockfile(file_);
  }
  TryFileLock(const TryFileLock&) = delete;
  TryFileLock& operator=(const TryFileLock&) = delete;
  bool held() const { return held_; }

 private:
  std::FILE* const file_;
  const bool held_;
};

// What C's stream has read ahead stays there: the other would begin behind it. The lock on stdin is held.
bool HasReadAhead() {
#ifdef __GLIBC__
  return stdin->_IO_read_ptr != stdin->_IO_read_end;
#else
  return false;
#endif
}

bool TrySwitch() {
  const TryFileLock in(stdin);
  const TryFileLock out(stdout);
  const TryFileLock error(stderr);
  if (!in.held() || !out.held() || !error.held()) return false;
  if (HasReadAhead() || !StdoutFlushesAtOnce()) return false;
  std::ios_base::sync_with_stdio(false);
  return true;
}

}  // namespace

bool SwitchStreamsOffStdio() {
  State before = State::kBefore;
  if (!state.compare_exchange_strong(before, State::kSwitching)) return before == State::kAfter;
  const bool switched = TrySwitch();
  state = switched ? State::kAfter : State::kBefore;
  return switched;
}

}  // namespace mivo
