// A connection over one end of a pair, and an owner that writes down what it is told.
#ifndef MIVO_TESTS_UNIT_CONNECTION_FIXTURE_H_
#define MIVO_TESTS_UNIT_CONNECTION_FIXTURE_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "support/event.h"
#include "support/thread_id.h"
#include "transport/connection.h"
#include "unit/payload.h"
#include "unit/stream_pair.h"

namespace mivo {

using Strings = std::vector<std::string>;

class ConnectionJournal : public Connection::Owner {
 public:
  void OnFirstRead(Connection&) override { Add(&first_reads_, static_cast<int>(payloads().size())); }
  void OnPayload(Connection& connection, std::string_view payload, Jobs& jobs) override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      payloads_.emplace_back(payload);
      last_thread_ = mivo_test::ThreadId();
    }
    if (on_payload) on_payload(connection, payload, jobs);
  }
  void OnEnd(Connection&, int status) override { Add(&ends_, status); }
  void OnFrameDropped(Connection&) override { Add(&dropped_, 0); }

  Strings payloads() const { return Get(payloads_); }
  std::vector<int> ends() const { return Get(ends_); }
  // How many payloads there were at each.
  std::vector<int> first_reads() const { return Get(first_reads_); }
  std::size_t dropped() const { return Get(dropped_).size(); }
  int last_thread() const { return Get(last_thread_); }

  bool WaitForPayloads(std::size_t count, std::chrono::milliseconds patience = mivo_test::kPatience) const {
    return mivo_test::Eventually([&] { return payloads().size() >= count; }, patience);
  }
  bool WaitForEnd() const {
    return mivo_test::Eventually([&] { return !ends().empty(); });
  }

  // Set before the connection reads.
  std::function<void(Connection&, std::string_view, Jobs&)> on_payload;

 private:
  template <class T>
  T Get(const T& value) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return value;
  }
  void Add(std::vector<int>* to, int number) {
    std::lock_guard<std::mutex> lock(mutex_);
    to->push_back(number);
  }

  mutable std::mutex mutex_;
  Strings payloads_;
  std::vector<int> ends_;
  std::vector<int> first_reads_;
  std::vector<int> dropped_;
  int last_thread_ = 0;
};

struct Peers {
  // `reads`: as soon as it is made.
  explicit Peers(mivo_test::StreamPair ends = mivo_test::StreamPair::Local(), bool reads = true)
      : pair(std::move(ends)), connection(std::make_shared<Connection>(journal, jobs, 42)) {
    EXPECT_TRUE(connection->is_closed());
    EXPECT_EQ(connection->Open(pair.TakeOurs()), 0);
    if (reads) connection->StartReading();
  }
  ~Peers() {
    if (connection) connection->Close();
    jobs.WaitUntilIdle();
    // A reader that has just looked may hold it for a moment, and would find the journal gone.
    const std::weak_ptr<Connection> watched = connection;
    connection.reset();
    EXPECT_TRUE(mivo_test::Eventually([&] { return watched.expired(); }));
  }
  Peers(const Peers&) = delete;
  Peers& operator=(const Peers&) = delete;

  std::string ReadAll(std::size_t size) {
    std::string bytes;
    const mivo_test::Stopwatch watch;
    while (bytes.size() < size && !pair.has_ended() && watch.ElapsedMs() < mivo_test::kPatience.count())
      bytes += pair.ReadSome(65536);
    return bytes;
  }
  // Bytes that the pair does not take at once.
  void WriteAll(std::string_view bytes) {
    constexpr std::size_t kPiece = 1000;
    const mivo_test::Stopwatch watch;
    while (!bytes.empty() && watch.ElapsedMs() < mivo_test::kPatience.count()) {
      if (!pair.TryWrite(bytes.substr(0, kPiece))) {
        std::this_thread::yield();
        continue;
      }
      bytes.remove_prefix(std::min(kPiece, bytes.size()));
    }
    EXPECT_TRUE(bytes.empty());
  }
  bool PeerFindsTheEnd() {
    return mivo_test::Eventually([&] {
      pair.ReadSome();
      return pair.has_ended();
    });
  }

  ConnectionJournal journal;
  JobGroup jobs;
  mivo_test::StreamPair pair;
  std::shared_ptr<Connection> connection;
};

}  // namespace mivo

#endif  // MIVO_TESTS_UNIT_CONNECTION_FIXTURE_H_
