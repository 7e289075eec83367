// A client with handlers made from function objects, and calls that wait on threads of their own. Needs the library
// linked.
#ifndef MIVO_TESTS_SUPPORT_TEST_CLIENT_H_
#define MIVO_TESTS_SUPPORT_TEST_CLIENT_H_

#include <mivo/mivo.h>

#include "support/event.h"
#include "support/handlers.h"
#include "support/raw_client.h"
#include "support/raw_server.h"
#include "support/reply.h"
#include "support/sanitizers.h"
#include "support/teardown.h"
#include "support/test_server.h"
#include "support/thread_id.h"
#include "support/transport.h"

#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <utility>

namespace mivo_test {

inline int SetLog(IClient* client, std::string text, int level) {
  return client->log(text.data(), level);
}
inline int SetLog(IServer* server, std::string text, int level) {
  return server->log(text.data(), level);
}

// Connects to a server driven by hand and gives back the server's end; not connected() when Init failed. `check` (may
// be null) receives the version check.
inline RawPeer InitAgainst(IClient* client, RawServer& server, std::string* check = nullptr) {
  RawPeer peer;
  std::thread answering([&] { peer = server.AcceptAndAnswerHandshake(check); });
  const bool connected = InitClient(client, server.address());
  answering.join();
  return connected ? std::move(peer) : RawPeer();
}

// Destroyed with the object at the latest.
class TestClient {
 public:
  TestClient() : client_(CreateClient()) {}
  TestClient(const TestClient&) = delete;
  TestClient& operator=(const TestClient&) = delete;
  ~TestClient() { Destroy(); }

  IClient* get() const { return client_; }
  IClient* operator->() const { return client_; }

  // The client owns what is made here.
  void On(const char* name, LambdaMethod::Function function, Deletions* deletions = nullptr) {
    client_->method(name, new LambdaMethod(std::move(function), deletions));
  }

  bool Init(const Address& address) { return InitClient(client_, address); }
  RawPeer InitAgainst(RawServer& server, std::string* check = nullptr) {
    return mivo_test::InitAgainst(client_, server, check);
  }

  Reply Call(const char* name, MIVOParams* params = nullptr, int key = 0, int timeout = 0) {
    return Reply(client_->SendMsgFast(name, params, key, timeout));
  }

  void Destroy() {
    DestroyClient(client_);
    client_ = nullptr;
  }

  // The destruction is left to somebody else.
  IClient* Release() { return std::exchange(client_, nullptr); }

 private:
  IClient* client_;
};

// The code of an error set of the library's own, which is the caller's and freed here; 0 for a reply.
inline int TakeError(MIVOParams* set) {
  if (set == nullptr) {
    ADD_FAILURE() << "a call returned null";
    return 0;
  }
  const MIVOValue* const code = set->GetMap("errorCode");
  if (set->ParamsSize() != 0 || set->MapSize() != 1 || code == nullptr || !code->IsInt()) return 0;
  const int number = code->GetInt();
  delete set;
  return number;
}

// The positional int of a reply; nothing where there is none. Frees error sets.
inline std::optional<int> TakeInt(MIVOParams* set, int index = 0) {
  if (TakeError(set) != 0) return std::nullopt;
  const MIVOValue* const value = set->GetValue(index);
  if (value == nullptr || !value->IsInt()) return std::nullopt;
  return value->GetInt();
}

// A call made on a thread of its own.
class PendingCall {
 public:
  explicit PendingCall(std::function<MIVOParams*()> call)
      : result_(std::async(std::launch::async, [call = std::move(call), this] {
          MIVOParams* const set = call();
          elapsed_ms_ = watch_.ElapsedMs();
          return set;
        })) {}

  bool IsDone() { return result_.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }

  // Once; null (which no call returns) when it does not come back within the patience.
  MIVOParams* Wait(std::chrono::milliseconds patience = kPatience) {
    if (result_.wait_for(patience) != std::future_status::ready) return nullptr;
    return result_.get();
  }

  // How long the call took; after Wait.
  long long elapsed_ms() const { return elapsed_ms_; }

 private:
  const Stopwatch watch_;
  long long elapsed_ms_ = -1;
  std::future<MIVOParams*> result_;
};

// What the process uses once libuv has taken what it keeps for good, its pool and its own descriptors.
inline Resources CountResourcesWhenWarm() {
  {
    TestServer server(Transport::Local);
    SetLog(server.get(), "", 0);
    server.On("name", [](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(1); });
    TestClient client;
    SetLog(client.get(), "", 0);
    if (!server.Init() || !client.Init(server.address()) || TakeInt(client->SendMsg("name", nullptr, 0, 0)) != 1) {
      ADD_FAILURE() << "a plain call does not work";
    }
  }
  // Threads that were joined are listed for a moment longer: the count is taken when it has stood still for a while.
  Resources now = CountResources();
  int steady = 0;
  Eventually(
      [&] {
        const Resources last = std::exchange(now, CountResources());
        steady = last.threads == now.threads && last.descriptors == now.descriptors ? steady + 1 : 0;
        return steady >= 10;
      },
      std::chrono::milliseconds(5000));
  return now;
}

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_TEST_CLIENT_H_
