// What is sent in a notice, on the object's own loop thread, is on its way when the operation returns.
#include <mivo/mivo.h>

#include "support/event.h"
#include "support/reply.h"
#include "support/sanitizers.h"
#include "support/test_client.h"
#include "support/test_server.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>

using namespace mivo_test;

namespace {

constexpr std::chrono::milliseconds kSoon{5000 * kSlowdown};

class NoticeSends : public testing::TestWithParam<Transport> {
 protected:
  // The first client is the one that is sent to; the notice is the second one's.
  void Expect(const char* notice, const std::function<void(IServer*, int id)>& send) {
    std::atomic<int> id{0};
    std::atomic<int> connects{0};
    Event sent;
    Event arrived;
    Event left;
    bool in_time = false;
    TestServer server(GetParam());
    SetLog(server.get(), "", 0);
    const auto send_and_wait = [&, raw = server.get()] {
      send(raw, id);
      sent.Signal();
      in_time = arrived.WaitFor(1, kSoon);
      left.Signal();
    };
    const bool at_connect = std::string(notice) == "s_c_connect";
    server.On("s_c_connect", [&, at_connect](int client, MIVOParams*, MIVOParams*) {
      if (++connects == 1) {
        id = client;
      } else if (at_connect) {
        send_and_wait();
      }
    });
    server.On("s_c_closed", [&, at_connect](int client, MIVOParams*, MIVOParams*) {
      if (client != id && !at_connect) send_and_wait();
    });
    ASSERT_TRUE(server.Init());
    RawPeer receiver = server.Connect();
    ASSERT_TRUE(receiver.AnswersInOrder());
    RawPeer other = server.Connect();
    if (!at_connect) {
      ASSERT_TRUE(other.AnswersInOrder());
      other.Close();
    }
    ASSERT_TRUE(sent.WaitFor());
    const auto frame = receiver.ReadFrame(kSoon);
    arrived.Signal();
    ASSERT_TRUE(left.WaitFor());
    EXPECT_EQ(TextOf(frame.value_or(""), "s_c_sw_name"), "from the notice") << "nothing arrived during the notice";
    EXPECT_TRUE(in_time);
    server.Destroy();
  }
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, NoticeSends, kEveryTransport, TransportName);

TEST_P(NoticeSends, APostInTheNoticeOfAnEnd) {
  Expect("s_c_closed", [](IServer* server, int id) { server->PostMsg(id, "from the notice", nullptr, 5); });
}

TEST_P(NoticeSends, APostInTheNoticeOfANewcomer) {
  Expect("s_c_connect", [](IServer* server, int id) { server->PostMsg(id, "from the notice", nullptr, 5); });
}

TEST_P(NoticeSends, ACallInTheNoticeOfAnEnd) {
  Expect("s_c_closed",
         [](IServer* server, int id) { EXPECT_EQ(server->SendMsg(id, "from the notice", nullptr, 5, 1000), nullptr); });
}

TEST_P(NoticeSends, ACallInTheNoticeOfANewcomer) {
  Expect("s_c_connect",
         [](IServer* server, int id) { EXPECT_EQ(server->SendMsg(id, "from the notice", nullptr, 5, 1000), nullptr); });
}

}  // namespace
