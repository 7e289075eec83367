#include <atomic>
#include <cmath>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>

#include "harness/clock.h"
#include "harness/crew.h"
#include "harness/measures.h"
#include "harness/usage.h"

namespace bench {
namespace {

// Holds back threads that have done their part, so that no connection is closed while the time runs.
class Barrier {
 public:
  void Wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return open_; });
  }
  void Open() {
    const std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
};

// Calls from several threads, on `common` or, where that is null, on a connection for each.
void CallFromMany(const Options& options, const Peer& peer, const std::shared_ptr<Connection>& common,
                  nlohmann::json& result) {
  std::atomic<bool> over{false};
  std::atomic<int> ended{0};
  std::atomic<std::uint64_t> total{0};
  Barrier leave;
  Crew callers(options.threads, [&](int, const std::function<void()>& ready) {
    const std::shared_ptr<Connection> connection = common ? common : peer.connect();
    for (int i = 0; i < 50; ++i)
      connection->Call();
    ready();
    std::uint64_t calls = 0;
    while (!over.load(std::memory_order_relaxed)) {
      connection->Call();
      ++calls;
    }
    total += calls;
    ++ended;
    leave.Wait();
  });
  callers.Start();
  const Usage begin_usage = UsageNow(options.server_pid);
  const std::uint64_t begin = NowNs();
  Sleep(options.seconds);
  over = true;
  while (ended < options.threads)
    Sleep(50e-6);
  const double took = SecondsSince(begin);
  AddUsagePerCall(begin_usage, options.server_pid, static_cast<double>(total), result);
  leave.Open();
  callers.Join();
  result["calls_s"] = std::round(static_cast<double>(total) / took);
  result["threads"] = options.threads;
  result["own_connections"] = common == nullptr;
}

// Whole echoes, timed without the comparing of bytes.
using EchoKind = void (Connection::*)(const std::string&);
void EchoFor(const Options& options, const Peer& peer, EchoKind echo, bool warm_up, nlohmann::json& result) {
  const auto connection = peer.connect();
  const std::string bytes(options.size, 'e');
  connection->Call();
  if (warm_up) ((*connection).*echo)(bytes);
  double took = 0;
  double times = 0;
  const Usage begin = UsageNow(options.server_pid);
  do {
    const std::uint64_t one = NowNs();
    ((*connection).*echo)(bytes);
    took += SecondsSince(one);
    ++times;
  } while (took < options.seconds);
  AddUsagePerCall(begin, options.server_pid, times, result);
  Require(connection->EchoedIs(bytes), "the bytes came back different");
  result["bytes"] = options.size;
  result["echoes"] = times;
  result["mb_s"] = std::round(static_cast<double>(options.size) * times / took / 1e4) / 100;
}

}  // namespace

void MeasureCallers(const Options& options, const Peer& peer, nlohmann::json& result) {
  CallFromMany(options, peer, peer.connect_shared ? peer.connect_shared() : nullptr, result);
}

void MeasureConnections(const Options& options, const Peer& peer, nlohmann::json& result) {
  CallFromMany(options, peer, nullptr, result);
}

void MeasureMany(const Options& options, const Peer& peer, nlohmann::json& result) {
  const std::unique_ptr<Connection> connection = peer.connect();
  connection->CallMany(options.calls);
  std::uint64_t calls = 0;
  const std::uint64_t begin = NowNs();
  do {
    connection->CallMany(options.calls);
    calls += static_cast<std::uint64_t>(options.calls);
  } while (SecondsSince(begin) < options.seconds);
  result["calls_s"] = static_cast<double>(calls) / SecondsSince(begin);
}

void MeasurePosts(const Options& options, const Peer& peer, nlohmann::json& result) {
  const bool shared = options.threads > 1 && peer.connect_shared;
  const std::shared_ptr<Connection> common = shared ? peer.connect_shared() : nullptr;
  const std::shared_ptr<Connection> control = common ? common : peer.connect();
  std::atomic<bool> over{false};
  std::atomic<int> ended{0};
  std::atomic<std::uint64_t> total{0};
  const auto wait_for = [&](std::uint64_t count) {
    while (control->Posted() < count)
      Sleep(200e-6);
  };
  const std::uint64_t before_warm_up = control->Posted();
  constexpr int kWarmUp = 200;
  Barrier leave;
  Crew posters(options.threads, [&](int, const std::function<void()>& ready) {
    const std::shared_ptr<Connection> connection = common ? common : peer.connect();
    for (int i = 0; i < kWarmUp; ++i)
      connection->Post();
    connection->Posted();
    ready();
    std::uint64_t posts = 0;
    while (!over.load(std::memory_order_relaxed)) {
      for (int i = 0; i < 16; ++i)
        connection->Post();
      posts += 16;
    }
    total += posts;
    // A peer that gathers posts has sent them all when this has its answer.
    connection->Posted();
    ++ended;
    leave.Wait();
  });
  std::uint64_t before = before_warm_up + static_cast<std::uint64_t>(kWarmUp * options.threads);
  wait_for(before);
  before = control->Posted();
  posters.Start();
  const Usage begin_usage = UsageNow(options.server_pid);
  const std::uint64_t begin = NowNs();
  Sleep(options.seconds);
  over = true;
  while (ended < options.threads)
    Sleep(50e-6);
  wait_for(before + total);
  const double took = SecondsSince(begin);
  AddUsagePerCall(begin_usage, options.server_pid, static_cast<double>(total), result);
  leave.Open();
  posters.Join();
  result["posts_s"] = std::round(static_cast<double>(total) / took);
  result["threads"] = options.threads;
  result["own_connections"] = !shared;
}

void MeasureEcho(const Options& options, const Peer& peer, nlohmann::json& result) {
  EchoFor(options, peer, &Connection::Echo, true, result);
}

void MeasureEchoLarge(const Options& options, const Peer& peer, nlohmann::json& result) {
  // The largest ones take seconds: once is enough.
  EchoFor(options, peer, &Connection::EchoLarge, options.size <= std::size_t{64} << 20, result);
}

}  // namespace bench
