// Clients of the library for tests, their replies, and calls that wait in the background. Needs the library linked.
#ifndef MIVO_TESTS_SUPPORT_TEST_CLIENT_H_
#define MIVO_TESTS_SUPPORT_TEST_CLIENT_H_

#include <mivo/mivo.h>

#include "support/event.h"
#include "support/handlers.h"
#include "support/raw_server.h"
#include "support/transport.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>

namespace mivo_test {

inline int ThreadId() {
  return static_cast<int>(syscall(SYS_gettid));
}

// ---- What a parameter set holds; nothing where it is missing or of another type. Null sets hold nothing.
// --------------

inline std::optional<int> IntAt(const MIVOParams* set, int index) {
  MIVOValue* const value = set == nullptr ? nullptr : set->GetValue(index);
  if (value == nullptr || !value->IsInt()) return std::nullopt;
  return value->GetInt();
}

inline std::optional<int> IntUnder(const MIVOParams* set, const char* key) {
  MIVOValue* const value = set == nullptr ? nullptr : set->GetMap(key);
  if (value == nullptr || !value->IsInt()) return std::nullopt;
  return value->GetInt();
}

inline std::optional<std::string> TextAt(const MIVOParams* set, int index) {
  MIVOValue* const value = set == nullptr ? nullptr : set->GetValue(index);
  if (value == nullptr || !value->IsString()) return std::nullopt;
  return value->GetString();
}

inline std::optional<std::string> TextUnder(const MIVOParams* set, const char* key) {
  MIVOValue* const value = set == nullptr ? nullptr : set->GetMap(key);
  if (value == nullptr || !value->IsString()) return std::nullopt;
  return value->GetString();
}

inline std::optional<std::string> StreamAt(const MIVOParams* set, int index) {
  MIVOValue* const value = set == nullptr ? nullptr : set->GetValue(index);
  if (value == nullptr || !value->IsStream()) return std::nullopt;
  long length = 0;
  const char* const bytes = value->GetStream(length);
  return std::string(bytes, static_cast<std::size_t>(length));
}

// ---- A client's result
// ------------------------------------------------------------------------------------------------

// Frees the sets that belong to the caller: those that hold an error code and nothing else. The others may be gone by
// the time this one ends.
class Reply {
 public:
  Reply() = default;
  explicit Reply(MIVOParams* set) : set_(set), error_(IntUnder(set, "errorCode")) {
    if (error_ && set->MapSize() == 1 && set->ParamsSize() == 0) own_.reset(set);
  }

  MIVOParams* get() const { return set_; }
  MIVOParams* operator->() const { return set_; }
  std::optional<int> error() const { return error_; }

 private:
  MIVOParams* set_ = nullptr;
  std::optional<int> error_;
  std::unique_ptr<MIVOParams> own_;
};

constexpr int kNotConnected = -1000;
constexpr int kNoReply = -1001;

// ---- In the background
// ------------------------------------------------------------------------------------------------

// Runs the function on a thread of its own. Destroyed, it waits for the end.
template <typename Result>
class Background {
 public:
  template <typename Function>
  explicit Background(Function function)
      : thread_([this, function = std::move(function)] {
          thread_id_ = ThreadId();
          started_.Signal();
          const Stopwatch watch;
          result_ = function();
          elapsed_ms_ = watch.ElapsedMs();
          done_.Signal();
        }) {
    started_.WaitFor();
  }
  Background(const Background&) = delete;
  Background& operator=(const Background&) = delete;
  ~Background() { Join(); }

  int thread_id() const { return thread_id_; }
  bool IsDone() { return done_.count() > 0; }
  bool WaitFor(std::chrono::milliseconds patience = kPatience) { return done_.WaitFor(1, patience); }

  // Wait for the end.
  Result& Get() {
    Join();
    return result_;
  }
  long long ElapsedMs() {
    Join();
    return elapsed_ms_;
  }

 private:
  void Join() {
    if (thread_.joinable()) thread_.join();
  }

  Event started_;
  Event done_;
  int thread_id_ = 0;
  Result result_{};
  long long elapsed_ms_ = 0;
  std::thread thread_;
};

// ---- Clients
// ----------------------------------------------------------------------------------------------------------

// Created, not connected; destroyed with the object at the latest.
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

  void Destroy() {
    DestroyClient(client_);
    client_ = nullptr;
  }

  Reply Call(const char* name, MIVOParams* params = nullptr, int key = 0, int timeout = 0) {
    return Reply(client_->SendMsgFast(name, params, key, timeout));
  }

 private:
  IClient* client_;
};

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

#endif  // MIVO_TESTS_SUPPORT_TEST_CLIENT_H_
