// Who is connected to a server, and what is to be done when somebody has gone.
#ifndef MIVO_RPC_CONNECTED_H_
#define MIVO_RPC_CONNECTED_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <utility>
#include <vector>

namespace mivo {
namespace rpc {

// Any thread.
class Connected {
 public:
  // What somebody does who keeps things for clients.
  class Follower {
   public:
    virtual ~Follower() = default;
    virtual void OnGone(int id) = 0;
    virtual void OnAllGone() = 0;
  };

  // No other one of this process has it.
  std::uint64_t number() const { return number_; }

  void Follow(std::shared_ptr<Follower> follower) {
    const std::lock_guard<std::mutex> lock(mutex_);
    followers_.push_back(std::move(follower));
  }

  void Come(int id) {
    const std::lock_guard<std::mutex> lock(mutex_);
    ids_.insert(id);
  }
  void Go(int id) {
    for (const auto& follower : FollowersAfter([this, id] { ids_.erase(id); }))
      follower->OnGone(id);
  }
  void GoAll() {
    for (const auto& follower : FollowersAfter([this] { ids_.clear(); }))
      follower->OnAllGone();
  }

  std::vector<int> All() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return {ids_.begin(), ids_.end()};
  }

  // Does something that depends on whether `id` is connected, and that followers will hear of the end of if it is.
  template <class Action>
  auto Look(int id, const Action& action) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return action(ids_.count(id) != 0);
  }

 private:
  template <class Change>
  std::vector<std::shared_ptr<Follower>> FollowersAfter(const Change& change) {
    const std::lock_guard<std::mutex> lock(mutex_);
    change();
    return followers_;
  }

  static std::uint64_t NextNumber() {
    static std::atomic<std::uint64_t> last{0};
    return ++last;
  }

  const std::uint64_t number_ = NextNumber();
  mutable std::mutex mutex_;
  std::set<int> ids_;
  std::vector<std::shared_ptr<Follower>> followers_;
};

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_CONNECTED_H_
