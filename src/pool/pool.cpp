#include "pool/pool.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <utility>

#include "base/clock.h"
#include "base/library_thread.h"
#include "base/spare_memory.h"

namespace mivo {

namespace {

constexpr int kUsualSize = 4;
constexpr int kLargestSize = 1024;
constexpr std::chrono::microseconds kTick{2000};
// While one connection has always something, the others get a look every so many rounds; while it has nothing, too.
constexpr unsigned int kBusyRounds = 16;
constexpr unsigned int kQuietRounds = 4;

// Whoever sleeps looks after spare memory, as long as there is any: the reader, and those who rest, for a handler may
// leave some when the reader sleeps already.
constexpr int kSpareMemoryMs = 1100;
int SleepMs() {
  return HasSpareMemory() ? kSpareMemoryMs : -1;
}

int SizeFromEnvironment() {
  const char* const text = std::getenv("UV_THREADPOOL_SIZE");
  if (text == nullptr) return kUsualSize;
  return std::clamp(std::atoi(text), 1, kLargestSize);
}

// Never destroyed: its threads may outlive main.
Pool*& PoolPointer() {
  static Pool* pool = new Pool(SizeFromEnvironment());
  return pool;
}

// A child of fork has none of its parent's pool threads.
[[maybe_unused]] const int renewed_in_child =
    ::pthread_atfork(nullptr, nullptr, [] { PoolPointer() = new Pool(SizeFromEnvironment()); });

__attribute__((destructor)) void OnUnload() {
  PoolPointer()->Freeze();
}

}  // namespace

Pool& Pool::OfProcess() {
  return *PoolPointer();
}

Pool::Pool(int handlers_at_once) : handlers_at_once_(handlers_at_once) {}

int Pool::Start(Watch& watch, int descriptor, std::weak_ptr<Source> source) {
  const int opened = poller_.Open();
  if (opened < 0) return opened;
  {
    MutexLock lock(mutex_);
    if (threads_ == 0) {
      while (StartThread(false)) {
      }
    }
    if (threads_ == 0) return -EAGAIN;
  }
  return watch.Start(poller_, descriptor, std::move(source));
}

void Pool::Push(std::unique_ptr<Job> job) {
  Jobs jobs;
  jobs.Push(std::move(job));
  Push(std::move(jobs));
}

void Pool::Push(Jobs jobs) {
  MutexLock lock(mutex_);
  jobs_.Append(jobs);
  if (!MayRunJob()) return;
  jobs_wait_ = true;
  if (!reader_looks_) CallHelper();
}

void Pool::DropWaiting(const JobGroup& group) {
  // Destroyed without the lock.
  Jobs dropped = [&] {
    MutexLock lock(mutex_);
    return jobs_.TakeOf(group);
  }();
}

void Pool::Freeze() {
  MutexLock lock(mutex_);
  frozen_ = true;
}

bool Pool::StartThread(bool as_watcher) {
  if (threads_ > handlers_at_once_) return false;
  if (!RunDetached("mivo-pool", [this, as_watcher] { ThreadMain(as_watcher); })) return false;
  ++threads_;
  return true;
}

bool Pool::HasThreadToWake() const {
  return resting_ > helpers_wanted_ + (watcher_wanted_ ? 1 : 0);
}

void Pool::CallHelper() {
  if (HasThreadToWake()) {
    ++helpers_wanted_;
    wake_.NotifyOne();
  } else if (!StartThread(false) && has_watcher_) {
    watcher_called_ = true;
    tick_.NotifyOne();
  }
}

void Pool::CallWatcher() {
  if (has_watcher_ || watcher_wanted_) return;
  if (HasThreadToWake()) {
    watcher_wanted_ = true;
    wake_.NotifyOne();
  } else {
    has_watcher_ = StartThread(true);
  }
}

void Pool::ThreadMain(bool as_watcher) {
  MutexLock lock(mutex_);
  if (as_watcher) WatchOver();
  for (;;) {
    if (frozen_) {
      wake_.Wait(mutex_);
    } else if (MayRunJob()) {
      RunJob();
    } else if (!has_reader_) {
      TakeTurn();
    } else {
      Rest();
    }
  }
}

void Pool::RunJob() {
  std::unique_ptr<Job> job = jobs_.Pop();
  jobs_wait_ = false;
  const std::size_t kind = job->kind();
  ++running_;
  ++moves_;
  if (!has_reader_ || MayRunJob()) {
    if (usual_times_.IsSlow(kind)) {
      CallHelper();
    } else {
      CallWatcher();
    }
  }
  mutex_.unlock();
  const std::int64_t begin_ns = NowNs();
  job->Run();
  const std::int64_t end_ns = NowNs();
  job->Finish();
  job.reset();
  mutex_.lock();
  --running_;
  ++moves_;
  last_job_ns_ = end_ns;
  usual_times_.Count(kind, end_ns - begin_ns);
}

void Pool::TakeTurn() {
  has_reader_ = true;
  reader_looks_ = true;
  jobs_wait_ = false;
  // Whoever has been served may ask again at once, and a caller may read it.
  if (last_job_ns_ != 0) looking_.Saw(std::exchange(last_job_ns_, 0));
  mutex_.unlock();
  Jobs jobs;
  ReadUntilJobs(&jobs);
  mutex_.lock();
  jobs_.Append(jobs);
  has_reader_ = false;
  reader_looks_ = false;
  ++moves_;
}

void Pool::Rest() {
  ++resting_;
  bool is_needed = false;
  while (!is_needed) {
    if (helpers_wanted_ > 0) {
      --helpers_wanted_;
      is_needed = true;
    } else if (watcher_wanted_) {
      watcher_wanted_ = false;
      has_watcher_ = true;
      --resting_;
      is_needed = WatchOver();
      ++resting_;
    } else if (HasSpareMemory()) {
      wake_.WaitUntil(mutex_, std::chrono::steady_clock::now() + std::chrono::milliseconds(kSpareMemoryMs));
      mutex_.unlock();
      AgeSpareMemory(NowNs());
      mutex_.lock();
    } else {
      wake_.Wait(mutex_);
    }
  }
  --resting_;
}

bool Pool::WatchOver() {
  std::uint64_t moves = 0;
  do {
    moves = moves_;
    tick_.WaitUntil(mutex_, std::chrono::steady_clock::now() + kTick);
  } while (!watcher_called_ && moves_ != moves);
  watcher_called_ = false;
  has_watcher_ = false;
  return !has_reader_ || MayRunJob();
}

bool Pool::MayReaderSleep() {
  MutexLock lock(mutex_);
  reader_looks_ = false;
  return !MayRunJob();
}

void Pool::ReadUntilJobs(Jobs* jobs) {
  std::shared_ptr<Source> active = active_.lock();
  while (!frozen_ && !jobs_wait_.load(std::memory_order_relaxed)) {
    std::int64_t now_ns = NowNs();
    const bool may_look = looking_.MayGoOn(now_ns);
    const bool was_active = may_look && active != nullptr && active->Read(Source::Cause::kLooking, *jobs);
    ++rounds_;
    if (!may_look || rounds_ % (was_active ? kBusyRounds : kQuietRounds) == 0) {
      // Asleep, it must not keep alive what is being closed.
      if (!may_look) active.reset();
      if (!may_look && !MayReaderSleep()) return;
      if (ReadEvents(may_look ? 0 : SleepMs(), jobs)) {
        looking_.Saw(NowNs());
        active = active_.lock();
        if (jobs->empty()) continue;
      }
    }
    if (was_active) looking_.Saw(now_ns);
    if (!jobs->empty()) return;
    if (may_look && !was_active) looking_.GiveAway(NowNs());
  }
}

bool Pool::ReadEvents(int timeout_ms, Jobs* jobs) {
  bool was_active = false;
  poller_.Wait(timeout_ms, &events_);
  if (timeout_ms > 0 && events_.empty()) AgeSpareMemory(NowNs());
  if (frozen_) events_.clear();
  for (const Poller::Event& event : events_) {
    if (event.may_write || event.has_ended) event.source->Write();
    if (!event.may_read && !event.has_ended) continue;
    if (!event.source->Read(event.has_ended ? Source::Cause::kEnded : Source::Cause::kEvent, *jobs)) continue;
    was_active = true;
    active_ = event.source;
  }
  events_.clear();
  return was_active;
}

}  // namespace mivo
