// All that a client can measure. Each adds its figures to a result; what the figures mean stands in docs/benchmarks.md.
#ifndef MIVO_BENCH_HARNESS_MEASURES_H_
#define MIVO_BENCH_HARNESS_MEASURES_H_

#include <functional>
#include <nlohmann/json_fwd.hpp>

#include "harness/connection.h"
#include "harness/options.h"

namespace bench {

// The one that options.measure names. `hold` is called, and does not return, while the connections of "hold" are open.
void RunMeasure(const Options& options, const Peer& peer, const std::function<void()>& hold, nlohmann::json& result);

// latency.cpp
void MeasureCall(const Options& options, const Peer& peer, nlohmann::json& result);
void MeasureBesideSlow(const Options& options, const Peer& peer, nlohmann::json& result);
void MeasureBesideTravel(const Options& options, const Peer& peer, nlohmann::json& result);
void MeasureBack(const Options& options, const Peer& peer, nlohmann::json& result);
void MeasureBackAfterCall(const Options& options, const Peer& peer, nlohmann::json& result);
// throughput.cpp
void MeasureCallers(const Options& options, const Peer& peer, nlohmann::json& result);
void MeasureConnections(const Options& options, const Peer& peer, nlohmann::json& result);
void MeasureMany(const Options& options, const Peer& peer, nlohmann::json& result);
void MeasurePosts(const Options& options, const Peer& peer, nlohmann::json& result);
void MeasureEcho(const Options& options, const Peer& peer, nlohmann::json& result);
void MeasureEchoLarge(const Options& options, const Peer& peer, nlohmann::json& result);
// opening.cpp
void MeasureOpen(const Options& options, const Peer& peer, nlohmann::json& result);
void MeasureIdle(const Options& options, const Peer& peer, nlohmann::json& result);
void MeasureHold(const Options& options, const Peer& peer, const std::function<void()>& hold);

}  // namespace bench

#endif  // MIVO_BENCH_HARNESS_MEASURES_H_
