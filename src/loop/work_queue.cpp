#include "loop/work_queue.h"

#include <cassert>
#include <utility>

namespace mivo {

void WorkQueue::Queue(uv_loop_t* loop, std::unique_ptr<Work> work) {
  Job& job = jobs_.emplace_back();
  job.queue = this;
  job.work = std::move(work);
  job.self = std::prev(jobs_.end());
  job.request.data = &job;
  const int status = uv_queue_work(
      loop, &job.request, [](uv_work_t* request) { static_cast<Job*>(request->data)->work->Run(); },
      [](uv_work_t* request, int end_status) {
        Job* const done = static_cast<Job*>(request->data);
        if (end_status != UV_ECANCELED) done->work->Finish();
        done->queue->jobs_.erase(done->self);
      });
  assert(status == 0 && "uv_queue_work refuses only a missing function");
  static_cast<void>(status);
}

void WorkQueue::DropWaiting() {
  // libuv refuses for those that run; the others come back to it as cancelled.
  for (Job& job : jobs_)
    uv_cancel(reinterpret_cast<uv_req_t*>(&job.request));
}

}  // namespace mivo
