// A server with its thread, its handlers and its clients.
#ifndef MIVO_RPC_SERVER_SERVICE_H_
#define MIVO_RPC_SERVER_SERVICE_H_

#include <mivo/handler.h>
#include <mivo/rpc/service.h>
#include <mivo/server.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "rpc/connected_clients.h"
#include "rpc/offered_methods.h"

namespace mivo {
namespace rpc {

class ServerService final : public Service {
 public:
  ServerService();
  ServerService(const ServerService&) = delete;
  ServerService& operator=(const ServerService&) = delete;

  IServer& server() override { return *server_; }
  void Offer(OfferedHandler* handler) override;
  void Describe(bool on) override { offered_.Tell(on); }
  void OnConnect(ClientAction* action) override { come_.Add(action); }
  void OnDisconnect(ClientAction* action) override { gone_.Add(action); }
  int Listen(AddressKind kind, const char* where, const char* port) override;
  bool Serve() override;
  bool Close() override;
  void ForgetClients() override { clients_.GoAll(); }
  void Destroy() override { delete this; }
  void Running(TextSink& names) const override;
  void EachClient(ClientAction& action) const override;
  bool IsConnected(int client_id) const override;

  ConnectedClients& clients() { return clients_; }

 private:
  // The server's notice that somebody has come, or gone.
  class Notice final : public IServerMethod {
   public:
    using Note = void (ConnectedClients::*)(int id);
    Notice(ConnectedClients& clients, Note note) : clients_(clients), note_(note) {}
    void Add(ClientAction* action);
    void OnCall(int id, MIVOParams*, MIVOParams*) override;

   private:
    ConnectedClients& clients_;
    const Note note_;
    Mutex mutex_;
    std::vector<std::shared_ptr<ClientAction>> actions_ MIVO_GUARDED_BY(mutex_);
  };
  struct Destroyer {
    void operator()(IServer* server) const { DestroyServer(server); }
  };

  ConnectedClients clients_;
  mutable Mutex mutex_;
  // Outlive the server that calls them.
  Notice come_{clients_, &ConnectedClients::Come};
  Notice gone_{clients_, &ConnectedClients::Go};
  UnknownOfServer unknown_;
  OfferedMethods offered_;
  std::vector<std::shared_ptr<OfferedHandler>> handlers_ MIVO_GUARDED_BY(mutex_);
  const std::unique_ptr<IServer, Destroyer> server_;
  std::thread thread_;
};

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_SERVER_SERVICE_H_
