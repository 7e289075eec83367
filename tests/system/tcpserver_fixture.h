// A plain TCP server that serves on a thread of its own, as an application runs one.
#ifndef MIVO_TESTS_SYSTEM_TCPSERVER_FIXTURE_H_
#define MIVO_TESTS_SYSTEM_TCPSERVER_FIXTURE_H_

#include <mivo/tcpserver.h>

#include "support/event.h"
#include "support/raw_client.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <uv.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
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

// Serves on 127.0.0.1 or ::1, on a port that the system picks.
class ServerThread {
 public:
  explicit ServerThread(Transport transport, void (*on_connect)(int) = nullptr) {
    uv_loop_init(&loop_);
    uv_async_init(&loop_, &wake_, [](uv_async_t* wake) { static_cast<ServerThread*>(wake->data)->RunTasks(); });
    wake_.data = this;
    server_.SetConnectCallback(on_connect);
    // The first turn of the loop runs it: listening by then.
    Post([this] {
      port_ = PortOf(server_);
      listening_.Signal();
    });
    thread_ = std::thread([this, transport] {
      result_ = transport == Transport::Tcp6 ? server_.StartTcp6("::1", 0) : server_.StartTcp4("127.0.0.1", 0);
      over_.Signal();
    });
  }

  ~ServerThread() {
    Stop();
    // The server closes what it has, so nothing may be left on its loop.
    EXPECT_EQ(uv_loop_close(&loop_), 0);
  }

  bool WaitUntilListening() { return listening_.WaitFor(); }
  int port() const { return port_; }

  // While the server serves, only in tasks and callbacks.
  CTcpServer& server() { return server_; }

  // True while Start* has not returned.
  bool serving() { return over_.count() == 0; }

  // Runs on the loop's thread; returns when it has run.
  void OnLoop(const std::function<void()>& task) {
    Event done;
    Post([&] {
      task();
      done.Signal();
    });
    done.WaitFor();
  }

  // Ends serving; what Start* returned.
  bool Stop() {
    if (!thread_.joinable()) return result_;
    Post([this] {
      server_.CloseAll();
      uv_close(reinterpret_cast<uv_handle_t*>(&wake_), nullptr);
    });
    thread_.join();
    return result_;
  }

 private:
  void Post(std::function<void()> task) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      tasks_.push_back(std::move(task));
    }
    uv_async_send(&wake_);
  }

  void RunTasks() {
    std::vector<std::function<void()>> tasks;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      tasks.swap(tasks_);
    }
    for (const auto& task : tasks)
      task();
  }

  std::mutex mutex_;
  std::vector<std::function<void()>> tasks_;  // guarded by mutex_
  uv_loop_t loop_ = {};
  uv_async_t wake_ = {};
  CTcpServer server_{&loop_};
  std::atomic<int> port_{-1};
  std::atomic<bool> result_{false};
  Event listening_;
  Event over_;
  std::thread thread_;
};

}  // namespace mivo_test

#endif  // MIVO_TESTS_SYSTEM_TCPSERVER_FIXTURE_H_
