// The library's own threads: they read what arrives for all clients and servers of the process, and run the handlers.
#ifndef MIVO_POOL_POOL_H_
#define MIVO_POOL_POOL_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "base/looking.h"
#include "base/mutex.h"
#include "pool/job.h"
#include "pool/poller.h"
#include "pool/usual_times.h"
#include "pool/watch.h"

namespace mivo {

// One for the process, made with its first use and never taken down. As many handlers run at a time as the environment
// variable UV_THREADPOOL_SIZE says, 4 if it is not set; one thread more is always left for reading.
//
//   reading   one thread, the reader, waits for all descriptors. What it has read becomes jobs. Then it stops being the
//             reader and does the first of them itself: no hand-over, and the answer leaves from the thread that has
//             read the question.
//   handing   meanwhile nobody reads. Where handlers of that kind have lately been slow, another thread is woken to
//   over      take over at once. Otherwise a watcher, one of the resting threads, looks every 2 ms whether anything has
//             moved, and takes over when not: to be woken costs more than most handlers take, and so would be to look
//             more often. A watcher without traffic goes to rest.
//   looking   a reader that has just seen traffic, or run a handler, looks for more without blocking, see Looking. What
//             a caller has read for the pool meanwhile it takes without being woken.
//
// All threads are started with the first use; those that could not be had then, when they are needed. Any thread may
// call.
class Pool {
 public:
  // The pool of this process; a child of fork gets one of its own.
  static Pool& OfProcess();

  explicit Pool(int handlers_at_once);
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;

  // Has the pool read from `source`, see Watch::Start. 0 or a negative errno.
  int Start(Watch& watch, int descriptor, std::weak_ptr<Source> source);

  void Push(std::unique_ptr<Job> job);
  void Push(Jobs jobs);

  // Destroys the jobs of the group that no thread has begun.
  void DropWaiting(const JobGroup& group);

  // From now on no job is begun and nothing is read: the process leaves, and what handlers use goes away. What is under
  // way at this moment is not waited for.
  void Freeze();

 private:
  void ThreadMain(bool as_watcher);
  // False when there are as many as can be needed, or the system has none left.
  bool StartThread(bool as_watcher) MIVO_REQUIRES(mutex_);
  // Whether a thread rests that is not called for yet.
  bool HasThreadToWake() const MIVO_REQUIRES(mutex_);
  // Has somebody look after waiting jobs, or after reading, at once.
  void CallHelper() MIVO_REQUIRES(mutex_);
  // The same for when nothing has moved for a while.
  void CallWatcher() MIVO_REQUIRES(mutex_);

  bool MayRunJob() const MIVO_REQUIRES(mutex_) { return !jobs_.empty() && running_ < handlers_at_once_ && !frozen_; }

  // What a thread does; each returns when it should ask anew what there is to do.
  void RunJob() MIVO_REQUIRES(mutex_);
  void TakeTurn() MIVO_REQUIRES(mutex_);
  void Rest() MIVO_REQUIRES(mutex_);

  // Until somebody is needed (true), or all is quiet.
  bool WatchOver() MIVO_REQUIRES(mutex_);

  // The reader only.
  void ReadUntilJobs(Jobs* jobs);
  // Whether it may sleep: nobody tells it of jobs while it looks.
  bool MayReaderSleep();
  bool ReadEvents(int timeout_ms, Jobs* jobs);

  const int handlers_at_once_;
  Poller poller_;

  Mutex mutex_;
  Condition wake_;  // for those who rest
  Condition tick_;  // for the watcher
  Jobs jobs_ MIVO_GUARDED_BY(mutex_);
  // Written under the lock; the reader looks without.
  std::atomic<bool> frozen_{false};
  bool has_reader_ MIVO_GUARDED_BY(mutex_) = false;
  // The reader does not sleep, and will see that jobs wait.
  bool reader_looks_ MIVO_GUARDED_BY(mutex_) = false;
  // Written under the lock; a reader that looks sees it without.
  std::atomic<bool> jobs_wait_{false};
  bool has_watcher_ MIVO_GUARDED_BY(mutex_) = false;
  bool watcher_called_ MIVO_GUARDED_BY(mutex_) = false;
  // Each of these wishes has a resting thread that was woken for it.
  bool watcher_wanted_ MIVO_GUARDED_BY(mutex_) = false;
  int helpers_wanted_ MIVO_GUARDED_BY(mutex_) = 0;
  int threads_ MIVO_GUARDED_BY(mutex_) = 0;
  int resting_ MIVO_GUARDED_BY(mutex_) = 0;
  int running_ MIVO_GUARDED_BY(mutex_) = 0;
  std::uint64_t moves_ MIVO_GUARDED_BY(mutex_) = 0;  // turns of reading, and jobs begun or done
  std::int64_t last_job_ns_ MIVO_GUARDED_BY(mutex_) = 0;
  UsualTimes usual_times_ MIVO_GUARDED_BY(mutex_);

  // The reader only.
  Looking looking_;
  std::weak_ptr<Source> active_;
  unsigned int rounds_ = 0;
  std::vector<Poller::Event> events_;
};

}  // namespace mivo

#endif  // MIVO_POOL_POOL_H_
