#include "loop/event_loop.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cassert>
#include <cerrno>
#include <new>
#include <utility>

#include "base/mutex.h"

namespace mivo {

namespace {

thread_local int loops_on_this_thread = 0;

// Loops are opened one at a time: each makes sure of its descriptors first.
Mutex opening;
bool has_opened_one MIVO_GUARDED_BY(opening) = false;

// A child of fork has no thread that would end what was being opened at that moment.
[[maybe_unused]] const int renewed_in_child = ::pthread_atfork(nullptr, nullptr, [] { new (&opening) Mutex; });

// What libuv opens for a loop: an epoll set, the two ends of a pipe for signals, and an eventfd; since 1.45 up to two
// rings, which it can do without and tries for first. For the first loop of a process another pipe besides.
int DescriptorsOfALoop(bool is_first) {
  constexpr unsigned int kFirstWithRings = (1U << 16U) | (45U << 8U);
  return (uv_version() < kFirstWithRings ? 4 : 6) + (is_first ? 2 : 0);
}

// Whether so many descriptors can be had, by opening them; below 0 the negative errno.
int ProbeDescriptors(int count) {
  std::array<int, 8> opened{};
  int status = 0;
  int have = 0;
  while (have < count && status == 0) {
    const int descriptor = ::eventfd(0, EFD_CLOEXEC);
    if (descriptor < 0) {
      status = -errno;
    } else {
      opened[static_cast<std::size_t>(have++)] = descriptor;
    }
  }
  while (have > 0)
    ::close(opened[static_cast<std::size_t>(--have)]);
  return status;
}

// A uv_loop_init that fails half-way loses its epoll descriptor, and one that cannot make the pipe of the process
// aborts. So it is called when everything it opens can be had. What remains is a thread of the application's that takes
// some of it in between.
int InitLoop(uv_loop_t* loop) {
  const MutexLock lock(opening);
  const int probed = ProbeDescriptors(DescriptorsOfALoop(!has_opened_one));
  if (probed < 0) return probed;
  const int status = uv_loop_init(loop);
  if (status >= 0) has_opened_one = true;
  return status;
}

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
  int status = InitLoop(&loop_);
  if (status < 0) return status;
  open_ = true;
  {
    MutexLock lock(mutex_);
    status = wake_.Open(this, [this](uv_async_t* handle) {
      return uv_async_init(&loop_, handle, [](uv_async_t* async) {
        if (async->data != nullptr) static_cast<EventLoop*>(async->data)->RunTasks();
      });
    });
  }
  if (status < 0) Close();
  return status;
}

bool EventLoop::Post(std::function<void()> task) {
  MutexLock lock(mutex_);
  if (!wake_) return false;
  tasks_.push_back(std::move(task));
  // One wake-up for all that come before the loop looks.
  if (tasks_.size() == 1) uv_async_send(wake_.get());
  return true;
}

void EventLoop::RunTasks() {
  std::vector<std::function<void()>> tasks;
  {
    MutexLock lock(mutex_);
    tasks.swap(tasks_);
  }
  for (std::function<void()>& task : tasks)
    task();
}

void EventLoop::Shut() {
  RunTasks();
  std::vector<std::function<void()>> late;
  {
    MutexLock lock(mutex_);
    wake_.Close();
    late.swap(tasks_);
  }
}

void EventLoop::Run() {
  uv_run(&loop_, UV_RUN_DEFAULT);
}

void EventLoop::Close() {
  if (!open_) return;
  Shut();
  Run();
  const int status = uv_loop_close(&loop_);
  assert(status == 0 && "a handle was left open");
  static_cast<void>(status);
  open_ = false;
}

}  // namespace mivo
