// Clients that come, talk and go.
#include "tcpserver_fixture.h"

#include "support/uv_faults.h"

#include <unistd.h>

#include <algorithm>
#include <numeric>

namespace {

using mivo_test::ConnectPeer;
using mivo_test::Fault;
using mivo_test::PortOf;
using mivo_test::RawPeer;
using mivo_test::ScopedFault;

constexpr std::size_t kMiB = 1024 * 1024;

class TcpServer : public mivo_test::TcpServerTest {
 protected:
  TcpServer() { EXPECT_TRUE(Listen()); }
};

std::string Pattern(std::size_t size) {
  std::string text(size, '\0');
  unsigned int state = 12345;
  for (char& byte : text) {
    state = state * 1103515245U + 12345U;
    byte = static_cast<char>(state >> 16);
  }
  return text;
}

TEST_F(TcpServer, GivesEveryClientTheNextNumberOfTheProcess) {
  const int last = CTcpServer::NextClientId();
  auto [first, first_id] = Connect();
  auto [second, second_id] = Connect();
  EXPECT_EQ(first_id, last + 1);
  EXPECT_EQ(second_id, last + 2);
  EXPECT_EQ(CTcpServer::NextClientId(), last + 3);
}

TEST_F(TcpServer, SharesTheNumbersWithEveryOtherServer) {
  static std::vector<int> ids;
  ids.clear();
  CTcpServer other(&loop_);
  ASSERT_TRUE(other.Init() && other.BindTcp4("127.0.0.1", 0) && other.Listen(128));
  other.SetConnectCallback([](int id) { ids.push_back(id); });

  auto [mine, id] = Connect();
  const RawPeer theirs = ConnectPeer(PortOf(other));
  ASSERT_TRUE(TurnUntil([&] { return ids.size() == 1; }));
  EXPECT_EQ(ids[0], id + 1);
}

TEST_F(TcpServer, TellsOfAClientBeforeAnythingOfItIsRead) {
  bool told_first = false;
  on_connect_ = [&](int id) {
    told_first =
        received_[id].empty() && uv_is_active(reinterpret_cast<uv_handle_t*>(server_.clients[id]->handle)) == 0;
  };
  server_.SetConnectCallback(OnConnect);
  RawPeer peer = ConnectPeer(PortOf(server_));
  ASSERT_TRUE(peer.SendBytes("waiting already"));
  ASSERT_TRUE(TurnUntil([&] { return received_.size() == 1 && received_.begin()->second == "waiting already"; }));
  EXPECT_TRUE(told_first);
}

TEST_F(TcpServer, KnowsItsClientsByNumber) {
  auto [peer, id] = Connect();
  ASSERT_EQ(server_.clients.size(), 1u);
  const clientdata* const client = server_.clients.at(id);
  EXPECT_EQ(client->id, id);
  EXPECT_EQ(client->server, &server_);
  EXPECT_EQ(client->handle->data, client);
  EXPECT_EQ(client->readBuf.len, kMiB);
  EXPECT_EQ(client->writeBuf.len, kMiB);
  EXPECT_NE(client->onRecv, nullptr);
}

TEST_F(TcpServer, HandsOverWhatAClientSends) {
  auto [peer, id] = Connect();
  ASSERT_TRUE(peer.SendBytes(std::string("one\0two", 7)));
  ASSERT_TRUE(TurnUntil([&, client = id] { return received_[client].size() >= 7; }));
  EXPECT_EQ(received_[id], std::string("one\0two", 7));
}

TEST_F(TcpServer, KeepsClientsApart) {
  auto [first, first_id] = Connect();
  auto [second, second_id] = Connect();
  ASSERT_TRUE(first.SendBytes("first"));
  ASSERT_TRUE(second.SendBytes("second"));
  ASSERT_TRUE(
      TurnUntil([&, a = first_id, b = second_id] { return received_[a].size() >= 5 && received_[b].size() >= 6; }));
  EXPECT_EQ(received_[first_id], "first");
  EXPECT_EQ(received_[second_id], "second");
  server_.Write(first_id, "to the first", 12);
  server_.Write(second_id, "to the second", 13);
  EXPECT_EQ(Read(first, 12), "to the first");
  EXPECT_EQ(Read(second, 13), "to the second");
}

TEST_F(TcpServer, ReadsAtMostAMebibyteAtATime) {
  // Everything waits in the receive buffer before the first read, as far as the system lets it.
  const std::string sent = Pattern(3 * kMiB);
  auto [peer, id] = Connect();
  const int bytes = 4 * 1024 * 1024;
  setsockopt(peer.descriptor(), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
  std::size_t done = 0;
  ASSERT_TRUE(TurnUntil([&, raw = peer.descriptor(), client = id] {
    const ssize_t now = send(raw, sent.data() + done, sent.size() - done, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (now > 0) done += static_cast<std::size_t>(now);
    return received_[client].size() >= sent.size();
  }));
  EXPECT_TRUE(received_[id] == sent);
  EXPECT_LE(*std::max_element(counts_.begin(), counts_.end()), static_cast<int>(kMiB));
  EXPECT_EQ(std::accumulate(counts_.begin(), counts_.end(), std::size_t{0},
                            [](std::size_t sum, int count) { return sum + static_cast<std::size_t>(count); }),
            sent.size());
}

TEST_F(TcpServer, ReadsEverythingIntoTheOneBufferOfTheClient) {
  auto [peer, id] = Connect();
  const char* seen = nullptr;
  on_receive_ = [&](int, const char* bytes, int) { seen = bytes; };
  ASSERT_TRUE(peer.SendBytes("x"));
  ASSERT_TRUE(TurnUntil([&] { return seen != nullptr; }));
  EXPECT_EQ(seen, server_.clients.at(id)->readBuf.base);
}

TEST_F(TcpServer, ThrowsAwayWhatNobodyWantsToReceive) {
  auto [peer, id] = Connect();
  server_.SetRecvCallback(id, nullptr);
  ASSERT_TRUE(peer.SendBytes(Pattern(64 * 1024)));
  ASSERT_TRUE(TurnUntil([&, handle = server_.clients.at(id)->handle] {
    // Read to the end: the peer has nothing unsent and the server nothing unread.
    uv_os_fd_t descriptor = -1;
    uv_fileno(reinterpret_cast<uv_handle_t*>(handle), &descriptor);
    char byte = 0;
    return recv(descriptor, &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0;
  }));
  server_.Write(id, "still here", 10);
  EXPECT_EQ(Read(peer, 10), "still here");
  EXPECT_TRUE(received_.empty());
}

TEST_F(TcpServer, IgnoresNumbersItDoesNotKnow) {
  auto [peer, id] = Connect();
  server_.SetRecvCallback(id + 1, nullptr);
  server_.Write(id + 1, "lost", 4);
  server_.Write(id, "found", 5);
  EXPECT_EQ(Read(peer, 5), "found");
  ASSERT_TRUE(peer.SendBytes("x"));
  EXPECT_TRUE(TurnUntil([&, client = id] { return received_[client] == "x"; })) << "its own callback was not touched";
  EXPECT_TRUE(server_.lastError.empty());
}

TEST_F(TcpServer, SendsWhatItIsGiven) {
  auto [peer, id] = Connect();
  std::string text("zero\0inside", 11);
  server_.Write(id, text.data(), 11);
  text.assign(11, 'x');  // the bytes were copied
  EXPECT_EQ(Read(peer, 11), std::string("zero\0inside", 11));
}

TEST_F(TcpServer, SendsNothingForNoBytes) {
  auto [peer, id] = Connect();
  server_.Write(id, "", 0);
  server_.Write(id, "text", -1);
  server_.Write(id, nullptr, 4);
  server_.Write(id, "text", 4);
  EXPECT_EQ(Read(peer, 4), "text");
}

TEST_F(TcpServer, SendsAMessageLargerThanItsBuffer) {
  auto [peer, id] = Connect();
  const std::string text = Pattern(3 * kMiB);
  server_.Write(id, text.data(), static_cast<int>(text.size()));
  EXPECT_TRUE(Read(peer, text.size()) == text);
}

TEST_F(TcpServer, GrowsTheWriteBufferToTheLargestMessageAndNeverShrinksIt) {
  auto [peer, id] = Connect();
  const std::string text = Pattern(kMiB + 17);
  server_.Write(id, text.data(), static_cast<int>(text.size()));
  EXPECT_EQ(server_.clients.at(id)->writeBuf.len, kMiB + 17);
  EXPECT_TRUE(Read(peer, text.size()) == text);
  const char* const grown = server_.clients.at(id)->writeBuf.base;
  server_.Write(id, "small", 5);
  EXPECT_EQ(Read(peer, 5), "small");
  EXPECT_EQ(server_.clients.at(id)->writeBuf.len, kMiB + 17);
  EXPECT_EQ(server_.clients.at(id)->writeBuf.base, grown);
}

// Large enough that the system cannot take it all: a part stays with the library.
constexpr std::size_t kTooMuchAtOnce = 24 * kMiB;

TEST_F(TcpServer, OverwritesAMessageThatIsNotThroughWithTheNext) {
  auto [peer, id] = Connect();
  const std::string first(kTooMuchAtOnce, 'a');
  const std::string second(kTooMuchAtOnce, 'b');
  server_.Write(id, first.data(), static_cast<int>(first.size()));
  auto* const stream = reinterpret_cast<uv_stream_t*>(server_.clients.at(id)->handle);
  const std::size_t left = uv_stream_get_write_queue_size(stream);
  ASSERT_GT(left, 0u);
  server_.Write(id, second.data(), static_cast<int>(second.size()));
  const std::string seen = Read(peer, 2 * kTooMuchAtOnce);
  EXPECT_TRUE(seen == std::string(kTooMuchAtOnce - left, 'a') + std::string(left + kTooMuchAtOnce, 'b'));
}

TEST_F(TcpServer, KeepsAMessageThatIsNotThroughFromALargerOne) {
  auto [peer, id] = Connect();
  const std::string first(kTooMuchAtOnce, 'a');
  const std::string second(kTooMuchAtOnce + 1, 'b');
  const std::string third(kTooMuchAtOnce + 2, 'c');
  auto* const stream = reinterpret_cast<uv_stream_t*>(server_.clients.at(id)->handle);
  server_.Write(id, first.data(), static_cast<int>(first.size()));
  ASSERT_GT(uv_stream_get_write_queue_size(stream), 0u);
  server_.Write(id, second.data(), static_cast<int>(second.size()));
  server_.Write(id, third.data(), static_cast<int>(third.size()));
  EXPECT_EQ(server_.clients.at(id)->writeBuf.len, third.size());
  const std::string seen = Read(peer, first.size() + second.size() + third.size());
  EXPECT_TRUE(seen == first + second + third);
}

TEST_F(TcpServer, SendsAPartOfItsOwnBuffer) {
  auto [peer, id] = Connect();
  server_.Write(id, "0123456789", 10);
  EXPECT_EQ(Read(peer, 10), "0123456789");
  server_.Write(id, server_.clients.at(id)->writeBuf.base + 2, 8);
  EXPECT_EQ(Read(peer, 8), "23456789");
}

TEST_F(TcpServer, ClosesAClient) {
  auto [peer, id] = Connect();
  auto [other, other_id] = Connect();
  EXPECT_TRUE(server_.CloseClient(id));
  EXPECT_EQ(server_.clients.count(id), 0u);
  EXPECT_TRUE(SeesTheEnd(peer));
  server_.Write(other_id, "alive", 5);
  EXPECT_EQ(Read(other, 5), "alive");
  EXPECT_TRUE(server_.lastError.empty());
}

TEST_F(TcpServer, DoesNotFindAClientThatIsClosed) {
  auto [peer, id] = Connect();
  ASSERT_TRUE(server_.CloseClient(id));
  EXPECT_FALSE(server_.CloseClient(id));
  EXPECT_EQ(server_.lastError, "can't find client " + std::to_string(id));
  EXPECT_FALSE(server_.CloseClient(-7));
  EXPECT_EQ(server_.lastError, "can't find client -7");
}

TEST_F(TcpServer, ForgetsAClientThatHasGone) {
  auto [peer, id] = Connect();
  peer.Close();
  ASSERT_TRUE(TurnUntil([&] { return server_.clients.empty(); }));
  EXPECT_FALSE(server_.CloseClient(id));
  EXPECT_EQ(server_.lastError, "can't find client " + std::to_string(id));
}

TEST_F(TcpServer, ForgetsAClientThatResets) {
  auto [peer, id] = Connect();
  peer.Reset();
  ASSERT_TRUE(TurnUntil([&] { return server_.clients.empty(); }));
  auto [next, next_id] = Connect();
  EXPECT_GT(next_id, id);
}

TEST_F(TcpServer, ForgetsAClientThatHasSentItsLastByte) {
  auto [peer, id] = Connect();
  ASSERT_TRUE(peer.SendBytes("last"));
  peer.HalfClose();
  ASSERT_TRUE(TurnUntil([&] { return server_.clients.empty(); }));
  EXPECT_EQ(received_[id], "last");
  EXPECT_TRUE(SeesTheEnd(peer));
}

TEST_F(TcpServer, MayCloseAClientInItsOwnReceiveCallback) {
  auto [peer, id] = Connect();
  on_receive_ = [&](int client, const char*, int) {
    EXPECT_TRUE(server_.CloseClient(client));
    server_.Write(client, "too late", 8);
    EXPECT_FALSE(server_.CloseClient(client));
  };
  ASSERT_TRUE(peer.SendBytes("close me"));
  EXPECT_TRUE(SeesTheEnd(peer));
  EXPECT_EQ(received_[id], "close me");
}

TEST_F(TcpServer, MayCloseOtherClientsInAReceiveCallback) {
  auto [peer, id] = Connect();
  auto [other, other_id] = Connect();
  on_receive_ = [&, victim = other_id](int, const char*, int) { EXPECT_TRUE(server_.CloseClient(victim)); };
  ASSERT_TRUE(other.SendBytes("unread"));
  ASSERT_TRUE(peer.SendBytes("x"));
  ASSERT_TRUE(TurnUntil([&, victim = other_id] { return server_.clients.count(victim) == 0; }));
  on_receive_ = nullptr;
  server_.Write(id, "alive", 5);
  EXPECT_EQ(Read(peer, 5), "alive");
}

TEST_F(TcpServer, MayCloseAClientInTheConnectCallback) {
  on_connect_ = [&](int id) { EXPECT_TRUE(server_.CloseClient(id)); };
  auto [peer, id] = Connect();
  EXPECT_TRUE(SeesTheEnd(peer));
  EXPECT_TRUE(server_.clients.empty());
  EXPECT_TRUE(server_.lastError.empty());
  on_connect_ = nullptr;
  auto [next, next_id] = Connect();
  server_.Write(next_id, "welcome", 7);
  EXPECT_EQ(Read(next, 7), "welcome");
}

TEST_F(TcpServer, MayWriteInTheConnectCallback) {
  on_connect_ = [&](int id) { server_.Write(id, "hello", 5); };
  auto [peer, id] = Connect();
  EXPECT_EQ(Read(peer, 5), "hello");
}

TEST_F(TcpServer, EndsAllAndListensNoMoreOnCloseAll) {
  // A port that nobody else takes once it is free again.
  const int port = mivo_test::FreePort(mivo_test::Transport::Tcp4);
  server_.CloseAll();
  ASSERT_TRUE(server_.Init());
  ASSERT_TRUE(server_.BindTcp4("127.0.0.1", port));
  ASSERT_TRUE(server_.Listen(128));
  auto [first, first_id] = Connect();
  auto [second, second_id] = Connect();
  server_.CloseAll();
  EXPECT_TRUE(server_.clients.empty());
  EXPECT_FALSE(server_.initialised);
  EXPECT_TRUE(first.ReadEof());
  EXPECT_TRUE(second.ReadEof());
  const RawPeer late =
      RawPeer::ConnectTo({mivo_test::Transport::Tcp4, "127.0.0.1", std::to_string(port)}, std::chrono::milliseconds(0));
  EXPECT_FALSE(late.connected());
}

TEST_F(TcpServer, MayCloseAllInAReceiveCallback) {
  auto [peer, id] = Connect();
  auto [other, other_id] = Connect();
  on_receive_ = [&](int, const char*, int) { server_.CloseAll(); };
  ASSERT_TRUE(peer.SendBytes("stop"));
  ASSERT_TRUE(TurnUntil([&] { return !server_.initialised; }));
  EXPECT_TRUE(SeesTheEnd(peer));
  EXPECT_TRUE(SeesTheEnd(other));
}

TEST_F(TcpServer, MayCloseAllInTheConnectCallback) {
  on_connect_ = [&](int) { server_.CloseAll(); };
  auto [peer, id] = Connect();
  EXPECT_TRUE(SeesTheEnd(peer));
  EXPECT_FALSE(server_.initialised);
}

TEST_F(TcpServer, GoesOnAfterAConnectionThatCannotBeAccepted) {
  const ScopedFault fault(Fault::kAccept, 1, 1, UV_ECONNABORTED);
  RawPeer lost = ConnectPeer(PortOf(server_));
  EXPECT_TRUE(SeesTheEnd(lost));
  EXPECT_TRUE(server_.clients.empty());
  auto [peer, id] = Connect();
  server_.Write(id, "hello", 5);
  EXPECT_EQ(Read(peer, 5), "hello");
  EXPECT_EQ(fault.failures(), 1);
}

TEST_F(TcpServer, GoesOnAfterAConnectionItHasNoHandleFor) {
  const ScopedFault fault(Fault::kTcpInit, 1, 1, UV_ENOMEM);
  RawPeer lost = ConnectPeer(PortOf(server_));
  EXPECT_TRUE(SeesTheEnd(lost));
  EXPECT_EQ(fault.failures(), 1);
  auto [peer, id] = Connect();
  server_.Write(id, "hello", 5);
  EXPECT_EQ(Read(peer, 5), "hello");
}

TEST_F(TcpServer, EndsAConnectionItCannotReadFrom) {
  const ScopedFault fault(Fault::kReadStart, 1, 1, UV_ENOTCONN);
  auto [peer, id] = Connect();
  EXPECT_TRUE(SeesTheEnd(peer));
  EXPECT_TRUE(server_.clients.empty());
  EXPECT_EQ(fault.failures(), 1);
}

TEST_F(TcpServer, UsesUpANumberForAnErrorOfTheListener) {
  const int last = CTcpServer::NextClientId();
  server_.SetConnectCallback(OnConnect);
  server_.listener.connection_cb(reinterpret_cast<uv_stream_t*>(&server_.listener), UV_EPROTO);
  EXPECT_TRUE(connected_.empty());
  auto [peer, id] = Connect();
  EXPECT_EQ(id, last + 2);
}

TEST_F(TcpServer, HasNoErrorAtFirst) {
  EXPECT_TRUE(server_.lastError.empty());
}

}  // namespace
