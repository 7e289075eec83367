#include "rpc/connected_clients.h"

#include <atomic>
#include <utility>

namespace mivo {
namespace rpc {

unsigned long long ConnectedClients::NextNumber() {
  static std::atomic<unsigned long long> last{0};
  return ++last;
}

void ConnectedClients::Follow(std::shared_ptr<ClientFollower> follower) {
  MutexLock lock(mutex_);
  followers_.push_back(std::move(follower));
}

void ConnectedClients::Come(int id) {
  MutexLock lock(mutex_);
  ids_.insert(id);
}

void ConnectedClients::Go(int id) {
  Followers followers;
  {
    MutexLock lock(mutex_);
    ids_.erase(id);
    followers = followers_;
  }
  for (const auto& follower : followers)
    follower->OnGone(id);
}

void ConnectedClients::GoAll() {
  Followers followers;
  {
    MutexLock lock(mutex_);
    ids_.clear();
    followers = followers_;
  }
  for (const auto& follower : followers)
    follower->OnAllGone();
}

std::vector<int> ConnectedClients::All() const {
  MutexLock lock(mutex_);
  return {ids_.begin(), ids_.end()};
}

}  // namespace rpc
}  // namespace mivo
