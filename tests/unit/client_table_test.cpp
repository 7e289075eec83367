#include "server/client_table.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "calls/diagnostics.h"
#include "server/listener.h"
#include "support/raw_client.h"
#include "support/stdout_capture.h"
#include "support/transport.h"
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

class ClientTableTest : public testing::Test {
 protected:
  ClientTableTest() {
    next_id = 0;
    print_.SetLevel(nullptr, 0);
    EXPECT_EQ(listener_.Listen({Endpoint::kLocal, address_.name, ""},
                               [this](int descriptor) { clients_.OnIncoming(descriptor, Endpoint::kLocal); }),
              0);
  }
  ~ClientTableTest() override {
    listener_.Close();
    clients_.Close();
    jobs_.WaitUntilIdle();
    loop_.Shut();
  }

  // Connected and accepted.
  RawPeer Connect() {
    const std::size_t before = connected_.size();
    RawPeer peer = RawPeer::ConnectTo(address_);
    EXPECT_TRUE(loop_.RunUntil([&] { return connected_.size() > before; }));
    return peer;
  }

  struct Payload {
    int id;
    std::string text;
  };
  std::vector<Payload> payloads() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return payloads_;
  }

  // Says who it is.
  bool IsClient(RawPeer& peer, int id) {
    const std::size_t before = payloads().size();
    const std::string text = "I am " + std::to_string(before);
    if (!peer.SendFrame(text)) return false;
    return loop_.RunUntil([&] { return payloads().size() > before; }) && payloads().back().text == text &&
           payloads().back().id == id;
  }

  const mivo_test::Address address_ = FreeAddress(Transport::Local);
  TestLoop loop_;
  Diagnostics print_{this};
  Listener listener_{loop_, print_};
  std::vector<int> connected_;
  std::vector<int> closed_;
  std::function<void(int id)> on_connected_;
  std::function<void(int id)> on_closed_;
  std::mutex mutex_;
  std::vector<Payload> payloads_;
  JobGroup jobs_;
  ClientTable clients_{jobs_,
                       print_,
                       {[this](int id) {
                          connected_.push_back(id);
                          if (on_connected_) on_connected_(id);
                        },
                        [this](int id) {
                          closed_.push_back(id);
                          if (on_closed_) on_closed_(id);
                        },
                        [this](Connection& client, std::string_view payload, Jobs&) {
                          const std::lock_guard<std::mutex> lock(mutex_);
                          payloads_.push_back({client.id(), std::string(payload)});
                        },
                        [this](std::function<void()> task) { loop_.Post(std::move(task)); }},
                       NextOfThree};
};

using ClientTableIds = ClientTableTest;

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

TEST_F(ClientTableTest, KnowsAClientFromItsAnnouncementToItsNotice) {
  bool was_there = false;
  bool was_arriving = false;
  on_connected_ = [&](int id) {
    was_there = clients_.Find(id) != nullptr;
    was_arriving = clients_.IsArriving(id);
  };
  RawPeer peer = Connect();
  EXPECT_TRUE(was_there);
  EXPECT_TRUE(was_arriving);
  EXPECT_FALSE(clients_.IsArriving(1));
  bool is_there_in_the_notice = false;
  on_closed_ = [&](int id) { is_there_in_the_notice = clients_.Find(id) != nullptr; };
  peer.Close();
  ASSERT_TRUE(loop_.RunUntil([&] { return !closed_.empty(); }));
  EXPECT_TRUE(is_there_in_the_notice);
  EXPECT_EQ(clients_.Find(1), nullptr);
}

TEST_F(ClientTableTest, MaySendToAClientThatIsBeingAnnounced) {
  on_connected_ = [&](int id) { EXPECT_TRUE(clients_.Find(id)->Send(Frame("welcome"))); };
  RawPeer peer = Connect();
  EXPECT_EQ(peer.ReadFrame(), "welcome");
}

TEST_F(ClientTableTest, TellsOfAnEndAfterAllThatHasArrivedBeforeIt) {
  RawPeer peer = Connect();
  for (int i = 0; i < 100; ++i)
    ASSERT_TRUE(peer.SendFrame("text"));
  peer.Close();
  std::size_t before_the_notice = 0;
  on_closed_ = [&](int) { before_the_notice = payloads().size(); };
  ASSERT_TRUE(loop_.RunUntil([&] { return !closed_.empty(); }));
  EXPECT_EQ(before_the_notice, 100U);
  EXPECT_EQ(closed_, std::vector<int>{1});
}

TEST_F(ClientTableTest, CountsEachConnectionThatHasDeliveredAnythingOnce) {
  EXPECT_EQ(clients_.read_count(), 0);
  RawPeer talks = Connect();
  RawPeer leaves = Connect();
  const RawPeer silent = Connect();
  EXPECT_EQ(clients_.read_count(), 0);
  EXPECT_TRUE(IsClient(talks, 1));
  EXPECT_TRUE(IsClient(talks, 1));
  EXPECT_EQ(clients_.read_count(), 1);
  leaves.Close();
  ASSERT_TRUE(loop_.RunUntil([&] { return !closed_.empty(); }));
  EXPECT_EQ(clients_.read_count(), 2);
}

TEST_F(ClientTableTest, EndsEveryConnectionWithItsCloseAndTellsOfNone) {
  RawPeer one = Connect();
  RawPeer other = Connect();
  const std::shared_ptr<Connection> held = clients_.Find(1);
  ASSERT_TRUE(held->Send(Frame("last words")));
  clients_.Close();
  EXPECT_TRUE(held->is_closed());
  EXPECT_EQ(clients_.Find(1), nullptr);
  EXPECT_EQ(one.ReadFrame(), "last words");
  EXPECT_TRUE(one.ReadEof());
  EXPECT_TRUE(other.ReadEof());
  EXPECT_TRUE(closed_.empty());
  clients_.Close();
}

TEST_F(ClientTableTest, TakesInNobodyAfterItsClose) {
  const mivo_test::StdoutCapture out;
  clients_.Close();
  // The listener still listens.
  RawPeer late = RawPeer::ConnectTo(address_);
  ASSERT_TRUE(late.connected());
  bool has_ended = false;
  EXPECT_TRUE(loop_.RunUntil([&] { return has_ended = has_ended || late.WaitReadable(std::chrono::milliseconds(1)); }));
  EXPECT_TRUE(late.ReadEof());
  EXPECT_TRUE(connected_.empty());
  EXPECT_EQ(clients_.Find(1), nullptr);
}

TEST_F(ClientTableTest, MayBeClosedByTheAnnouncementOfAClient) {
  on_connected_ = [&](int) {
    listener_.Close();
    clients_.Close();
  };
  RawPeer peer = Connect();
  EXPECT_TRUE(peer.ReadEof());
  EXPECT_EQ(clients_.Find(1), nullptr);
}

TEST_F(ClientTableTest, ReportsAConnectionThatCouldNotBeHad) {
  const mivo_test::StdoutCapture out;
  clients_.OnIncoming(-ECONNABORTED, Endpoint::kLocal);
  EXPECT_EQ(out.Text(), "New client connection error...\n");
  EXPECT_TRUE(connected_.empty());
}

}  // namespace
}  // namespace mivo
