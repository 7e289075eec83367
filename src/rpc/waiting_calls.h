// Calls that wait for a connection, while no thread waits for them.
#ifndef MIVO_RPC_WAITING_CALLS_H_
#define MIVO_RPC_WAITING_CALLS_H_

#include <list>
#include <memory>
#include <thread>

#include "base/mutex.h"
#include "rpc/pending_call.h"

namespace mivo {
namespace rpc {

// In their order, each until its time is over: then it is told so, on a thread that there is as soon as somebody waits.
class WaitingCalls {
 public:
  using Calls = std::list<std::unique_ptr<PendingCall>>;

  explicit WaitingCalls(const void* client) : client_(client) {}
  WaitingCalls(const WaitingCalls&) = delete;
  WaitingCalls& operator=(const WaitingCalls&) = delete;
  ~WaitingCalls() { Stop(); }

  // False, and the call is as it was, if there is nothing to wait for.
  bool Add(std::unique_ptr<PendingCall>& call);
  // Those that wait. If there are none, nobody waits from now on.
  Calls TakeOrShut();
  void Open();
  // Nobody waits any more, and those who do are told. Waits for completions that run.
  void Stop();

 private:
  void Watch();
  void Refuse(Clock::time_point now);

  const void* const client_;
  Mutex mutex_;
  Condition changed_;
  bool is_open_ MIVO_GUARDED_BY(mutex_) = true;
  bool is_stopping_ MIVO_GUARDED_BY(mutex_) = false;
  Calls calls_ MIVO_GUARDED_BY(mutex_);
  Clock::time_point next_end_ MIVO_GUARDED_BY(mutex_) = Clock::time_point::max();  // or earlier
  std::thread clock_;
};

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_WAITING_CALLS_H_
