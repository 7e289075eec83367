// A pool of a test's own, jobs made of functions, and a source on a pair of sockets.
#ifndef MIVO_TESTS_UNIT_POOL_FIXTURE_H_
#define MIVO_TESTS_UNIT_POOL_FIXTURE_H_

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "pool/pool.h"
#include "support/event.h"
#include "support/thread_id.h"
#include "unit/stream_pair.h"

namespace mivo {

class FunctionJob : public Job {
 public:
  FunctionJob(JobGroup& group, std::function<void()> run) : Job(group), run_(std::move(run)) {}
  void Run() override { run_(); }

 private:
  const std::function<void()> run_;
};

inline std::unique_ptr<Job> MakeJob(JobGroup& group, std::function<void()> run) {
  return std::make_unique<FunctionJob>(group, std::move(run));
}

// Reads one end of a pair; what it has read becomes jobs as the test says. Stopped before it ends.
class SocketSource : public Source {
 public:
  using Make = std::function<void(const std::string& bytes, Jobs& jobs)>;

  explicit SocketSource(Make make = nullptr) : make_(std::move(make)) {}
  ~SocketSource() override { close(descriptor); }
  SocketSource(const SocketSource&) = delete;
  SocketSource& operator=(const SocketSource&) = delete;

  bool Read(Cause cause, Jobs& jobs) override {
    EXPECT_EQ(inside_.fetch_add(1, std::memory_order_relaxed), 0) << "two readers";
    char bytes[4096];
    const ssize_t count = recv(descriptor, bytes, sizeof bytes, MSG_DONTWAIT);
    if (count > 0) {
      const std::string text(bytes, static_cast<std::size_t>(count));
      reader_thread = mivo_test::ThreadId();
      if (make_) make_(text, jobs);
      std::lock_guard<std::mutex> lock(mutex_);
      text_ += text;
    } else if (count == 0) {
      watch.Mute();
      if (cause == Cause::kEnded) ended.Signal();
    }
    inside_.fetch_sub(1, std::memory_order_relaxed);
    return count > 0;
  }
  void Write() override {
    watch.SetWriting(false);
    told_of_room.Signal();
  }

  std::string text() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return text_;
  }
  bool WaitForText(const std::string& expected) const {
    return mivo_test::Eventually([&] { return text() == expected; });
  }

  mivo_test::StreamPair pair = mivo_test::StreamPair::Local();
  const int descriptor = pair.TakeOurs();
  Watch watch;
  std::atomic<int> reader_thread{0};
  mivo_test::Event told_of_room;
  mivo_test::Event ended;

 private:
  const Make make_;
  std::atomic<int> inside_{0};
  mutable std::mutex mutex_;
  std::string text_;
};

// Pools are never taken down: their threads may outlive main.
inline Pool& NewPool(int handlers_at_once) {
  static auto* const pools = new std::vector<Pool*>;
  pools->push_back(new Pool(handlers_at_once));
  return *pools->back();
}

// A pool that has started, and what it reads from. Waits for its jobs at the end.
class TestPool {
 public:
  explicit TestPool(int handlers_at_once, SocketSource::Make make = nullptr) : pool(NewPool(handlers_at_once)) {
    source = Add(std::move(make));
  }
  ~TestPool() {
    // The reader may be at a source at this moment.
    for (const std::shared_ptr<SocketSource>& each : sources_)
      each->watch.Stop();
    const std::vector<std::weak_ptr<SocketSource>> watched(sources_.begin(), sources_.end());
    sources_.clear();
    source.reset();
    for (const std::weak_ptr<SocketSource>& each : watched)
      EXPECT_TRUE(mivo_test::Eventually([&] { return each.expired(); }));
    group.WaitUntilIdle();
  }
  TestPool(const TestPool&) = delete;
  TestPool& operator=(const TestPool&) = delete;

  std::shared_ptr<SocketSource> Add(SocketSource::Make make = nullptr) {
    auto added = std::make_shared<SocketSource>(std::move(make));
    EXPECT_EQ(pool.Start(added->watch, added->descriptor, added), 0);
    added->watch.SetReading(true);
    sources_.push_back(added);
    return added;
  }

  void Push(std::function<void()> run) { pool.Push(MakeJob(group, std::move(run))); }

  Pool& pool;
  JobGroup group;
  std::shared_ptr<SocketSource> source;

 private:
  std::vector<std::shared_ptr<SocketSource>> sources_;
};

}  // namespace mivo

#endif  // MIVO_TESTS_UNIT_POOL_FIXTURE_H_
