#include <mivo/mivo.h>

#include "support/background.h"
#include "support/event.h"
#include "support/raw_served_client.h"
#include "support/sanitizers.h"
#include "support/slices.h"
#include "support/teardown.h"
#include "support/test_client.h"
#include "support/test_server.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

using namespace mivo_test;

namespace {

// Over all tests of this file together, a million.
constexpr int kCallsOfAllTests = 1000000 / kScaledown;
constexpr int kTests = 6;
constexpr int kCallsOfATest = kCallsOfAllTests / kTests + 1;

constexpr int kPatient = 120000;  // time-out of calls that must be answered
// Of large calls: a broken one is never answered, and keeps the others waiting.
constexpr int kLargePatient = 5000 * kSlowdown;
constexpr int kServerThreads = 4;

// One call in so many is made to time out, or is a post or a large one instead.
constexpr int kOneIsLate = 500;
constexpr int kOneIsAPost = 10;
constexpr int kOneIsLarge = 1000;

// What the callers of one side saw.
struct Seen {
  std::atomic<long> calls{0};
  std::atomic<long> right{0};
  std::atomic<long> foreign{0};
  std::atomic<long> lost{0};
  std::atomic<long> late{0};          // calls made to time out
  std::atomic<long> late_answers{0};  // and answered all the same
};

// Handlers that answer after their callers have gone.
class Latecomers {
 public:
  // Handler: returns when the caller of call `number` has gone.
  void WaitUntilGone(int number) {
    Eventually([&] { return gone_.at(static_cast<std::size_t>(number)).load(); });
  }
  int NewNumber() { return next_++; }
  void Gone(int number) { gone_.at(static_cast<std::size_t>(number)) = true; }

 private:
  std::vector<std::atomic<bool>> gone_ = std::vector<std::atomic<bool>>(100000);
  std::atomic<int> next_{0};
};

// Sums that tell whether everything that was sent arrived once.
struct Tally {
  std::atomic<long> count{0};
  std::atomic<std::uint64_t> sum{0};
  void Add(int thread, int nonce) {
    ++count;
    sum += static_cast<std::uint64_t>(thread) * 1000000007u + static_cast<std::uint64_t>(nonce);
  }
};

// Clients, and threads on each.
using Crowd = std::tuple<Transport, int, int>;

class Identity : public testing::TestWithParam<Crowd> {
 protected:
  Transport transport() const { return std::get<0>(GetParam()); }
  int clients() const { return std::get<1>(GetParam()); }
  int threads() const { return std::get<2>(GetParam()); }

  void Echo(Tally* tally, MIVOParams* request, MIVOParams* reply) {
    const int thread = IntAt(request, 0).value_or(-1);
    const int nonce = IntAt(request, 1).value_or(-1);
    tally->Add(thread, nonce);
    reply->AddInt(thread);
    reply->AddInt(nonce);
  }
  void Late(MIVOParams* request, MIVOParams* reply) {
    latecomers_.WaitUntilGone(IntAt(request, 2).value_or(0));
    reply->AddInt(IntAt(request, 0).value_or(-1));
    reply->AddInt(IntAt(request, 1).value_or(-1));
  }

  void Judge(const MIVOParams* reply, int thread, int nonce, Seen* seen) {
    ++seen->calls;
    if (reply == nullptr || IntUnder(reply, "errorCode")) {
      ++seen->lost;
    } else if (IntAt(reply, 0) == thread && IntAt(reply, 1) == nonce) {
      ++seen->right;
    } else {
      ++seen->foreign;
    }
  }

  void ClientThread(IClient* client, int thread, int calls) {
    for (int nonce = 1; nonce <= calls; ++nonce) {
      MIVOParams params;
      params.AddInt(thread);
      params.AddInt(nonce);
      if (nonce % kOneIsAPost == 0) {
        posted_.Add(thread, nonce);
        client->PostMsgFast("post", &params, 0);
      }
      if (nonce % kOneIsLate == thread) {
        const int number = latecomers_.NewNumber();
        params.AddInt(number);
        const Reply reply(client->SendMsgFast("late", &params, 0, 1));
        ++from_clients_.late;
        if (reply.error() != kNoReply) ++from_clients_.late_answers;
        latecomers_.Gone(number);
      } else if (nonce % kOneIsLarge == thread + 37) {
        // Under a key that is never used again: what is left of a broken transfer stays under it.
        const std::string bytes = Pattern(50000 + static_cast<std::size_t>(thread));
        params.AddStream(bytes.data(), static_cast<long>(bytes.size()));
        const Reply reply(client->SendMsgEx("large", &params, ++next_key_, kLargePatient));
        ++large_;
        // A slice that takes more than half a second may break a transfer, so that nothing comes, or bytes in the wrong
        // order that are no set; none may bring another's bytes.
        if (reply.error() == kNoReply || !reply->ToParams()) {
          ++large_lost_;
        } else if (StreamAt(reply.get(), 0) == bytes && IntAt(reply.get(), 1) == thread) {
          ++large_right_;
        }
      } else {
        sent_.Add(thread, nonce);
        const Reply reply(client->SendMsgFast("echo", &params, 0, kPatient));
        Judge(reply.get(), thread, nonce, &from_clients_);
      }
    }
  }

  void ServerThread(int thread, int calls) {
    for (int nonce = 1; nonce <= calls; ++nonce) {
      const int id = ids_[static_cast<std::size_t>(nonce) % ids_.size()];
      MIVOParams params;
      params.AddInt(thread);
      params.AddInt(nonce);
      if (nonce % kOneIsAPost == 0) {
        posted_back_.Add(thread, nonce);
        server_->PostMsg(id, "post", &params, 0);
      }
      if (nonce % kOneIsLate == thread) {
        const int number = latecomers_.NewNumber();
        params.AddInt(number);
        // Where none comes, a server returns what is stored under the key: an older reply to the same thread, or the
        // answer to its post.
        const MIVOParams* const reply = server_->SendMsg(id, "late", &params, 0, 0);
        ++from_server_.late;
        const int newest = nonce % kOneIsAPost == 0 ? nonce : nonce - 1;
        if (reply != nullptr && (IntAt(reply, 0) != thread || IntAt(reply, 1).value_or(nonce) > newest)) {
          ++from_server_.late_answers;
        }
        latecomers_.Gone(number);
      } else {
        sent_back_.Add(thread, nonce);
        Judge(server_->SendMsg(id, "echo", &params, 0, kPatient), thread, nonce, &from_server_);
      }
    }
  }

  void Expect(const char* who, const Seen& seen) {
    EXPECT_EQ(seen.foreign, 0) << who;
    EXPECT_EQ(seen.lost, 0) << who;
    EXPECT_EQ(seen.right, seen.calls) << who;
    EXPECT_EQ(seen.late_answers, 0) << who;
  }
  void ExpectEqual(const char* what, const Tally& sent, const Tally& arrived) {
    EXPECT_TRUE(Eventually([&] { return arrived.count >= sent.count; })) << what;
    EXPECT_EQ(arrived.count, sent.count) << what;
    EXPECT_EQ(arrived.sum, sent.sum) << what;
  }

  Latecomers latecomers_;
  std::atomic<int> next_key_{0x10000000};
  Seen from_clients_;
  Seen from_server_;
  std::atomic<int> large_{0};
  std::atomic<int> large_right_{0};
  std::atomic<int> large_lost_{0};
  Tally sent_, arrived_, posted_, posts_arrived_;
  Tally sent_back_, arrived_back_, posted_back_, posts_back_arrived_;
  std::vector<int> ids_;
  TestServer server_{transport()};
};

std::string CrowdName(const testing::TestParamInfo<Crowd>& info) {
  const int clients = std::get<1>(info.param);
  return Name(std::get<0>(info.param)) + std::to_string(clients) + (clients == 1 ? "Client" : "Clients");
}

INSTANTIATE_TEST_SUITE_P(OfAMillionCalls, Identity,
                         testing::Combine(kEveryTransport, testing::Values(1, 8), testing::Values(16)), CrowdName);

TEST_P(Identity, EveryCallGetsItsOwnReplyOnceAndNoneIsLost) {
  Journal connected;
  server_.On("s_c_connect", [&](int id, MIVOParams*, MIVOParams*) { connected.Add(std::to_string(id)); });
  server_.On("echo", [&](int, MIVOParams* request, MIVOParams* reply) { Echo(&arrived_, request, reply); });
  server_.On("post", [&](int, MIVOParams* request, MIVOParams* reply) { Echo(&posts_arrived_, request, reply); });
  server_.On("late", [&](int, MIVOParams* request, MIVOParams* reply) { Late(request, reply); });
  server_.On("large", [&](int, MIVOParams* request, MIVOParams* reply) {
    const std::string bytes = StreamAt(request, 2).value_or("");
    reply->AddStream(bytes.data(), static_cast<long>(bytes.size()));
    reply->AddInt(IntAt(request, 0).value_or(-1));
  });
  ASSERT_TRUE(server_.Init());
  std::vector<std::unique_ptr<TestClient>> crowd;
  for (int i = 0; i < clients(); ++i) {
    crowd.push_back(std::make_unique<TestClient>());
    TestClient& client = *crowd.back();
    client.On("echo", [&](int, MIVOParams* request, MIVOParams* reply) { Echo(&arrived_back_, request, reply); });
    client.On("post", [&](int, MIVOParams* request, MIVOParams* reply) { Echo(&posts_back_arrived_, request, reply); });
    client.On("late", [&](int, MIVOParams* request, MIVOParams* reply) { Late(request, reply); });
    ASSERT_TRUE(client.Init(server_.address()));
  }
  for (const std::string& id : connected.lines())
    ids_.push_back(std::stoi(id));
  ASSERT_EQ(ids_.size(), crowd.size());

  const int client_calls = kCallsOfATest * 3 / 4 / threads();
  const int server_calls = kCallsOfATest / 4 / kServerThreads + 16;
  const Stopwatch watch;
  {
    std::vector<std::unique_ptr<Background<int>>> callers;
    for (int thread = 0; thread < threads(); ++thread) {
      IClient* const client = crowd[static_cast<std::size_t>(thread % clients())]->get();
      callers.push_back(std::make_unique<Background<int>>([=] {
        ClientThread(client, thread, client_calls);
        return 0;
      }));
    }
    for (int thread = 0; thread < kServerThreads; ++thread) {
      callers.push_back(std::make_unique<Background<int>>([=] {
        ServerThread(100 + thread, server_calls);
        return 0;
      }));
    }
  }
  const long long elapsed_ms = watch.ElapsedMs();

  Expect("from clients", from_clients_);
  Expect("from the server", from_server_);
  ExpectEqual("calls of clients", sent_, arrived_);
  ExpectEqual("posts of clients", posted_, posts_arrived_);
  ExpectEqual("calls of the server", sent_back_, arrived_back_);
  ExpectEqual("posts of the server", posted_back_, posts_back_arrived_);
  EXPECT_EQ(large_right_ + large_lost_, large_) << "large calls with foreign content";
  EXPECT_GT(large_right_, 0);
  const long calls = from_clients_.calls + from_clients_.late + large_ + from_server_.calls + from_server_.late;
  std::fprintf(stderr,
               "%ld calls (%ld from the server), %ld posts, %d large (%d broken off), %ld late in %lld ms: %ld "
               "foreign, %ld lost, "
               "%ld late ones answered\n",
               calls, from_server_.calls.load(), posted_.count + posted_back_.count, large_.load(), large_lost_.load(),
               from_clients_.late + from_server_.late, elapsed_ms, from_clients_.foreign + from_server_.foreign,
               from_clients_.lost + from_server_.lost, from_clients_.late_answers + from_server_.late_answers);
}

}  // namespace
