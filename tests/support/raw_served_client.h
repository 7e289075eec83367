// A client and the hand-driven server that it talks to. Needs the library linked.
#ifndef MIVO_TESTS_SUPPORT_RAW_SERVED_CLIENT_H_
#define MIVO_TESTS_SUPPORT_RAW_SERVED_CLIENT_H_

#include "support/background.h"
#include "support/raw_server.h"
#include "support/test_client.h"
#include "support/transport.h"

namespace mivo_test {

// A client whose server is driven by hand.
class ClientOfRawServer {
 public:
  explicit ClientOfRawServer(Transport transport) : server_(transport) {}

  // After handlers were registered on client().
  bool Connect() {
    Background<bool> connected([this] { return client_.Init(server_.address()); });
    peer_ = server_.AcceptAndAnswerHandshake();
    return connected.Get() && peer_.connected();
  }

  RawServer& server() { return server_; }
  TestClient& client() { return client_; }
  RawPeer& peer() { return peer_; }

 private:
  RawServer server_;
  TestClient client_;
  RawPeer peer_;
};

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_RAW_SERVED_CLIENT_H_
