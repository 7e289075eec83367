#include "harness/latencies.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <nlohmann/json.hpp>
#include <numeric>

#include "harness/connection.h"

namespace bench {
namespace {

// report.py knows the same list.
constexpr double kDrawn[] = {0, 0.01, 0.05, 0.1, 0.25, 0.5, 0.75, 0.9, 0.95, 0.98, 0.99, 0.995, 0.998, 0.999, 0.9999};

}  // namespace

Latencies::Latencies() {
  // No page faults and no copying while it is measured.
  ns_.resize(1 << 20);
  ns_.clear();
}

void Latencies::AddAll(const std::string& times) {
  const std::size_t old_size = ns_.size();
  ns_.resize(old_size + times.size() / sizeof(std::uint32_t));
  if (ns_.size() > old_size) std::memcpy(&ns_[old_size], times.data(), (ns_.size() - old_size) * sizeof(std::uint32_t));
}

void Latencies::Summarise(nlohmann::json& result) {
  Require(!ns_.empty(), "nothing was measured");
  std::sort(ns_.begin(), ns_.end());
  const auto at = [this](double quantile) {
    const auto position = static_cast<std::size_t>(static_cast<double>(ns_.size()) * quantile);
    return std::round(ns_[std::min(position, ns_.size() - 1)] / 10.0) / 100;
  };
  result["calls"] = ns_.size();
  result["p50_us"] = at(0.5);
  result["p99_us"] = at(0.99);
  result["p999_us"] = at(0.999);
  const double sum = std::accumulate(ns_.begin(), ns_.end(), 0.0);
  result["mean_us"] = std::round(sum / static_cast<double>(ns_.size()) / 10) / 100;
  auto& drawn = result["quantiles_us"] = nlohmann::json::array();
  for (const double quantile : kDrawn)
    drawn.push_back(at(quantile));
}

}  // namespace bench
