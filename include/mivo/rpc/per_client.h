// State that belongs to a connection.
//
//     mivo::PerClient<Session> sessions;
//     mivo::Server server;
//     server.on("open", [&](mivo::Caller& caller, std::string file) { sessions.of(caller)->Open(file); });
#ifndef MIVO_RPC_PER_CLIENT_H_
#define MIVO_RPC_PER_CLIENT_H_

#include <mivo/rpc/client_states.h>
#include <mivo/rpc/server.h>

#include <memory>

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
  PerClient() : states_(rpc::CreateClientStates(Make, Delete)) {}
  PerClient(const PerClient&) = delete;
  PerClient& operator=(const PerClient&) = delete;
  ~PerClient() { states_->Destroy(); }

  // That of the caller; to be held for as long as it is used. While its server lives. Throws what T() throws.
  std::shared_ptr<T> of(const Caller& caller) const {
    std::unique_ptr<rpc::StateHold, Release> hold(states_->Of(caller.service(), caller.id()));
    T* const state = static_cast<T*>(hold->Get());
    return std::shared_ptr<T>(state, Release{hold.release()});
  }

 private:
  struct Release {
    rpc::StateHold* hold = nullptr;
    void operator()(rpc::StateHold* held) const { held->Release(); }
    void operator()(T*) const { hold->Release(); }
  };

  static void* Make() { return new T(); }
  static void Delete(void* state) { delete static_cast<T*>(state); }

  rpc::ClientStates* const states_;
};

}  // namespace mivo

#endif  // MIVO_RPC_PER_CLIENT_H_
