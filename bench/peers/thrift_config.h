// Without it, messages end at 100 MB and frames at 16 MB.
#ifndef MIVO_BENCH_PEERS_THRIFT_CONFIG_H_
#define MIVO_BENCH_PEERS_THRIFT_CONFIG_H_

#include <thrift/TConfiguration.h>

#include <climits>
#include <memory>

namespace bench {

inline std::shared_ptr<apache::thrift::TConfiguration> ThriftConfig() {
  return std::make_shared<apache::thrift::TConfiguration>(INT_MAX, INT_MAX);
}

}  // namespace bench

#endif  // MIVO_BENCH_PEERS_THRIFT_CONFIG_H_
