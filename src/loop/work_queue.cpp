#include "loop/work_queue.h"

#include <cassert>
#include <utility>

namespace mivo {

struct WorkQueue::Job {
  uv_work_t request{};
  WorkQueue* queue = nullptr;
  std::unique_ptr<Work> work;
};

void WorkQueue::Queue(uv_loop_t* loop, std::unique_ptr<Work> work) {
  auto job = std::make_unique<Job>();
  job->queue = this;
  job->work = std::move(work);
  job->request.data = job.get();
  const int status = uv_queue_work(
      loop, &job->request, [](uv_work_t* request) { static_cast<Job*>(request->data)->work->Run(); },
      [](uv_work_t* request, int) {
        const std::unique_ptr<Job> done(static_cast<Job*>(request->data));
        done->work->Finish();
        --done->queue->under_way_;
      });
  assert(status == 0 && "uv_queue_work refuses only a missing function");
  static_cast<void>(status);
  ++under_way_;
  static_cast<void>(job.release());
}

}  // namespace mivo
