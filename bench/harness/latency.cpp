#include <atomic>
#include <cmath>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>

#include "harness/clock.h"
#include "harness/crew.h"
#include "harness/latencies.h"
#include "harness/measures.h"
#include "harness/usage.h"

namespace bench {
namespace {

constexpr int kWarmUp = 500;
// How long slow handlers sleep: anything up to this, so that they do not fall into step.
constexpr unsigned kSlowestUs = 300;

void WarmUp(Connection& connection, int calls = kWarmUp) {
  for (int i = 0; i < calls; ++i)
    connection.Call();
}

// Small calls, one after the other, until `enough`; what was used is told per call.
void TimeCalls(const Options& options, Connection& connection, const std::function<bool(std::size_t)>& enough,
               nlohmann::json& result) {
  Latencies latencies;
  const Usage begin = UsageNow(options.server_pid);
  std::uint64_t last = NowNs();
  do {
    connection.Call();
    const std::uint64_t now = NowNs();
    latencies.Add(now - last);
    last = now;
  } while (!enough(latencies.Count()));
  AddUsagePerCall(begin, options.server_pid, static_cast<double>(latencies.Count()), result);
  latencies.Summarise(result);
}

std::function<bool(std::size_t)> AsLongAs(const Options& options) {
  const std::uint64_t begin = NowNs();
  return [&options, begin](std::size_t calls) {
    return options.calls > 0 ? calls >= static_cast<std::size_t>(options.calls) : SecondsSince(begin) > options.seconds;
  };
}

}  // namespace

void MeasureCall(const Options& options, const Peer& peer, nlohmann::json& result) {
  const auto connection = peer.connect();
  WarmUp(*connection);
  TimeCalls(options, *connection, AsLongAs(options), result);
}

void MeasureBesideSlow(const Options& options, const Peer& peer, nlohmann::json& result) {
  std::atomic<bool> over{false};
  Crew slow(options.threads, [&](int number, const std::function<void()>& ready) {
    const auto connection = peer.connect();
    std::minstd_rand random(static_cast<unsigned>(number) + 1);
    connection->Slow(0);
    ready();
    while (!over)
      connection->Slow(static_cast<unsigned>(random()) % kSlowestUs);
  });
  slow.Start();
  const auto connection = peer.connect();
  WarmUp(*connection, 50);
  TimeCalls(options, *connection, AsLongAs(options), result);
  over = true;
  slow.Join();
  result["slow_handlers"] = options.threads;
}

void MeasureBesideTravel(const Options& options, const Peer& peer, nlohmann::json& result) {
  const bool shared = static_cast<bool>(peer.connect_shared);
  const std::shared_ptr<Connection> common = shared ? peer.connect_shared() : nullptr;
  std::atomic<bool> over{false};
  double took = 0;
  Crew traveller(1, [&](int, const std::function<void()>& ready) {
    const std::shared_ptr<Connection> connection = common ? common : peer.connect();
    const std::string bytes(options.size, 't');
    connection->Call();
    ready();
    const std::uint64_t begin = NowNs();
    connection->EchoLarge(bytes);
    took = SecondsSince(begin);
    over = true;
    Require(connection->EchoedIs(bytes), "the bytes that travelled came back different");
  });
  const std::shared_ptr<Connection> connection = common ? common : peer.connect();
  WarmUp(*connection);
  traveller.Start();
  TimeCalls(
      options, *connection, [&](std::size_t) { return over.load(); }, result);
  traveller.Join();
  result["own_connections"] = !shared;
  result["travel_mb_s"] = std::round(static_cast<double>(options.size) / took / 1e6);
}

void MeasureBack(const Options& options, const Peer& peer, nlohmann::json& result) {
  const auto connection = peer.connect();
  connection->Call();
  connection->BackCalls(50);
  connection->BackTimes();
  const Usage begin = UsageNow(options.server_pid);
  connection->BackCalls(static_cast<unsigned>(options.seconds * 1e3));
  Latencies latencies;
  const std::string times = connection->BackTimes();
  AddUsagePerCall(begin, options.server_pid, static_cast<double>(times.size()) / sizeof(std::uint32_t), result);
  latencies.AddAll(times);
  latencies.Summarise(result);
}

void MeasureBackAfterCall(const Options& options, const Peer& peer, nlohmann::json& result) {
  const auto connection = peer.connect();
  for (int i = 0; i < 50; ++i) {
    connection->Call();
    connection->CallMeBack();
  }
  connection->BackTimes();
  const auto enough = AsLongAs(options);
  std::size_t calls = 0;
  do {
    connection->Call();
    connection->CallMeBack();
  } while (!enough(++calls));
  Latencies latencies;
  latencies.AddAll(connection->BackTimes());
  // The last one's time may not be in yet when its call has been answered.
  Require(latencies.Count() + 1 >= calls, "a call from the server is missing");
  latencies.Summarise(result);
}

}  // namespace bench
