// Who is connected to a server, and what is to be done when somebody has gone.
#ifndef MIVO_RPC_CONNECTED_CLIENTS_H_
#define MIVO_RPC_CONNECTED_CLIENTS_H_

#include <memory>
#include <set>
#include <vector>

#include "base/mutex.h"

namespace mivo {
namespace rpc {

// What somebody does who keeps things for clients.
class ClientFollower {
 public:
  virtual ~ClientFollower() = default;
  virtual void OnGone(int client_id) = 0;
  virtual void OnAllGone() = 0;
};

// Any thread.
class ConnectedClients {
 public:
  // No other one of this process has it, nor had it.
  unsigned long long number() const { return number_; }

  void Follow(std::shared_ptr<ClientFollower> follower);

  void Come(int id);
  void Go(int id);
  void GoAll();

  std::vector<int> All() const;

  // Does something that depends on whether `id` is connected, and that followers will hear of the end of if it is.
  template <class Action>
  auto LookAt(int id, const Action& action) const {
    MutexLock lock(mutex_);
    return action(ids_.count(id) != 0);
  }

 private:
  using Followers = std::vector<std::shared_ptr<ClientFollower>>;

  static unsigned long long NextNumber();

  const unsigned long long number_ = NextNumber();
  mutable Mutex mutex_;
  std::set<int> ids_ MIVO_GUARDED_BY(mutex_);
  Followers followers_ MIVO_GUARDED_BY(mutex_);
};

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_CONNECTED_CLIENTS_H_
