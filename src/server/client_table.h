// The connections of a server.
#ifndef MIVO_SERVER_CLIENT_TABLE_H_
#define MIVO_SERVER_CLIENT_TABLE_H_

#include <atomic>
#include <functional>
#include <memory>
#include <string_view>
#include <unordered_map>

#include "base/identity.h"
#include "base/mutex.h"
#include "calls/diagnostics.h"
#include "pool/job.h"
#include "server/listener.h"
#include "transport/connection.h"

namespace mivo {

// Takes in connections, hands on what they bring, and sees them off. Loop thread, except where said otherwise.
class ClientTable : private Connection::Owner {
 public:
  // What is told to the server.
  struct Events {
    std::function<void(int client_id)> connected;  // before the connection is accepted
    std::function<void(int client_id)> closed;
    // On the thread that reads, see Connection::Owner.
    std::function<void(Connection& client, std::string_view payload, Jobs& jobs)> payload;
    std::function<void(std::function<void()> task)> on_loop;  // has the loop thread do something
  };

  // `next_id` counts on and comes round at some time.
  ClientTable(JobGroup& jobs, Diagnostics& print, Events events, int (*next_id)() = NextConnectionId);

  // What the listener of that kind has accepted, ours from now on; below 0 it reports an error.
  void OnIncoming(int descriptor, Endpoint::Kind kind);

  // Null if no such client is connected. Any thread.
  std::shared_ptr<Connection> Find(int client_id);

  // Whether its connecting is being announced.
  bool IsArriving(int client_id) const { return client_id == arriving_; }

  // Ends every connection, and takes in no further ones. What waits to be written is written before, while its peer
  // reads, for half a second at most in all.
  void Close();

  // How many connections have delivered anything, their end included. It does not fall. Any thread.
  int read_count() const { return read_count_; }

 private:
  using Table = std::unordered_map<int, std::shared_ptr<Connection>>;

  int UnusedId();
  std::size_t Enter(const std::shared_ptr<Connection>& connection);
  void Remove(int client_id);
  void SeeOff(int client_id, int status);

  void OnFirstRead(Connection& connection) override;
  void OnPayload(Connection& connection, std::string_view payload, Jobs& jobs) override;
  void OnEnd(Connection& connection, int status) override;
  void OnFrameDropped(Connection&) override {}

  JobGroup& jobs_;
  Diagnostics& print_;
  const Events events_;
  int (*const next_id_)();
  Mutex mutex_;
  Table clients_ MIVO_GUARDED_BY(mutex_);
  bool closed_ = false;
  int arriving_ = 0;
  std::atomic<int> read_count_{0};
};

}  // namespace mivo

#endif  // MIVO_SERVER_CLIENT_TABLE_H_
