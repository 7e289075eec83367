#include "loop/work_queue.h"

#include <pthread.h>

#include <iterator>
#include <new>
#include <utility>

#include "base/mutex.h"

namespace mivo {

namespace {

// At exit libuv takes its pool down, while loop threads may still be reading requests. This library, which needs libuv,
// is taken down before it: that is the moment from which nobody may come near the pool.
class PoolGate {
 public:
  // Calls `use`, unless the gate is closed.
  template <class Use>
  bool Enter(Use use) {
    MutexLock lock(mutex_);
    if (closed_) return false;
    use();
    return true;
  }

  void Close() {
    MutexLock lock(mutex_);
    closed_ = true;
  }

 private:
  Mutex mutex_;
  bool closed_ MIVO_GUARDED_BY(mutex_) = false;
};

PoolGate pool_gate;

__attribute__((destructor)) void OnUnload() {
  pool_gate.Close();
}

// A child of fork has no thread that would give back the lock.
[[maybe_unused]] const int renewed_in_child = ::pthread_atfork(nullptr, nullptr, [] { new (&pool_gate) PoolGate; });

}  // namespace

void WorkQueue::Queue(uv_loop_t* loop, std::unique_ptr<Work> work) {
  Job& job = jobs_.emplace_back();
  job.queue = this;
  job.work = std::move(work);
  job.self = std::prev(jobs_.end());
  job.request.data = &job;
  const bool is_queued = pool_gate.Enter([&] {
    // libuv refuses only a missing function.
    uv_queue_work(
        loop, &job.request, [](uv_work_t* request) { static_cast<Job*>(request->data)->work->Run(); }, OnDone);
  });
  if (!is_queued) jobs_.pop_back();
}

void WorkQueue::OnDone(uv_work_t* request, int status) {
  Job* const done = static_cast<Job*>(request->data);
  if (status != UV_ECANCELED) done->work->Finish();
  done->queue->jobs_.erase(done->self);
}

void WorkQueue::DropWaiting() {
  pool_gate.Enter([&] {
    // libuv refuses for those that run; the others come back to it as cancelled.
    for (Job& job : jobs_)
      uv_cancel(reinterpret_cast<uv_req_t*>(&job.request));
  });
}

}  // namespace mivo
