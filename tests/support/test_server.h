// A server on an address of its own, with handlers made from function objects. Needs the library linked.
#ifndef MIVO_TESTS_SUPPORT_TEST_SERVER_H_
#define MIVO_TESTS_SUPPORT_TEST_SERVER_H_

#include <mivo/mivo.h>

#include "support/handlers.h"
#include "support/journal.h"
#include "support/raw_client.h"
#include "support/transport.h"

#include <string>
#include <utility>

namespace mivo_test {

// Created, not started; destroyed with the object at the latest.
class TestServer {
 public:
  explicit TestServer(Transport transport) : TestServer(FreeAddress(transport)) {}
  explicit TestServer(Address address) : address_(std::move(address)), server_(CreateServer()) {}
  TestServer(const TestServer&) = delete;
  TestServer& operator=(const TestServer&) = delete;
  ~TestServer() { Destroy(); }

  IServer* get() const { return server_; }
  IServer* operator->() const { return server_; }
  const Address& address() const { return address_; }

  // The server owns what is made here; it deletes it when it closes, so only for a server that is going to run.
  void On(const char* name, LambdaMethod::Function function, Deletions* deletions = nullptr) {
    server_->method(name, new LambdaMethod(std::move(function), deletions));
  }
  void OnEveryOther(LambdaMethodAll::Function function, Deletions* deletions = nullptr) {
    server_->methodall(new LambdaMethodAll(std::move(function), deletions));
  }

  bool Init() { return InitServer(server_, address_); }
  bool Start() { return StartServer(server_, address_); }
  RawPeer Connect() const { return RawPeer::ConnectTo(address_); }

  void Destroy() {
    DestroyServer(server_);
    server_ = nullptr;
  }

  // The destruction is left to somebody else.
  IServer* Release() { return std::exchange(server_, nullptr); }

 private:
  const Address address_;
  IServer* server_;
};

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_TEST_SERVER_H_
