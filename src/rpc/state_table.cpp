#include "rpc/state_table.h"

#include <utility>
#include <vector>

#include "rpc/server_service.h"

namespace mivo {
namespace rpc {

void* StateTable::State::Get() {
  MutexLock lock(mutex_);
  if (value_ == nullptr) value_ = make_();
  return value_;
}

std::shared_ptr<StateTable::State> StateTable::Of(ConnectedClients& clients, int client_id) {
  FollowOnce(clients);
  // One step towards the end of the connection: what is entered for somebody who is connected, will be let go of.
  return clients.LookAt(client_id, [this, client_id](bool is_connected) { return Enter(client_id, is_connected); });
}

void StateTable::FollowOnce(ConnectedClients& clients) {
  {
    MutexLock lock(mutex_);
    if (!followed_.insert(clients.number()).second) return;
  }
  clients.Follow(shared_from_this());
}

std::shared_ptr<StateTable::State> StateTable::Enter(int client_id, bool is_connected) {
  MutexLock lock(mutex_);
  Entry& entry = entries_[client_id];
  std::shared_ptr<State> state = entry.in_use.lock();
  if (state == nullptr) {
    state = std::shared_ptr<State>(new State(*this), [table = shared_from_this(), client_id](State* ended) {
      delete ended;
      table->Forget(client_id);
    });
    entry.in_use = state;
  }
  if (is_connected) entry.kept = state;
  return state;
}

void StateTable::OnGone(int client_id) {
  // Let go of after the lock was given back.
  std::shared_ptr<State> released;
  MutexLock lock(mutex_);
  const auto found = entries_.find(client_id);
  if (found != entries_.end()) released.swap(found->second.kept);
}

void StateTable::OnAllGone() {
  std::vector<std::shared_ptr<State>> released;
  MutexLock lock(mutex_);
  for (auto& [id, entry] : entries_)
    released.push_back(std::move(entry.kept));
}

void StateTable::Forget(int client_id) {
  MutexLock lock(mutex_);
  const auto found = entries_.find(client_id);
  // Somebody may have made another one meanwhile.
  if (found != entries_.end() && found->second.in_use.expired()) entries_.erase(found);
}

namespace {

class Hold final : public StateHold {
 public:
  explicit Hold(std::shared_ptr<StateTable::State> state) : state_(std::move(state)) {}
  void* Get() override { return state_->Get(); }
  void Release() override { delete this; }

 private:
  const std::shared_ptr<StateTable::State> state_;
};

class States final : public ClientStates {
 public:
  States(MakeState make, DeleteState del) : table_(std::make_shared<StateTable>(make, del)) {}
  StateHold* Of(Service& service, int client_id) override {
    return new Hold(table_->Of(static_cast<ServerService&>(service).clients(), client_id));
  }
  void Destroy() override { delete this; }

 private:
  const std::shared_ptr<StateTable> table_;
};

}  // namespace

ClientStates* CreateClientStates(MakeState make, DeleteState del) {
  return new States(make, del);
}

}  // namespace rpc
}  // namespace mivo
