// Peers whose messages need more memory than the process may have: their connection may end, nobody else's does.
#include <mivo/mivo.h>

#include "support/child_program.h"
#include "support/large_peer.h"
#include "support/many_records.h"
#include "support/raw_server.h"
#include "support/reply.h"
#include "support/sanitizers.h"
#include "support/slices.h"
#include "support/test_client.h"
#include "support/test_server.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <vector>

using namespace mivo_test;

namespace {

constexpr rlim_t kLimitBytes = 700u * 1024 * 1024;
constexpr std::size_t kMegabyte = 1024 * 1024;

bool LimitMemory() {
  const rlimit limit{kLimitBytes, kLimitBytes};
  return setrlimit(RLIMIT_AS, &limit) == 0;
}

void WaitForTheEndOfInput() {
  char byte = 0;
  while (read(STDIN_FILENO, &byte, 1) > 0) {
  }
}

// Ends with 0 when its input ends.
const Role kServerWithLittleMemory("a server with little memory", [](const std::string& name) {
  if (!LimitMemory()) return 1;
  TestServer server({Transport::Local, "", name});
  SetLog(server.get(), "", 0);
  server.On("count", [](int, MIVOParams* request, MIVOParams* reply) { reply->AddInt(request->ParamsSize()); });
  server.On("call back", [raw = server.get()](int id, MIVOParams*, MIVOParams* reply) {
    try {
      raw->SendMsg(id, "question", nullptr, 3, 60000);
    } catch (const std::bad_alloc&) {
      reply->AddString("no memory");
    }
  });
  if (!server.Init()) return 2;
  WaitForTheEndOfInput();
  return 0;
});

// Calls once, then ends with 0 when its input ends.
const Role kClientWithLittleMemory("a client with little memory", [](const std::string& name) {
  if (!LimitMemory()) return 1;
  TestClient client;
  SetLog(client.get(), "", 0);
  client.On("count", [](int, MIVOParams* request, MIVOParams* reply) { reply->AddInt(request->ParamsSize()); });
  if (!client.Init({Transport::Local, "", name})) return 2;
  try {
    Reply(client->SendMsg("f", nullptr, 3, 60000));
  } catch (const std::bad_alloc&) {
  }
  std::printf("returned\n");
  std::fflush(stdout);
  WaitForTheEndOfInput();
  return 0;
});

class LittleMemory : public testing::Test {
 protected:
  void SetUp() override {
    if (kSanitized) GTEST_SKIP() << "the sanitizers' own memory does not fit below a limit";
  }

  // Waits until something comes back, the end of the connection included.
  static bool IsDealtWith(RawPeer* peer) { return peer->WaitReadable(std::chrono::milliseconds(60000)); }
};

class ServerWithLittleMemory : public LittleMemory {
 protected:
  void SetUp() override {
    LittleMemory::SetUp();
    if (IsSkipped()) return;
    address_ = FreeAddress(Transport::Local);
    program_.emplace(StartRole("a server with little memory", address_.name));
    neighbour_ = Connect();
    ExpectServed("before");
  }
  void TearDown() override {
    if (!program_) return;
    program_->io().HalfClose();
    EXPECT_EQ(program_->Wait(), 0);
  }

  RawPeer Connect() const { return RawPeer::ConnectTo(address_, std::chrono::milliseconds(10000)); }

  void ExpectServed(const std::string& when) {
    const std::string request = Request({"count", 1, Wire().Int(1).Int(2).bytes(), "0x1"});
    const std::string reply = ServerReply(Wire().Int(2), 1, "0x1");
    ASSERT_EQ(neighbour_.Exchange(request), reply) << when << ", who was connected";
    ASSERT_EQ(Connect().Exchange(request), reply) << when << ", a newcomer";
  }

  Address address_;
  std::optional<ChildProgram> program_;
  RawPeer neighbour_;
};

TEST_F(ServerWithLittleMemory, OutlivesArgumentsThatDoNotFit) {
  for (const std::size_t megabytes : {26u, 60u}) {
    for (const std::string& bomb : {EmptyLists(megabytes * kMegabyte), Bools(megabytes * kMegabyte)}) {
      RawPeer peer = Connect();
      peer.SendFrame(Request({"count", 9, bomb, "0x9"}));
      ASSERT_TRUE(IsDealtWith(&peer));
      peer.Close();
      ASSERT_NO_FATAL_FAILURE(ExpectServed("after " + std::to_string(megabytes) + " MB"));
    }
  }
}

TEST_F(ServerWithLittleMemory, OutlivesSeveralAtOnce) {
  const std::string request = Request({"count", 9, EmptyLists(26 * kMegabyte), "0x9"});
  std::vector<RawPeer> peers;
  for (int i = 0; i < 4; ++i)
    peers.push_back(Connect());
  std::vector<std::thread> senders;
  for (RawPeer& peer : peers)
    senders.emplace_back([&] { peer.SendFrame(request); });
  for (std::thread& sender : senders)
    sender.join();
  for (RawPeer& peer : peers)
    ASSERT_TRUE(IsDealtWith(&peer));
  peers.clear();
  ExpectServed("afterwards");
}

TEST_F(ServerWithLittleMemory, OutlivesAVersionCheckThatDoesNotFit) {
  RawPeer peer = Connect();
  peer.SendFrame(Request({"s_c_version", 9, EmptyLists(40 * kMegabyte), "0x9"}));
  ASSERT_TRUE(IsDealtWith(&peer));
  ExpectServed("afterwards");
}

TEST_F(ServerWithLittleMemory, OutlivesALargeMessageThatDoesNotFit) {
  RawPeer peer = Connect();
  for (const std::string& slice : SliceRequests(9, Whole(EmptyLists(40 * kMegabyte), "count", 9), kMegabyte)) {
    if (!peer.SendFrame(slice) || !IsDealtWith(&peer) || !peer.ReadFrame()) break;
  }
  ExpectServed("afterwards");
}

TEST_F(ServerWithLittleMemory, OutlivesAReplyThatDoesNotFit) {
  RawPeer peer = Connect();
  ASSERT_TRUE(peer.SendFrame(Request({"call back", 9, std::nullopt, "0x9"})));
  const std::string question = peer.ReadFrame().value_or("");
  peer.SendFrame(ClientReply(EmptyLists(60 * kMegabyte), 3, TextOf(question, "s_c_sw_semid")));
  ASSERT_TRUE(IsDealtWith(&peer));
  ExpectServed("afterwards");
}

TEST_F(ServerWithLittleMemory, OutlivesAFrameThatDoesNotFit) {
  RawPeer peer = Connect();
  const std::string some(kMegabyte, 'x');
  bool is_open = peer.SendBytes(LittleEndian(0x40000000));
  for (int megabytes = 0; is_open && megabytes < 1024; ++megabytes)
    is_open = peer.SendBytes(some);
  EXPECT_FALSE(is_open) << "a gigabyte was taken by a process that may have 700 MB";
  ASSERT_NO_FATAL_FAILURE(ExpectServed("afterwards"));
  program_->io().HalfClose();
  EXPECT_EQ(program_->Wait(), 0);
  EXPECT_NE(program_->ReadOutput(), "") << "the end of the connection is told";
  program_.reset();
}

class ClientWithLittleMemory : public LittleMemory {
 protected:
  void SetUp() override {
    LittleMemory::SetUp();
    if (IsSkipped()) return;
    program_.emplace(StartRole("a client with little memory", server_.address().name));
    peer_ = server_.AcceptAndAnswerHandshake();
    request_ = peer_.ReadFrame().value_or("");
    ASSERT_EQ(TextOf(request_, "s_c_sw_name"), "f");
  }
  void ExpectItReturnsAndLives() {
    // The end of a connection is told before.
    std::string printed;
    while (printed.find("returned\n") == std::string::npos) {
      const std::optional<std::string> byte = program_->io().ReadBytes(1);
      ASSERT_TRUE(byte) << printed;
      printed += *byte;
    }
    program_->io().HalfClose();
    EXPECT_EQ(program_->Wait(), 0);
  }

  RawServer server_{Transport::Local};
  std::optional<ChildProgram> program_;
  RawPeer peer_;
  std::string request_;
};

TEST_F(ClientWithLittleMemory, OutlivesAReplyThatDoesNotFit) {
  peer_.SendFrame(ServerReply(EmptyLists(60 * kMegabyte), 3, TextOf(request_, "s_c_sw_semid")));
  ExpectItReturnsAndLives();
}

TEST_F(ClientWithLittleMemory, OutlivesArgumentsThatDoNotFit) {
  peer_.SendFrame(Request({"count", 9, EmptyLists(60 * kMegabyte), "0x9"}));
  ASSERT_TRUE(IsDealtWith(&peer_));
  // Its connection may have ended, and its call with it; if not, the call is answered.
  peer_.SendFrame(ServerReply("", 3, TextOf(request_, "s_c_sw_semid")));
  ExpectItReturnsAndLives();
}

}  // namespace
