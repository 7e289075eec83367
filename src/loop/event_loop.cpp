#include "loop/event_loop.h"

#include <cassert>
#include <utility>

namespace mivo {

namespace {
thread_local int loops_on_this_thread = 0;
}  // namespace

EventLoop::ThreadScope::ThreadScope(EventLoop& loop) : loop_(loop) {
  loop_.thread_ = std::this_thread::get_id();
  ++loops_on_this_thread;
}

EventLoop::ThreadScope::~ThreadScope() {
  --loops_on_this_thread;
  loop_.thread_ = std::thread::id();
}

bool EventLoop::InAnyThread() {
  return loops_on_this_thread > 0;
}

EventLoop::~EventLoop() {
  Close();
}

int EventLoop::Open() {
  const int status = uv_loop_init(&loop_);
  if (status < 0) return status;
  open_ = true;

  // Jobs from timers must run before the loop waits, jobs from reads and finished work right after it has waited.
  before_wait_.Open(this, [this](uv_prepare_t* handle) { return uv_prepare_init(&loop_, handle); });
  after_wait_.Open(this, [this](uv_check_t* handle) { return uv_check_init(&loop_, handle); });
  uv_prepare_start(before_wait_.get(), [](uv_prepare_t* handle) {
    if (handle->data != nullptr) static_cast<EventLoop*>(handle->data)->RunTurnEndJobs();
  });
  uv_check_start(after_wait_.get(), [](uv_check_t* handle) {
    if (handle->data != nullptr) static_cast<EventLoop*>(handle->data)->RunTurnEndJobs();
  });
  uv_unref(reinterpret_cast<uv_handle_t*>(before_wait_.get()));
  uv_unref(reinterpret_cast<uv_handle_t*>(after_wait_.get()));
  return 0;
}

void EventLoop::Run() {
  uv_run(&loop_, UV_RUN_DEFAULT);
}

void EventLoop::RunUntil(const std::function<bool()>& done) {
  while (!done())
    uv_run(&loop_, UV_RUN_ONCE);
}

void EventLoop::AtTurnEnd(std::function<void()> job) {
  turn_end_jobs_.push_back(std::move(job));
}

void EventLoop::RunTurnEndJobs() {
  // A job may add further ones.
  while (!turn_end_jobs_.empty()) {
    std::vector<std::function<void()>> jobs;
    jobs.swap(turn_end_jobs_);
    for (std::function<void()>& job : jobs)
      job();
  }
}

void EventLoop::Close() {
  if (!open_) return;
  Run();
  RunTurnEndJobs();
  before_wait_.Close();
  after_wait_.Close();
  Run();
  const int status = uv_loop_close(&loop_);
  assert(status == 0 && "a handle was left open");
  static_cast<void>(status);
  open_ = false;
}

}  // namespace mivo
