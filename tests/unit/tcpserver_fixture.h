// A plain TCP server and its loop, turned by the test itself: one thread, no waiting for anybody.
#ifndef MIVO_TESTS_UNIT_TCPSERVER_FIXTURE_H_
#define MIVO_TESTS_UNIT_TCPSERVER_FIXTURE_H_

#include <mivo/tcpserver.h>

#include "support/event.h"
#include "support/raw_client.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <uv.h>

#include <cerrno>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace mivo_test {

inline int PortOf(const CTcpServer& server) {
  sockaddr_storage bound{};
  int size = sizeof bound;
  if (uv_tcp_getsockname(&server.listener, reinterpret_cast<sockaddr*>(&bound), &size) != 0) return -1;
  // The port stands in the same place in both families' addresses.
  return ntohs(reinterpret_cast<const sockaddr_in*>(&bound)->sin_port);
}

inline RawPeer ConnectPeer(int port) {
  return RawPeer::ConnectTo({Transport::Tcp4, "127.0.0.1", std::to_string(port)});
}

class TcpServerTest : public testing::Test {
 protected:
  TcpServerTest() { test_ = this; }
  ~TcpServerTest() override { test_ = nullptr; }

  bool Listen() { return server_.Init() && server_.BindTcp4("127.0.0.1", 0) && server_.Listen(128); }

  // One connected client with its id; the id goes through `connected` as every other.
  std::pair<RawPeer, int> Connect() {
    RawPeer peer = ConnectPeer(PortOf(server_));
    const std::size_t before = connected_.size();
    server_.SetConnectCallback(OnConnect);
    EXPECT_TRUE(TurnUntil([&] { return connected_.size() > before; }));
    return {std::move(peer), connected_.empty() ? -1 : connected_.back()};
  }

  template <typename Condition>
  bool TurnUntil(Condition condition) {
    return Eventually([&] {
      server_.Run(UV_RUN_NOWAIT);
      return condition();
    });
  }

  // Reads while turning the loop; what came when the stream ended or `count` bytes were there.
  std::string Read(RawPeer& peer, std::size_t count) {
    std::string bytes;
    std::vector<char> chunk(1 << 20);
    bool over = false;
    Eventually([&] {
      server_.Run(UV_RUN_NOWAIT);
      for (;;) {
        const ssize_t got = recv(peer.descriptor(), chunk.data(), chunk.size(), MSG_DONTWAIT);
        over = got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR);
        if (got <= 0) break;
        bytes.append(chunk.data(), static_cast<std::size_t>(got));
      }
      return over || bytes.size() >= count;
    });
    return bytes;
  }

  bool SeesTheEnd(RawPeer& peer) { return peer.connected() && Read(peer, 1).empty() && peer.ReadEof(); }

  // To be given to the server. What is to happen in them is put into on_connect_ and on_receive_.
  static void OnConnect(int id) {
    test_->connected_.push_back(id);
    test_->server_.SetRecvCallback(id, OnReceive);
    if (test_->on_connect_) test_->on_connect_(id);
  }

  static void OnReceive(int id, const char* bytes, int count) {
    test_->received_[id].append(bytes, static_cast<std::size_t>(count));
    test_->counts_.push_back(count);
    if (test_->on_receive_) test_->on_receive_(id, bytes, count);
  }

  // Goes after the server.
  struct Loop : uv_loop_t {
    Loop() : uv_loop_t() { uv_loop_init(this); }
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;
    ~Loop() { EXPECT_EQ(uv_loop_close(this), 0) << "something was left on the loop"; }
  };

  Loop loop_;
  CTcpServer server_{&loop_};
  std::vector<int> connected_;
  std::map<int, std::string> received_;
  std::vector<int> counts_;
  std::function<void(int)> on_connect_;
  std::function<void(int, const char*, int)> on_receive_;

 private:
  static inline TcpServerTest* test_ = nullptr;
};

}  // namespace mivo_test

#endif  // MIVO_TESTS_UNIT_TCPSERVER_FIXTURE_H_
