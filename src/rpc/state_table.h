// A state for each client: made on first use, let go of when the client has gone, gone with the last that holds it.
#ifndef MIVO_RPC_STATE_TABLE_H_
#define MIVO_RPC_STATE_TABLE_H_

#include <mivo/rpc/client_states.h>

#include <map>
#include <memory>
#include <set>

#include "base/mutex.h"
#include "rpc/connected_clients.h"

namespace mivo {
namespace rpc {

class StateTable final : public ClientFollower, public std::enable_shared_from_this<StateTable> {
 public:
  // Made and deleted without a lock but its own, for that is the application's code.
  class State {
   public:
    explicit State(const StateTable& table) : make_(table.make_), delete_(table.delete_) {}
    State(const State&) = delete;
    State& operator=(const State&) = delete;
    ~State() {
      if (value_ != nullptr) delete_(value_);
    }
    void* Get();

   private:
    const MakeState make_;
    const DeleteState delete_;
    Mutex mutex_;
    void* value_ = nullptr;
  };

  StateTable(MakeState make, DeleteState del) : make_(make), delete_(del) {}

  std::shared_ptr<State> Of(ConnectedClients& clients, int client_id);

  void OnGone(int client_id) override;
  void OnAllGone() override;

 private:
  struct Entry {
    std::shared_ptr<State> kept;  // while the client is connected
    std::weak_ptr<State> in_use;
  };

  std::shared_ptr<State> Enter(int client_id, bool is_connected);
  void FollowOnce(ConnectedClients& clients);
  void Forget(int client_id);

  const MakeState make_;
  const DeleteState delete_;
  Mutex mutex_;
  std::set<unsigned long long> followed_ MIVO_GUARDED_BY(mutex_);
  std::map<int, Entry> entries_ MIVO_GUARDED_BY(mutex_);
};

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_STATE_TABLE_H_
