// The connections of a server.
#ifndef MIVO_SERVER_CLIENT_TABLE_H_
#define MIVO_SERVER_CLIENT_TABLE_H_

#include <atomic>
#include <functional>
#include <memory>
#include <string_view>
#include <unordered_map>

#include "base/identity.h"
#include "loop/event_loop.h"
#include "server/listener.h"
#include "transport/connection.h"
#include "transport/print_object.h"

namespace mivo {

// Accepts connections, reads from them, and sees them off. Loop thread, except `read_count`.
class ClientTable : private Connection::Owner {
 public:
  // What is told to the server.
  struct Events {
    std::function<void(int client_id)> connected;  // before the connection is accepted
    std::function<void(int client_id)> closed;
    std::function<void(const std::shared_ptr<Connection>& client, std::string_view payload)> payload;
  };

  // `next_id` counts on and comes round at some time.
  ClientTable(EventLoop& loop, Listener& listener, PrintObject& print, Events events,
              int (*next_id)() = NextConnectionId);

  // What the listener has accepted, ours from now on; below 0 it reports an error.
  void OnIncoming(int descriptor);

  // Null if no such client is connected.
  std::shared_ptr<Connection> Find(int client_id) const;

  // Ends every connection, and accepts no further ones.
  void Close();

  // How many connections have delivered anything, their end included. It does not fall. Any thread.
  int read_count() const { return read_count_; }

 private:
  struct Client {
    std::shared_ptr<Connection> connection;
    bool has_read = false;
  };

  int UnusedId() const;

  void OnRead(Connection& connection) override;
  void OnPayload(Connection& connection, std::string_view payload) override;
  void OnEnd(Connection& connection, int status) override;
  void OnFrameDropped(Connection&) override {}

  EventLoop& loop_;
  Listener& listener_;
  PrintObject& print_;
  const Events events_;
  int (*const next_id_)();
  std::unordered_map<int, Client> clients_;
  bool closed_ = false;
  std::atomic<int> read_count_{0};
};

}  // namespace mivo

#endif  // MIVO_SERVER_CLIENT_TABLE_H_
