#include "server/client_table.h"

#include <unistd.h>
#include <uv.h>

#include <utility>

#include "base/clock.h"

namespace mivo {

namespace {

// Of the whole process, one for each kind of socket; they do not fall.
std::atomic<int> accepted_local{0};
std::atomic<int> accepted_tcp{0};

constexpr std::int64_t kDrainMs = 500;

}  // namespace

ClientTable::ClientTable(JobGroup& jobs, Diagnostics& print, Events events, int (*next_id)())
    : jobs_(jobs), print_(print), events_(std::move(events)), next_id_(next_id) {}

void ClientTable::OnIncoming(int descriptor, Endpoint::Kind kind) {
  if (descriptor < 0) {
    print_.Error("New client connection error...\n");
    return;
  }
  if (closed_) {
    ::close(descriptor);
    return;
  }
  const auto connection = std::make_shared<Connection>(static_cast<Connection::Owner&>(*this), jobs_, UnusedId());
  connection->PauseReadingWhenFull();
  if (print_.is_quiet()) connection->BeQuiet();
  const int id = connection->id();
  // Listed before it is announced: whoever hears of it from the notice may call it at once.
  const std::size_t count = Enter(connection);
  const int opened = connection->Open(descriptor);
  arriving_ = id;
  events_.connected(id);
  arriving_ = 0;
  // The notice may have closed the server, and this connection with the others.
  if (closed_) return;
  if (opened < 0) {
    Remove(id);
    print_.Error("Accept error... .\n");
    return;
  }
  if (kind == Endpoint::kLocal) {
    print_.Debug("Accept success: %d client id: %d all count: \n", accepted_local++, id);
  } else {
    print_.Debug("Accept success: %d client id: %d all count:%d \n", accepted_tcp++, id, static_cast<int>(count));
  }
  if (!connection->is_closed()) connection->StartReading();
}

std::size_t ClientTable::Enter(const std::shared_ptr<Connection>& connection) {
  MutexLock lock(mutex_);
  clients_[connection->id()] = connection;
  return clients_.size();
}

void ClientTable::Remove(int client_id) {
  MutexLock lock(mutex_);
  clients_.erase(client_id);
}

// A client may stay for so long that the ids come round.
int ClientTable::UnusedId() {
  int id = 0;
  do {
    id = next_id_();
  } while (Find(id) != nullptr);
  return id;
}

std::shared_ptr<Connection> ClientTable::Find(int client_id) {
  MutexLock lock(mutex_);
  const Table::iterator found = clients_.find(client_id);
  return found == clients_.end() ? nullptr : found->second;
}

void ClientTable::Close() {
  closed_ = true;
  Table clients;
  {
    MutexLock lock(mutex_);
    clients.swap(clients_);
  }
  // One deadline for all: while one is waited for, the pool writes on to the others.
  const std::int64_t deadline_ms = NowMs() + kDrainMs;
  for (const auto& [id, connection] : clients)
    connection->Drain(deadline_ms);
  for (const auto& [id, connection] : clients)
    connection->Close();
}

void ClientTable::OnFirstRead(Connection&) {
  ++read_count_;
}

void ClientTable::OnPayload(Connection& connection, std::string_view payload, Jobs& jobs) {
  events_.payload(connection, payload, jobs);
}

void ClientTable::OnEnd(Connection& connection, int status) {
  events_.on_loop([this, id = connection.id(), status] { SeeOff(id, status); });
}

void ClientTable::SeeOff(int client_id, int status) {
  const std::shared_ptr<Connection> connection = Find(client_id);
  if (connection == nullptr) return;
  if (status < 0) print_.Error("Read error %s\n", uv_err_name(status));
  events_.closed(client_id);
  Remove(client_id);
  print_.Debug("Client Close: %d\n", client_id);
  connection->Close();
}

}  // namespace mivo
