// Keeps a write to a peer that is gone from killing the process.
#ifndef MIVO_BASE_SIGPIPE_GUARD_H_
#define MIVO_BASE_SIGPIPE_GUARD_H_

namespace mivo {

// Blocks SIGPIPE in the calling thread for the guard's lifetime and swallows the one its writes may have raised, so
// that they fail with EPIPE instead. The process-wide disposition belongs to the host program and is not touched; a
// SIGPIPE that was pending before is left for whoever waits for it.
//
// Guards nest; the inner ones cost nothing. Create and destroy on the same thread, in stack order. Threads and programs
// started under a guard inherit the blocked signal.
class SigpipeGuard {
 public:
  SigpipeGuard();
  ~SigpipeGuard();
  SigpipeGuard(const SigpipeGuard&) = delete;
  SigpipeGuard& operator=(const SigpipeGuard&) = delete;

 private:
  bool swallow_ = false;
  bool unblock_ = false;
};

}  // namespace mivo

#endif  // MIVO_BASE_SIGPIPE_GUARD_H_
