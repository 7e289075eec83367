// The times of many calls, and what is told of them.
#ifndef MIVO_BENCH_HARNESS_LATENCIES_H_
#define MIVO_BENCH_HARNESS_LATENCIES_H_

#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace bench {

class Latencies {
 public:
  Latencies();
  void Add(std::uint64_t ns) { ns_.push_back(static_cast<std::uint32_t>(ns < UINT32_MAX ? ns : UINT32_MAX)); }
  // As Connection::BackTimes delivers them.
  void AddAll(const std::string& times);
  std::size_t Count() const { return ns_.size(); }
  // Adds calls, p50_us, p99_us, p999_us, mean_us and quantiles_us: the values at the positions that the report draws.
  // Throws where there is none.
  void Summarise(nlohmann::json& result);

 private:
  std::vector<std::uint32_t> ns_;
};

}  // namespace bench

#endif  // MIVO_BENCH_HARNESS_LATENCIES_H_
