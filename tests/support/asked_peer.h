// Clients driven by hand, and the ids under which a server knows them. Needs the library linked.
#ifndef MIVO_TESTS_SUPPORT_ASKED_PEER_H_
#define MIVO_TESTS_SUPPORT_ASKED_PEER_H_

#include "support/event.h"
#include "support/raw_client.h"
#include "support/test_server.h"

#include <atomic>
#include <memory>
#include <utility>

namespace mivo_test {

struct AskedPeer {
  RawPeer peer;
  int id = 0;
};

// Registers the notices of a server that has not started yet, and connects one client after the other.
class PeerIds {
 public:
  explicit PeerIds(TestServer* server) : server_(server) {
    server->On("s_c_connect", [seen = seen_](int id, MIVOParams*, MIVOParams*) {
      seen->last_id = id;
      seen->connects.Signal();
    });
    server->On("s_c_closed", [seen = seen_](int, MIVOParams*, MIVOParams*) { seen->closes.Signal(); });
  }

  // Reachable when it returns: an answer shows that the connection is listed.
  AskedPeer Connect() {
    AskedPeer asked;
    asked.peer = server_->Connect();
    if (!seen_->connects.WaitFor(++connected_) || !asked.peer.AnswersInOrder()) return {};
    asked.id = seen_->last_id;
    return asked;
  }

  // True once this many have gone, in all.
  bool WaitForCloses(int count) { return seen_->closes.WaitFor(count); }

 private:
  // The notices' own: the server may outlast this object.
  struct Seen {
    Event connects;
    Event closes;
    std::atomic<int> last_id{0};
  };

  TestServer* const server_;
  const std::shared_ptr<Seen> seen_ = std::make_shared<Seen>();
  int connected_ = 0;
};

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_ASKED_PEER_H_
