#include "server/client_table.h"

#include <unistd.h>

#include <utility>

namespace mivo {

namespace {

// Of the whole process, one for each kind of socket; they do not fall.
std::atomic<int> accepted_local{0};
std::atomic<int> accepted_tcp{0};

}  // namespace

ClientTable::ClientTable(EventLoop& loop, Listener& listener, PrintObject& print, Events events, int (*next_id)())
    : loop_(loop), listener_(listener), print_(print), events_(std::move(events)), next_id_(next_id) {}

void ClientTable::OnIncoming(int descriptor) {
  if (descriptor < 0) {
    print_.Error("New client connection error...\n");
    return;
  }
  const auto connection = std::make_shared<Connection>(loop_, static_cast<Connection::Owner&>(*this), UnusedId());
  const int id = connection->id();
  events_.connected(id);
  // The notice may have closed the server.
  if (closed_) {
    ::close(descriptor);
    return;
  }
  if (connection->Adopt(descriptor, listener_.kind()) < 0) {
    print_.Error("Accept error... .\n");
    return;
  }
  clients_[id].connection = connection;
  if (listener_.kind() == Endpoint::kLocal) {
    print_.Debug("Accept success: %d client id: %d all count: \n", accepted_local++, id);
  } else {
    print_.Debug("Accept success: %d client id: %d all count:%d \n", accepted_tcp++, id,
                 static_cast<int>(clients_.size()));
  }
  if (connection->is_closed()) return;
  const int reading = connection->StartReading();
  if (reading < 0) OnEnd(*connection, reading);
}

// A client may stay for so long that the ids come round.
int ClientTable::UnusedId() const {
  int id = 0;
  do {
    id = next_id_();
  } while (clients_.count(id) != 0);
  return id;
}

std::shared_ptr<Connection> ClientTable::Find(int client_id) const {
  const auto found = clients_.find(client_id);
  return found == clients_.end() ? nullptr : found->second.connection;
}

void ClientTable::Close() {
  closed_ = true;
  std::unordered_map<int, Client> clients;
  clients.swap(clients_);
  for (const auto& [id, client] : clients)
    client.connection->Close();
}

void ClientTable::OnRead(Connection& connection) {
  const auto found = clients_.find(connection.id());
  if (found == clients_.end() || found->second.has_read) return;
  found->second.has_read = true;
  ++read_count_;
}

void ClientTable::OnPayload(Connection& connection, std::string_view payload) {
  events_.payload(connection.shared_from_this(), payload);
}

void ClientTable::OnEnd(Connection& connection, int status) {
  if (status != UV_EOF && status != 0) print_.Error("Read error %s\n", uv_err_name(status));
  events_.closed(connection.id());
  clients_.erase(connection.id());
  print_.Debug("Client Close: %d\n", connection.id());
  connection.Close();
}

}  // namespace mivo
