// State that belongs to a connection.
//
//     mivo::PerClient<Session> sessions;
//     mivo::Server server;
//     server.on("open", [&](mivo::Caller& caller, std::string file) { sessions.of(caller)->Open(file); });
#ifndef MIVO_RPC_PER_CLIENT_H_
#define MIVO_RPC_PER_CLIENT_H_

#include <mivo/rpc/connected.h>
#include <mivo/rpc/server.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <utility>
#include <vector>

namespace mivo {

// A T for each connection: made on first use, as T(), and deleted when the client has gone and no handler of its uses
// it any more. A handler that begins after that still gets one, the same for all such, and it is gone with the last of
// them.
//
// Threads: any, several at a time; so handlers of one client that run at the same time share a T, which must bear that.
// Like all that handlers use, it is declared before the server. It may serve several servers.
template <class T>
class PerClient {
 public:
  PerClient() : table_(std::make_shared<Table>()) {}
  PerClient(const PerClient&) = delete;
  PerClient& operator=(const PerClient&) = delete;

  // That of the caller; to be held for as long as it is used. While its server lives.
  std::shared_ptr<T> of(const Caller& caller) const {
    rpc::Connected& connected = caller.connected();
    table_->FollowOnce(connected);
    // One step towards the end of the connection: what is entered for somebody who is connected, will be let go of.
    const std::shared_ptr<State> state =
        connected.Look(caller.id(), [&](bool is_connected) { return table_->Get(caller.id(), is_connected); });
    return {state, state->Get()};
  }

 private:
  // Made and deleted without a lock of ours but its own, for that is the application's code.
  class State {
   public:
    T* Get() {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (!value_) value_.emplace();
      return &*value_;
    }

   private:
    std::mutex mutex_;
    std::optional<T> value_;
  };

  class Table : public rpc::Connected::Follower, public std::enable_shared_from_this<Table> {
   public:
    void FollowOnce(rpc::Connected& connected) {
      {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!followed_.insert(connected.number()).second) return;
      }
      connected.Follow(this->shared_from_this());
    }

    std::shared_ptr<State> Get(int id, bool is_connected) {
      const std::lock_guard<std::mutex> lock(mutex_);
      Entry& entry = entries_[id];
      std::shared_ptr<State> state = entry.in_use.lock();
      if (state == nullptr) {
        state = std::shared_ptr<State>(new State, [table = this->shared_from_this(), id](State* ended) {
          delete ended;
          table->Forget(id);
        });
        entry.in_use = state;
      }
      if (is_connected) entry.kept = state;
      return state;
    }

    void OnGone(int id) override {
      // Let go of after the lock was given back.
      std::shared_ptr<State> released;
      const std::lock_guard<std::mutex> lock(mutex_);
      const auto found = entries_.find(id);
      if (found != entries_.end()) released.swap(found->second.kept);
    }

    void OnAllGone() override {
      std::vector<std::shared_ptr<State>> released;
      const std::lock_guard<std::mutex> lock(mutex_);
      for (auto& [id, entry] : entries_)
        released.push_back(std::move(entry.kept));
    }

   private:
    struct Entry {
      std::shared_ptr<State> kept;  // while the client is connected
      std::weak_ptr<State> in_use;
    };

    void Forget(int id) {
      const std::lock_guard<std::mutex> lock(mutex_);
      const auto found = entries_.find(id);
      // Somebody may have made another one meanwhile.
      if (found != entries_.end() && found->second.in_use.expired()) entries_.erase(found);
    }

    std::mutex mutex_;
    std::set<std::uint64_t> followed_;
    std::map<int, Entry> entries_;
  };

  const std::shared_ptr<Table> table_;
};

}  // namespace mivo

#endif  // MIVO_RPC_PER_CLIENT_H_
