// How a client connects, and comes back.
#ifndef MIVO_RPC_CLIENT_OPTIONS_H_
#define MIVO_RPC_CLIENT_OPTIONS_H_

#include <mivo/rpc/calls.h>

#include <algorithm>
#include <chrono>

namespace mivo {

// What a call or post does while its client has no connection and tries to get one.
enum class WhileAway {
  kWait,  // it waits, within its deadline; a post within that of the client
  kFail,  // a call throws NotConnected, a post goes nowhere
};

struct ClientOptions {
  // Of calls.
  Deadline deadline = std::chrono::seconds(10);
  // Of each attempt to connect.
  Deadline connect_deadline = std::chrono::seconds(5);
  // Whether the client comes back by itself when the connection has ended, and starts before its server does.
  bool reconnect = false;
  WhileAway while_away = WhileAway::kWait;
  // The pause after an attempt that failed: from the shortest, each about twice as long as the one before, to the
  // longest; a part of each is left to chance. 0: 10 and 200 ms for local sockets, 100 ms and 3 s for TCP.
  std::chrono::milliseconds shortest_pause{0};
  std::chrono::milliseconds longest_pause{0};
};

// mivo::Client client("unix:jobs", mivo::kReconnect);
inline const ClientOptions kReconnect = [] {
  ClientOptions options;
  options.reconnect = true;
  return options;
}();

namespace rpc {

inline ClientOptions WithPauses(ClientOptions options, bool is_local) {
  if (options.shortest_pause.count() < 1) options.shortest_pause = std::chrono::milliseconds(is_local ? 10 : 100);
  if (options.longest_pause.count() < 1) options.longest_pause = std::chrono::milliseconds(is_local ? 200 : 3000);
  options.longest_pause = std::max(options.longest_pause, options.shortest_pause);
  return options;
}

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_CLIENT_OPTIONS_H_
