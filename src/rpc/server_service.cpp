#include "rpc/server_service.h"

#include <mivo/rpc/wire_names.h>

#include <system_error>
#include <utility>

#include "base/handler_scope.h"

namespace mivo {
namespace rpc {

void ServerService::Notice::Add(ClientAction* action) {
  std::shared_ptr<ClientAction> owned(action);
  MutexLock lock(mutex_);
  actions_.push_back(std::move(owned));
}

void ServerService::Notice::OnCall(int id, MIVOParams*, MIVOParams*) {
  (clients_.*note_)(id);
  const auto actions = [this] {
    MutexLock lock(mutex_);
    return actions_;
  }();
  for (const auto& action : actions)
    action->Run(id);
}

ServerService::ServerService() : server_(CreateServer()) {
  BeQuiet(*server_);
  server_->SetCustomReleaseEvent();
  server_->method("s_c_connect", &come_);
  server_->method("s_c_closed", &gone_);
  server_->method(kMethodsMethod, &offered_);
  server_->methodall(&unknown_);
}

void ServerService::Offer(OfferedHandler* handler) {
  std::shared_ptr<OfferedHandler> owned(handler);
  MutexLock lock(mutex_);
  handlers_.push_back(owned);
  offered_.Add(owned);
  server_->method(owned->name(), owned->method());
}

int ServerService::Listen(AddressKind kind, const char* where, const char* port) {
  return mivo::Listen(*server_, kind, where, port);
}

bool ServerService::Serve() {
  // Of a start before this one.
  if (thread_.joinable()) thread_.join();
  try {
    thread_ = std::thread([this] { server_->run(); });
  } catch (const std::system_error&) {
    return false;
  }
  return true;
}

bool ServerService::Close() {
  const bool is_inside = HandlerScope::Inside(dynamic_cast<const void*>(server_.get()));
  server_->close();
  if (is_inside) return false;
  if (thread_.joinable()) thread_.join();
  return true;
}

void ServerService::Running(TextSink& names) const {
  const auto handlers = [this] {
    MutexLock lock(mutex_);
    return handlers_;
  }();
  for (const auto& handler : handlers) {
    const std::string name = handler->name();
    if (handler->running() > 0) names.Take(name.data(), name.size());
  }
}

void ServerService::EachClient(ClientAction& action) const {
  for (const int id : clients_.All())
    action.Run(id);
}

bool ServerService::IsConnected(int client_id) const {
  return clients_.LookAt(client_id, [](bool is_connected) { return is_connected; });
}

Service* CreateService() {
  return new ServerService;
}

}  // namespace rpc
}  // namespace mivo
