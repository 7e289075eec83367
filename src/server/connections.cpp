// Where a server listens, and who is connected: <mivo/connections.h> for servers.
#include <mivo/connections.h>

#include <cerrno>
#include <memory>

#include "server/mivo_server.h"
#include "server/serving.h"
#include "transport/endpoint_of.h"

namespace mivo {

void MIVOServer::StopListening() {
  if (const std::shared_ptr<Serving> serving = CurrentServing()) serving->StopListening();
}

int MIVOServer::RequestsUnderWay() {
  const std::shared_ptr<Serving> serving = CurrentServing();
  return serving ? serving->requests_under_way() : 0;
}

int MIVOServer::UserOf(int client_id) {
  const std::shared_ptr<Serving> serving = CurrentServing();
  return serving ? serving->UserOf(client_id) : -1;
}

int Listen(IServer& server, AddressKind kind, const char* where, const char* port) {
  auto* const own = dynamic_cast<MIVOServer*>(&server);
  return own == nullptr ? -ENOTSUP : own->Listen(EndpointOf(kind, where, port));
}

void StopListening(IServer& server) {
  if (auto* const own = dynamic_cast<MIVOServer*>(&server)) own->StopListening();
}

int RequestsUnderWay(IServer& server) {
  auto* const own = dynamic_cast<MIVOServer*>(&server);
  return own == nullptr ? 0 : own->RequestsUnderWay();
}

int UserOf(IServer& server, int client_id) {
  auto* const own = dynamic_cast<MIVOServer*>(&server);
  return own == nullptr ? -1 : own->UserOf(client_id);
}

void BeQuiet(IServer& server) {
  if (auto* const own = dynamic_cast<MIVOServer*>(&server)) own->BeQuiet();
}

}  // namespace mivo
