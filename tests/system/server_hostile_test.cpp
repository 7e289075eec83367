// Peers that mean harm, or are broken. Whatever they send, the server lives and another client is served meanwhile.
#include <mivo/mivo.h>

#include "support/event.h"
#include "support/output_channel.h"
#include "support/raw_client.h"
#include "support/stdout_capture.h"
#include "support/teardown.h"
#include "support/test_server.h"
#include "support/transport.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <cstdint>
#include <random>
#include <string>
#include <thread>
#include <vector>

using namespace mivo_test;

namespace {

// The same sequence on every run; a failure names the seed.
class Dice {
 public:
  explicit Dice(unsigned seed) : engine_(seed) {}

  int Roll(int below) { return static_cast<int>(engine_() % static_cast<unsigned>(below)); }

  std::string Bytes(std::size_t count) {
    std::string bytes(count, '\0');
    for (char& byte : bytes)
      byte = static_cast<char>(engine_());
    return bytes;
  }

 private:
  std::mt19937 engine_;
};

// One record of any kind, well-formed at its place.
void AddRecord(Wire* wire, Dice* dice) {
  switch (dice->Roll(6)) {
    case 0:
      wire->Int(dice->Roll(INT_MAX) - INT_MAX / 2);
      break;
    case 1:
      wire->Bool(dice->Roll(2) == 1);
      break;
    case 2:
      wire->Double(dice->Roll(1000) / 3.0);
      break;
    case 3:
      wire->String(dice->Bytes(static_cast<std::size_t>(dice->Roll(20))));
      break;
    case 4:
      wire->Stream(dice->Bytes(static_cast<std::size_t>(dice->Roll(40))));
      break;
    default:
      wire->List(2).Int(1).Int(2);
      break;
  }
}

class HostilePeers : public testing::TestWithParam<Transport> {
 protected:
  void SetUp() override {
    server_.On("echo", [](int, MIVOParams* request, MIVOParams* reply) {
      MIVOValue* const value = request->GetValue(0);
      if (value != nullptr && value->IsInt()) reply->AddInt(value->GetInt());
    });
    server_->log(nullptr, 0);
    ASSERT_TRUE(server_.Init());
    honest_ = server_.Connect();
    ASSERT_TRUE(honest_.connected());
  }

  // The client that is served all the while, by the loop and by the pool.
  void ExpectStillServing() {
    const int number = ++asked_;
    ASSERT_EQ(honest_.Exchange(Request({"echo", number, Wire().Int(number).bytes(), "0x1"})),
              ServerReply(Wire().Int(number), number, "0x1"));
    ASSERT_TRUE(honest_.AnswersInOrder());
  }

  // What the peers cause is printed into nowhere; the tests look at what is served.
  StdoutCapture output_;
  TestServer server_{GetParam()};
  RawPeer honest_;
  int asked_ = 0;
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, HostilePeers, kEveryTransport, TransportName);

TEST_P(HostilePeers, RandomBytes) {
  for (unsigned seed = 1; seed <= 100; ++seed) {
    Dice dice(seed);
    RawPeer peer = server_.Connect();
    // The server may end such a connection at any byte.
    for (int i = 0; i < 5; ++i)
      peer.SendBytes(dice.Bytes(static_cast<std::size_t>(1 + dice.Roll(3000))));
    if (seed % 10 == 0) ExpectStillServing();
  }
  ExpectStillServing();
}

TEST_P(HostilePeers, LinesThatNobodyReads) {
  OutputChannel out(Channel::Pipe);
  out.Fill();
  RawPeer peer = server_.Connect();
  // Each four of them are an empty frame, which is good for a line.
  const bool sent = peer.SendBytes(std::string(32768, '\0'));
  const bool taken = peer.WaitUntilTaken();
  const auto answer = honest_.Exchange(Request({"echo", 1, Wire().Int(1).bytes(), "0x1"}));
  const bool in_order = peer.AnswersInOrder();
  // Only now is there room for what the test has to say.
  const std::string lines = out.ReadUntil("event empty!\n");
  EXPECT_TRUE(sent && taken && in_order);
  EXPECT_EQ(answer, ServerReply(Wire().Int(1), 1, "0x1"));
  EXPECT_NE(lines.find("event empty!\n"), std::string::npos);
}

TEST_P(HostilePeers, RandomPayloadsInWellFormedFrames) {
  RawPeer peer = server_.Connect();
  for (unsigned seed = 1; seed <= 1000; ++seed) {
    Dice dice(seed);
    ASSERT_TRUE(peer.SendFrame(dice.Bytes(static_cast<std::size_t>(dice.Roll(200)))));
    if (seed % 100 == 0) ExpectStillServing();
  }
  // Nothing of it was a request: not even this connection has suffered.
  EXPECT_TRUE(peer.AnswersInOrder());
}

TEST_P(HostilePeers, RequestsWithAnyByteChanged) {
  const std::string request = Request({"echo", 9, Wire().Int(1).List(2).Int(2).String("x").bytes(), "0x1"});
  for (std::size_t at = 0; at < request.size(); ++at) {
    RawPeer peer = server_.Connect();
    for (const int change : {1, 0x80, 0xFF}) {
      std::string changed = request;
      changed[at] = static_cast<char>(changed[at] ^ change);
      ASSERT_TRUE(peer.SendFrame(changed)) << "byte " << at;
    }
    peer.HalfClose();
    if (at % 25 == 0) ExpectStillServing();
  }
  ExpectStillServing();
}

TEST_P(HostilePeers, RequestsCutAtAnyByte) {
  const std::string request = Request({"echo", 9, Wire().Int(1).List(2).Int(2).String("x").bytes(), "0x1"});
  RawPeer peer = server_.Connect();
  int answers = 0;
  for (std::size_t size = 0; size <= request.size(); ++size) {
    // Read before the next is sent, so that answers do not pile up.
    ASSERT_TRUE(peer.SendFrame(request.substr(0, size)));
    ASSERT_TRUE(peer.SendFrame(Request({"s_c_close_server", 5})));
    for (;;) {
      const auto reply = peer.ReadFrame();
      ASSERT_TRUE(reply.has_value()) << "cut at " << size;
      if (*reply == ServerReply(Wire().Bool(true), 5, std::nullopt)) break;
      ++answers;
    }
  }
  // The pool's answers to the last few may still be on their way; the name alone makes a request.
  EXPECT_GT(answers, 10);
  ExpectStillServing();
}

TEST_P(HostilePeers, AnyLengthInTheHeader) {
  for (const std::int32_t length : {-1, -2, -4, -5, INT_MIN, INT_MIN + 1, INT_MIN + 4, INT_MAX, INT_MAX - 3,
                                    INT_MAX - 4, INT_MAX - 5, 0x7FFF0000, 0x01000000}) {
    for (const std::size_t behind : {0u, 1u, 4u, 100u}) {
      RawPeer peer = server_.Connect();
      ASSERT_TRUE(peer.SendBytes(LittleEndian(length) + std::string(behind, '\0')));
      ASSERT_TRUE(length < 0 ? peer.ReadEof() : peer.WaitUntilTaken()) << length << " and " << behind;
    }
  }
  ExpectStillServing();
}

TEST_P(HostilePeers, EnvelopeValuesOfEveryWrongType) {
  RawPeer peer = server_.Connect();
  for (unsigned seed = 1; seed <= 500; ++seed) {
    Dice dice(seed);
    Wire wire;
    for (const char* key : {"s_c_sw_name", "s_c_sw_threadid", "s_c_sw_data", "s_c_sw_semid", "s_c_largedata"}) {
      if (dice.Roll(4) == 0) continue;
      wire.Key(key);
      AddRecord(&wire, &dice);
      if (dice.Roll(3) == 0) AddRecord(&wire, &dice);
    }
    ASSERT_TRUE(peer.SendFrame(wire)) << "seed " << seed;
    if (seed % 100 == 0) ExpectStillServing();
  }
  ExpectStillServing();
}

TEST_P(HostilePeers, BuiltInNamesWithAnyArguments) {
  for (const char* name : {"s_c_version", "s_c_connect", "s_c_closed", "s_c_close_server", "s_c_log", "s_c_createport",
                           "s_c_buildin_closed", "s_c_largedata", "retval"}) {
    RawPeer peer = server_.Connect();
    for (unsigned seed = 1; seed <= 50; ++seed) {
      Dice dice(seed);
      Wire data;
      for (int i = dice.Roll(4); i > 0; --i)
        AddRecord(&data, &dice);
      ASSERT_TRUE(peer.SendFrame(Request({name, dice.Roll(100), data.bytes(), std::to_string(dice.Roll(100))})));
    }
    ExpectStillServing();
  }
}

TEST_P(HostilePeers, SlicesThatAreNone) {
  RawPeer peer = server_.Connect();
  for (unsigned seed = 1; seed <= 200; ++seed) {
    Dice dice(seed);
    Wire slice;
    if (dice.Roll(2) == 0) slice.KeyBool("s_c_largedata", true);
    if (dice.Roll(4) != 0) slice.KeyInt("s_c_sw_threadid", dice.Roll(5));
    // More is to come, always: nothing is ever complete, and nothing has to be sent back.
    slice.Int(INT_MAX);
    AddRecord(&slice, &dice);
    ASSERT_TRUE(peer.SendFrame(Request({dice.Roll(2) == 0 ? "s_c_req_body" : "s_c_req_header", 1, slice.bytes()})));
    ASSERT_TRUE(peer.ReadFrame().has_value()) << "seed " << seed;
  }
  ExpectStillServing();
}

TEST_P(HostilePeers, ListsThatAnnounceBillionsOfElements) {
  RawPeer peer = server_.Connect();
  const Stopwatch watch;
  for (int i = 0; i < 200; ++i) {
    const std::string data = Wire().List(INT_MAX).Raw(i % 2 == 0 ? "\x07" : "\x09");
    const std::string map = Wire().ListMap(INT_MAX).Raw("\x01");
    ASSERT_TRUE(peer.SendFrame(Request({"echo", 1, i % 3 == 0 ? data : map})));
    ASSERT_TRUE(peer.ReadFrame().has_value());
  }
  EXPECT_LT(watch.ElapsedMs(), kPatience.count()) << "an announced count costs no time";
  ExpectStillServing();
}

TEST_P(HostilePeers, ThousandsOfUnfinishedFrames) {
  constexpr int kPeers = 400;
  const std::string frame = Frame(Request({"echo", 9, Wire().Int(1).bytes(), "0x1"}));
  for (int round = 0; round < 5; ++round) {
    std::vector<RawPeer> peers;
    for (int i = 0; i < kPeers; ++i) {
      peers.push_back(server_.Connect());
      const std::size_t cut = 1 + static_cast<std::size_t>(i) % (frame.size() - 1);
      ASSERT_TRUE(peers.back().SendBytes(frame.substr(0, cut)));
    }
    ExpectStillServing();
    for (std::size_t i = 0; i < peers.size(); i += 2)
      peers[i].Reset();
    ExpectStillServing();
  }
}

TEST_P(HostilePeers, OneByteWritesByManyAtATime) {
  constexpr int kPeers = 8;
  const std::string frame = Frame(Request({"echo", 9, Wire().Int(1).bytes(), "0x1"}));
  std::vector<RawPeer> peers;
  for (int i = 0; i < kPeers; ++i)
    peers.push_back(server_.Connect());
  for (std::size_t at = 0; at < frame.size(); ++at) {
    for (RawPeer& peer : peers)
      ASSERT_TRUE(peer.SendBytes(frame.substr(at, 1)));
    // Bytes that arrive together are one chunk, and a chunk that looks like a whole frame is taken for one.
    for (RawPeer& peer : peers)
      ASSERT_TRUE(peer.WaitUntilTaken());
    if (at % 20 == 0) ExpectStillServing();
  }
  for (RawPeer& peer : peers)
    EXPECT_EQ(peer.ReadFrame(), ServerReply(Wire().Int(1), 9, "0x1"));
}

TEST_P(HostilePeers, AFloodOfConnections) {
  constexpr int kConnections = 2000;
  std::atomic<bool> stop{false};
  std::thread flood([&] {
    for (int i = 0; i < kConnections && !stop; ++i) {
      RawPeer peer = server_.Connect();
      if (!peer.connected()) break;
      if (i % 2 == 0) peer.SendBytes("\x10");
      peer.Reset();
    }
    stop = true;
  });
  do {
    ExpectStillServing();
  } while (!stop && !HasFatalFailure());
  stop = true;
  flood.join();
  ExpectStillServing();
}

TEST_P(HostilePeers, APeerThatAsksAndNeverReads) {
  // Every answer is 1 MB; they have to wait on the server's side, while others are served.
  TestServer server(GetParam());
  server.On("much", [](int, MIVOParams*, MIVOParams* reply) {
    const std::string bytes(1 << 20, 'x');
    reply->AddStream(bytes.data(), static_cast<long>(bytes.size()));
  });
  server->log(nullptr, 0);
  ASSERT_TRUE(server.Init());
  RawPeer greedy = server.Connect();
  for (int i = 0; i < 50; ++i)
    ASSERT_TRUE(greedy.SendFrame(Request({"much", i})));
  RawPeer other = server.Connect();
  for (int i = 0; i < 10; ++i)
    EXPECT_EQ(other.Exchange(Request({"x", i})), ServerReply(Wire().String("no event: x"), i, std::nullopt));
  greedy.Reset();
  EXPECT_TRUE(other.AnswersInOrder());
}

TEST_P(HostilePeers, RepliesToCallsNobodyMade) {
  RawPeer peer = server_.Connect();
  const std::vector<std::string> tokens{
      "0x1", "0x0", "0", "", "0xffffffffffffffffff", "nonsense", "-1", "0x7ffd0000dead", std::string(5000, 'f')};
  for (int i = 0; i < 2000; ++i) {
    ASSERT_TRUE(
        peer.SendFrame(ClientReply(Wire().Int(i), i % 7 - 3, tokens[static_cast<std::size_t>(i) % tokens.size()])));
  }
  EXPECT_TRUE(peer.AnswersInOrder());
  ExpectStillServing();
}

// A call of the server waits for one client; another one answers it with tokens it can only guess, and with the right
// key. Who is asked is answered for by nobody else's wake-up.
TEST_P(HostilePeers, AForeignTokenWakesNobody) {
  std::atomic<int> asked_id{0};
  Event connected;
  TestServer server(GetParam());
  server.On("s_c_connect", [&](int id, MIVOParams*, MIVOParams*) {
    if (connected.count() == 0) asked_id = id;
    connected.Signal();
  });
  server->log(nullptr, 0);
  ASSERT_TRUE(server.Init());
  RawPeer asked = server.Connect();
  ASSERT_TRUE(connected.WaitFor(1));
  RawPeer forger = server.Connect();
  ASSERT_TRUE(connected.WaitFor(2));
  std::atomic<bool> returned{false};
  std::string answer;
  std::thread caller([&] {
    MIVOParams* const reply = server->SendMsg(asked_id, "question", nullptr, 31, INT_MAX);
    if (reply != nullptr && reply->ParamsSize() > 0) answer = reply->GetValue(0)->GetString();
    returned = true;
  });
  const auto question = asked.ReadFrame();
  ASSERT_TRUE(question.has_value());
  const std::string token = TextOf(*question, "s_c_sw_semid").value_or("");
  for (const std::string& forged : {std::string("0x1"), std::string("0x0"), token + "0", std::string("1") + token,
                                    token.substr(0, token.size() - 1)}) {
    EXPECT_TRUE(forger.SendFrame(ClientReply(Wire().String("forged"), 32, forged)));
  }
  EXPECT_TRUE(forger.AnswersInOrder());
  EXPECT_FALSE(returned);
  EXPECT_TRUE(asked.SendFrame(ClientReply(Wire().String("true"), 31, token)));
  caller.join();
  EXPECT_EQ(answer, "true");
}

TEST_P(HostilePeers, DeeplyNestedMessagesInMessages) {
  // A slice whose whole is itself a call of the slice receiver, and so on.
  std::string whole = Request({"echo", 1});
  for (int depth = 0; depth < 300; ++depth) {
    whole = Wire()
                .KeyString("s_c_sw_name", "s_c_req_body")
                .KeyInt("s_c_sw_threadid", depth)
                .Int(static_cast<int>(whole.size()))
                .Stream(whole);
  }
  RawPeer peer = server_.Connect();
  ASSERT_TRUE(peer.SendFrame(Request({"s_c_req_body", 1,
                                      Wire()
                                          .KeyBool("s_c_largedata", true)
                                          .KeyInt("s_c_sw_threadid", 1)
                                          .Int(static_cast<int>(whole.size()))
                                          .Stream(whole)
                                          .bytes()})));
  // Results are sent back to this peer in calls that it does not answer; it leaves.
  ASSERT_TRUE(peer.WaitReadable());
  peer.Close();
  ExpectStillServing();
}

TEST_P(HostilePeers, SeveralKindsAtATime) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> attackers;
  for (unsigned attacker = 0; attacker < 3; ++attacker) {
    attackers.emplace_back([this, attacker, &stop] {
      Dice dice(1000 + attacker);
      while (!stop) {
        RawPeer peer = server_.Connect();
        for (int i = 0; i < 20 && !stop; ++i) {
          const std::string request = Request({"echo", i, Wire().Int(i).bytes(), "0x1"});
          switch (dice.Roll(5)) {
            case 0:
              peer.SendBytes(dice.Bytes(50));
              break;
            case 1:
              peer.SendFrame(dice.Bytes(50));
              break;
            case 2:
              peer.SendBytes(Frame(request).substr(0, static_cast<std::size_t>(dice.Roll(60))));
              break;
            case 3:
              peer.SendFrame(ClientReply("", i, "0x1"));
              break;
            default:
              peer.SendFrame(request);
              break;
          }
        }
        if (dice.Roll(2) == 0) peer.Reset();
      }
    });
  }
  for (int i = 0; i < 100 && !HasFatalFailure(); ++i)
    ExpectStillServing();
  stop = true;
  for (std::thread& attacker : attackers)
    attacker.join();
  ExpectStillServing();
}

}  // namespace
