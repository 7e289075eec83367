#include <mivo/mivo.h>

#include "support/event.h"
#include "support/sanitizers.h"
#include "support/teardown.h"
#include "support/test_server.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <vector>

using namespace mivo_test;

namespace {

// Of all transports together, a hundred thousand.
constexpr int kConnectsOfAllTests = 100002 / kScaledown;
constexpr int kTests = 3;
constexpr int kConnects = kConnectsOfAllTests / kTests;
// So that neither the backlog nor the descriptors run out.
constexpr int kAtOnce = 50;
constexpr int kWarmUp = 1000;

long ResidentKilobytes() {
  long pages = 0;
  FILE* const statm = std::fopen("/proc/self/statm", "re");
  if (statm == nullptr) return 0;
  if (std::fscanf(statm, "%*d %ld", &pages) != 1) pages = 0;
  std::fclose(statm);
  return pages * 4;
}

class ManyConnects : public testing::TestWithParam<Transport> {
 protected:
  void SetUp() override {
    ids_.reserve(kWarmUp + kConnects + 1000);
    server_->method("s_c_log", &silence_);
    server_.On("s_c_connect", [this](int id, MIVOParams*, MIVOParams*) {
      const std::lock_guard<std::mutex> lock(mutex_);
      ids_.push_back(id);
    });
    server_.On("s_c_closed", [this](int, MIVOParams*, MIVOParams*) {
      const std::lock_guard<std::mutex> lock(mutex_);
      ++closed_;
    });
    ASSERT_TRUE(server_.Init());
  }

  std::size_t closed() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return closed_;
  }
  std::vector<int> ids() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return ids_;
  }

  // Every other one ends before it has said anything, the rest inside a frame.
  void ConnectAndDisconnect(int count) {
    std::size_t expected = closed();
    while (count > 0) {
      std::vector<RawPeer> peers;
      for (int i = 0; i < std::min(kAtOnce, count); ++i) {
        peers.push_back(server_.Connect());
        ASSERT_TRUE(peers.back().connected());
        if (i % 2 == 1) {
          ASSERT_TRUE(peers.back().SendBytes("1234567890"));
        }
      }
      count -= static_cast<int>(peers.size());
      expected += peers.size();
      // A reset leaves no port behind that could not be used again for a minute.
      for (RawPeer& peer : peers)
        peer.Reset();
      ASSERT_TRUE(Eventually([&] { return closed() >= expected; }));
    }
  }

  LambdaMethod silence_{[](int, MIVOParams*, MIVOParams*) {}};
  std::mutex mutex_;
  std::vector<int> ids_;
  std::size_t closed_ = 0;
  TestServer server_{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, ManyConnects, kEveryTransport, TransportName);

TEST_P(ManyConnects, NeverGetTheSameIdAndLeaveNothingBehind) {
  ConnectAndDisconnect(kWarmUp);
  const Resources before = CountResources();
  const long resident_before = ResidentKilobytes();
  const Stopwatch watch;
  ConnectAndDisconnect(kConnects);
  const long long elapsed_ms = watch.ElapsedMs();
  const long growth = ResidentKilobytes() - resident_before;

  std::vector<int> sorted = ids();
  ASSERT_EQ(sorted.size(), static_cast<std::size_t>(kWarmUp + kConnects));
  std::sort(sorted.begin(), sorted.end());
  EXPECT_EQ(std::adjacent_find(sorted.begin(), sorted.end()), sorted.end()) << "an id was handed out twice";

  ExpectSameResources(before);
  if (kSanitized) {
    std::fprintf(stderr, "resident memory is not compared: a sanitizer keeps what was freed\n");
  } else {
    EXPECT_LT(growth, 4096) << "kilobytes";
  }

  // Whoever is there now does not get what is meant for those who left.
  RawPeer present = server_.Connect();
  ASSERT_TRUE(present.AnswersInOrder());
  const Stopwatch calls;
  int key = 1000;
  for (std::size_t i = 0; i < sorted.size(); i += 97) {
    ASSERT_EQ(server_->SendMsg(sorted[i], "foo", nullptr, ++key, 600000), nullptr);
    server_->PostMsg(sorted[i], "foo", nullptr, key);
  }
  EXPECT_LT(calls.ElapsedMs(), 300000);
  EXPECT_TRUE(present.AnswersInOrder());
  std::fprintf(stderr, "%d connects in %lld ms; resident memory grew by %ld KiB\n", kConnects, elapsed_ms, growth);
}

}  // namespace
