#include "server/client_table.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "server/listener.h"
#include "support/raw_client.h"
#include "support/stdout_capture.h"
#include "support/transport.h"
#include "transport/print_object.h"
#include "unit/test_loop.h"

namespace mivo {
namespace {

using mivo_test::FreeAddress;
using mivo_test::RawPeer;
using mivo_test::Transport;

// Comes round very early.
int next_id = 0;
int NextOfThree() {
  next_id = next_id % 3 + 1;
  return next_id;
}

class ClientTableIds : public testing::Test {
 protected:
  ClientTableIds() {
    next_id = 0;
    EXPECT_TRUE(listener_.Listen({Endpoint::kLocal, address_.name, ""},
                                 [this](int descriptor) { clients_.OnIncoming(descriptor); }));
  }
  ~ClientTableIds() override {
    clients_.Close();
    listener_.Close();
  }

  // Connected and accepted.
  RawPeer Connect() {
    const std::size_t before = connected_.size();
    RawPeer peer = RawPeer::ConnectTo(address_);
    EXPECT_TRUE(loop_.RunUntil([&] { return connected_.size() > before; }));
    return peer;
  }

  // Says who it is.
  bool IsClient(RawPeer& peer, int id) {
    const std::string text = "I am " + std::to_string(payloads_.size());
    if (!peer.SendFrame(text)) return false;
    const std::size_t before = payloads_.size();
    return loop_.RunUntil([&] { return payloads_.size() > before; }) && payloads_.back().text == text &&
           payloads_.back().id == id;
  }

  struct Payload {
    int id;
    std::string text;
  };

  const mivo_test::Address address_ = FreeAddress(Transport::Local);
  TestLoop loop_;
  PrintObject print_{this};
  Listener listener_{loop_, print_};
  std::vector<int> connected_;
  std::vector<int> closed_;
  std::vector<Payload> payloads_;
  ClientTable clients_{loop_,
                       listener_,
                       print_,
                       {[this](int id) { connected_.push_back(id); }, [this](int id) { closed_.push_back(id); },
                        [this](const std::shared_ptr<Connection>& client, std::string_view payload) {
                          payloads_.push_back({client->id(), std::string(payload)});
                        }},
                       NextOfThree};
};

TEST_F(ClientTableIds, PassOverThoseOfLiveClients) {
  RawPeer stays = Connect();
  RawPeer leaves = Connect();
  leaves.Close();
  ASSERT_TRUE(loop_.RunUntil([&] { return closed_ == std::vector<int>{2}; }));
  RawPeer third = Connect();
  // 1 would be next.
  RawPeer newcomer = Connect();
  EXPECT_EQ(connected_, (std::vector<int>{1, 2, 3, 2}));
  EXPECT_TRUE(IsClient(stays, 1));
  EXPECT_TRUE(IsClient(newcomer, 2));
  EXPECT_TRUE(IsClient(third, 3));
  EXPECT_NE(clients_.Find(1), nullptr);
}

}  // namespace
}  // namespace mivo
