// Clients that reconnect, and a server that is killed.
#ifndef MIVO_TESTS_SYSTEM_RPC_RECONNECT_H_
#define MIVO_TESTS_SYSTEM_RPC_RECONNECT_H_

#include <mivo/rpc.h>

#include "support/child_program.h"
#include "support/event.h"
#include "support/sanitizers.h"
#include "support/transport.h"

#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace mivo_test {

// Within which the next call is answered, from when there is a server.
constexpr long long kBackWithinMs = 500 * kSlowdown;
// By which a call may outlast its deadline, see mivo::Deadline.
constexpr long long kOverrunMs = 600 * kSlowdown;

inline std::string RpcAddress(const Address& address) {
  switch (address.transport) {
    case Transport::Tcp4:
      return "tcp:" + address.host + ":" + address.name;
    case Transport::Tcp6:
      return "tcp:[" + address.host + "]:" + address.name;
    case Transport::Local:
      break;
  }
  return "unix:" + address.name;
}

// With the usual pauses of local sockets, on every transport.
inline mivo::ClientOptions Reconnecting(mivo::Deadline deadline = kPatience) {
  mivo::ClientOptions options;
  options.deadline = deadline;
  options.reconnect = true;
  options.shortest_pause = std::chrono::milliseconds(10);
  options.longest_pause = std::chrono::milliseconds(200);
  return options;
}

using Codes = std::vector<std::string>;

// How calls have ended, told once each.
class Endings {
 public:
  std::function<void(const mivo::Result<void>&)> Next() {
    return [this](const mivo::Result<void>& result) {
      const std::lock_guard<std::mutex> lock(mutex_);
      codes_.push_back(result ? "" : result.error().code());
      told_.Signal();
    };
  }
  bool WaitFor(int count) { return told_.WaitFor(count); }
  Codes codes() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return codes_;
  }

 private:
  std::mutex mutex_;
  Codes codes_;
  Event told_;
};

inline std::string CodeOf(const mivo::Result<void>& result) {
  return result ? "" : result.error().code();
}

// What the counting servers of one test have carried out.
class CountFile {
 public:
  CountFile() : path_(testing::TempDir() + "mivo_test_count.XXXXXX") {
    const int file = mkstemp(path_.data());
    if (file < 0) throw std::runtime_error("no file to count in");
    ::close(file);
  }
  CountFile(const CountFile&) = delete;
  CountFile& operator=(const CountFile&) = delete;
  ~CountFile() { ::unlink(path_.c_str()); }

  const std::string& path() const { return path_; }

  // How often each call was carried out.
  std::map<std::int64_t, int> Counts() const {
    std::map<std::int64_t, int> counts;
    std::ifstream file(path_, std::ios::binary);
    std::int64_t id = 0;
    while (file.read(reinterpret_cast<char*>(&id), sizeof id))
      ++counts[id];
    return counts;
  }
  int Count(std::int64_t id) const {
    const std::map<std::int64_t, int> counts = Counts();
    const auto found = counts.find(id);
    return found == counts.end() ? 0 : found->second;
  }

 private:
  std::string path_;
};

// programs/counting_server.cpp, on one address, again and again.
class CountingServer {
 public:
  explicit CountingServer(std::string address) : address_(std::move(address)) {}

  // Listens when it returns.
  void Start() {
    program_.emplace(std::vector<std::string>{MIVO_TEST_COUNTING_SERVER, address_, counted_.path()});
    std::string output;
    while (output.find("ready\n") == std::string::npos) {
      const std::optional<std::string> byte = program_->io().ReadBytes(1);
      if (!byte) throw std::runtime_error("the counting server does not start: " + output);
      output += *byte;
    }
  }
  // As kill -9 does it.
  void Kill() { program_.reset(); }

  int pid() const { return program_->pid(); }
  const CountFile& counted() const { return counted_; }

 private:
  const std::string address_;
  const CountFile counted_;
  std::optional<ChildProgram> program_;
};

}  // namespace mivo_test

#endif  // MIVO_TESTS_SYSTEM_RPC_RECONNECT_H_
