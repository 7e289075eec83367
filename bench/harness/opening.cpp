#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "harness/clock.h"
#include "harness/latencies.h"
#include "harness/measures.h"
#include "harness/usage.h"

namespace bench {
namespace {

using Kept = std::vector<std::unique_ptr<Connection>>;

// Outside the time measured. Where closing takes its time, all at once.
void Close(const Peer& peer, Kept& kept) {
  if (!peer.slow_to_close) return kept.clear();
  std::vector<std::thread> threads;
  for (auto& connection : kept)
    threads.emplace_back([&connection] { connection.reset(); });
  for (std::thread& thread : threads)
    thread.join();
  kept.clear();
}

}  // namespace

void MeasureOpen(const Options& options, const Peer& peer, nlohmann::json& result) {
  constexpr std::size_t kTogether = 100;
  Kept kept;
  Latencies latencies;
  double took = 0;
  for (int i = -10; took < options.seconds; ++i) {
    const std::uint64_t begin = NowNs();
    auto connection = peer.connect();
    connection->Call();
    const std::uint64_t end = NowNs();
    kept.push_back(std::move(connection));
    if (i >= 0) {
      latencies.Add(end - begin);
      took += static_cast<double>(end - begin) * 1e-9;
    }
    if (kept.size() == kTogether) Close(peer, kept);
  }
  Close(peer, kept);
  result["opens_s"] = std::round(static_cast<double>(latencies.Count()) / took);
  latencies.Summarise(result);
}

void MeasureHold(const Options& options, const Peer& peer, const std::function<void()>& hold) {
  Kept kept;
  for (int i = 0; i < options.connections; ++i) {
    kept.push_back(peer.connect());
    kept.back()->Call();
  }
  hold();
}

void MeasureIdle(const Options& options, const Peer& peer, nlohmann::json& result) {
  const auto connection = peer.connect();
  connection->Call();
  // Whatever goes on for a while after a call is over then.
  Sleep(0.3);
  const Usage begin = UsageNow(options.server_pid);
  Sleep(1);
  const Usage end = UsageNow(options.server_pid);
  // Without the sleep above and the wait of the server's thread that was asked at its begin.
  result["client_wakeups"] = std::max<std::int64_t>(0, end.client_switches - begin.client_switches - 1);
  result["server_wakeups"] = std::max<std::int64_t>(0, end.server_switches - begin.server_switches - 1);
  result["wakeups"] = result["client_wakeups"].get<int>() + result["server_wakeups"].get<int>();
}

void RunMeasure(const Options& options, const Peer& peer, const std::function<void()>& hold, nlohmann::json& result) {
  using Measure = void (*)(const Options&, const Peer&, nlohmann::json&);
  static const std::map<std::string, Measure> measures = {
      {"call", MeasureCall},
      {"beside_slow", MeasureBesideSlow},
      {"beside_travel", MeasureBesideTravel},
      {"back", MeasureBack},
      {"back_after_call", MeasureBackAfterCall},
      {"callers", MeasureCallers},
      {"connections", MeasureConnections},
      {"many", MeasureMany},
      {"posts", MeasurePosts},
      {"echo", MeasureEcho},
      {"echo_large", MeasureEchoLarge},
      {"open", MeasureOpen},
      {"idle", MeasureIdle},
  };
  if (options.measure == "hold") return MeasureHold(options, peer, hold);
  const auto measure = measures.find(options.measure);
  Require(measure != measures.end(), "no such measure");
  measure->second(options, peer, result);
}

}  // namespace bench
