#include "support/uv_faults.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <uv.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

namespace mivo_test {
namespace {

struct Plan {
  int first = 0;
  int count = 0;
  int error = 0;
  int calls = 0;
  int failures = 0;
  std::function<void()> hook;
  std::vector<std::chrono::steady_clock::time_point> times;
};

// Never destroyed: loop threads may still call at exit.
std::mutex& Lock() {
  static auto* const lock = new std::mutex;
  return *lock;
}

Plan& PlanOf(Fault fault) {
  static auto* const plans = new Plan[static_cast<std::size_t>(Fault::kCount)];
  return plans[static_cast<std::size_t>(fault)];
}

// Apart from the lock and ordering nothing: a lock taken in every call would put the threads under test in an order
// that the program does not give them, and hide their races from the thread sanitizer.
std::atomic<bool>& ArmedOf(Fault fault) {
  static std::atomic<bool> armed[static_cast<std::size_t>(Fault::kCount)];
  return armed[static_cast<std::size_t>(fault)];
}

// The error this call has to return; 0: it goes through.
int ErrorOfThisCall(Fault fault) {
  if (!ArmedOf(fault).load(std::memory_order_relaxed)) return 0;
  std::unique_lock<std::mutex> lock(Lock());
  Plan& plan = PlanOf(fault);
  // Disarmed meanwhile.
  if (!ArmedOf(fault).load(std::memory_order_relaxed)) return 0;
  if (const std::function<void()> hook = std::exchange(plan.hook, nullptr)) {
    lock.unlock();
    hook();
    return 0;
  }
  ++plan.calls;
  plan.times.push_back(std::chrono::steady_clock::now());
  if (plan.calls < plan.first || plan.calls >= plan.first + plan.count) return 0;
  ++plan.failures;
  return plan.error;
}

// Bytes that one sendmsg takes at most; 0: as many as the kernel does.
std::atomic<std::size_t> most_of_a_send{0};

template <typename Function>
Function Real(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

// The callbacks that listeners were given, so that they can be called with an error.
std::map<uv_stream_t*, uv_connection_cb>& ConnectionCallbacks() {
  static auto* const callbacks = new std::map<uv_stream_t*, uv_connection_cb>;
  return *callbacks;
}

void OnConnection(uv_stream_t* listener, int status) {
  uv_connection_cb callback = nullptr;
  {
    std::lock_guard<std::mutex> lock(Lock());
    callback = ConnectionCallbacks()[listener];
  }
  const int error = ErrorOfThisCall(Fault::kListenerError);
  if (error != 0) callback(listener, error);
  callback(listener, status);
}

}  // namespace

ScopedFault::ScopedFault(Fault fault, int first, int count, int error) : fault_(fault) {
  std::lock_guard<std::mutex> lock(Lock());
  PlanOf(fault_) = Plan{first, count, error, 0, 0, {}, {}};
  ArmedOf(fault_).store(true, std::memory_order_relaxed);
}

ScopedFault::~ScopedFault() {
  std::lock_guard<std::mutex> lock(Lock());
  ArmedOf(fault_).store(false, std::memory_order_relaxed);
  PlanOf(fault_) = Plan();
}

ScopedHook::ScopedHook(Fault fault, std::function<void()> hook) : fault_(fault) {
  std::lock_guard<std::mutex> lock(Lock());
  PlanOf(fault_) = Plan{0, 0, 0, 0, 0, std::move(hook), {}};
  ArmedOf(fault_).store(true, std::memory_order_relaxed);
}

ScopedHook::~ScopedHook() {
  std::lock_guard<std::mutex> lock(Lock());
  ArmedOf(fault_).store(false, std::memory_order_relaxed);
  PlanOf(fault_) = Plan();
}

ScopedShortSends::ScopedShortSends(std::size_t most) {
  most_of_a_send.store(most, std::memory_order_relaxed);
}

ScopedShortSends::~ScopedShortSends() {
  most_of_a_send.store(0, std::memory_order_relaxed);
}

int ScopedFault::calls() const {
  std::lock_guard<std::mutex> lock(Lock());
  return PlanOf(fault_).calls;
}

int ScopedFault::failures() const {
  std::lock_guard<std::mutex> lock(Lock());
  return PlanOf(fault_).failures;
}

std::vector<std::chrono::steady_clock::time_point> ScopedFault::times() const {
  std::lock_guard<std::mutex> lock(Lock());
  return PlanOf(fault_).times;
}

}  // namespace mivo_test

using mivo_test::ErrorOfThisCall;
using mivo_test::Fault;
using mivo_test::Real;

extern "C" {

int uv_loop_init(uv_loop_t* loop) {
  static const auto real = Real<decltype(&uv_loop_init)>("uv_loop_init");
  const int error = ErrorOfThisCall(Fault::kLoopInit);
  return error != 0 ? error : real(loop);
}

int uv_pipe_init(uv_loop_t* loop, uv_pipe_t* handle, int ipc) {
  static const auto real = Real<decltype(&uv_pipe_init)>("uv_pipe_init");
  const int error = ErrorOfThisCall(Fault::kPipeInit);
  return error != 0 ? error : real(loop, handle, ipc);
}

int uv_tcp_init(uv_loop_t* loop, uv_tcp_t* handle) {
  static const auto real = Real<decltype(&uv_tcp_init)>("uv_tcp_init");
  const int error = ErrorOfThisCall(Fault::kTcpInit);
  return error != 0 ? error : real(loop, handle);
}

int uv_tcp_bind(uv_tcp_t* handle, const struct sockaddr* address, unsigned int flags) {
  static const auto real = Real<decltype(&uv_tcp_bind)>("uv_tcp_bind");
  const int error = ErrorOfThisCall(Fault::kTcpBind);
  return error != 0 ? error : real(handle, address, flags);
}

int uv_listen(uv_stream_t* stream, int backlog, uv_connection_cb callback) {
  static const auto real = Real<decltype(&uv_listen)>("uv_listen");
  const int error = ErrorOfThisCall(Fault::kListen);
  if (error != 0) return error;
  {
    std::lock_guard<std::mutex> lock(mivo_test::Lock());
    mivo_test::ConnectionCallbacks()[stream] = callback;
  }
  return real(stream, backlog, mivo_test::OnConnection);
}

int uv_async_init(uv_loop_t* loop, uv_async_t* handle, uv_async_cb callback) {
  static const auto real = Real<decltype(&uv_async_init)>("uv_async_init");
  // libuv makes one for itself in each loop.
  const int error = handle == &loop->wq_async ? 0 : ErrorOfThisCall(Fault::kAsyncInit);
  return error != 0 ? error : real(loop, handle, callback);
}

int uv_accept(uv_stream_t* server, uv_stream_t* client) {
  static const auto real = Real<decltype(&uv_accept)>("uv_accept");
  // Only where there is a connection to accept.
  const int error = server->accepted_fd == -1 ? 0 : ErrorOfThisCall(Fault::kAccept);
  if (error == 0) return real(server, client);
  // The real function is made to fail, so that it leaves the listener as a failure leaves it: a stream that already has
  // another descriptor cannot be opened.
  const int descriptor = client->io_watcher.fd;
  client->io_watcher.fd = 0x7FFFFFF0;
  real(server, client);
  client->io_watcher.fd = descriptor;
  return error;
}

int uv_read_start(uv_stream_t* stream, uv_alloc_cb allocate, uv_read_cb read) {
  static const auto real = Real<decltype(&uv_read_start)>("uv_read_start");
  const int error = ErrorOfThisCall(Fault::kReadStart);
  return error != 0 ? error : real(stream, allocate, read);
}

int uv_timer_init(uv_loop_t* loop, uv_timer_t* handle) {
  static const auto real = Real<decltype(&uv_timer_init)>("uv_timer_init");
  const int error = ErrorOfThisCall(Fault::kTimerInit);
  return error != 0 ? error : real(loop, handle);
}

int uv_timer_start(uv_timer_t* handle, uv_timer_cb callback, uint64_t timeout, uint64_t repeat) {
  static const auto real = Real<decltype(&uv_timer_start)>("uv_timer_start");
  const int error = ErrorOfThisCall(Fault::kTimerStart);
  return error != 0 ? error : real(handle, callback, timeout, repeat);
}

// Under both uv_thread_create and std::thread.
int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                   void* argument) noexcept {
  static const auto real = Real<int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>("pthread_create");
  const int error = ErrorOfThisCall(Fault::kThreadCreate);
  return error != 0 ? -error : real(thread, attributes, entry, argument);
}

int chmod(const char* path, mode_t mode) noexcept {
  static const auto real = Real<int (*)(const char*, mode_t)>("chmod");
  const int error = ErrorOfThisCall(Fault::kChmod);
  if (error == 0) return real(path, mode);
  errno = -error;
  return -1;
}

int fchownat(int directory, const char* path, uid_t owner, gid_t group, int flags) noexcept {
  static const auto real = Real<decltype(&fchownat)>("fchownat");
  const int error = ErrorOfThisCall(Fault::kChown);
  if (error == 0) return real(directory, path, owner, group, flags);
  errno = -error;
  return -1;
}

int socket(int domain, int type, int protocol) noexcept {
  static const auto real = Real<decltype(&socket)>("socket");
  const int error = ErrorOfThisCall(Fault::kSocketCall);
  if (error == 0) return real(domain, type, protocol);
  errno = -error;
  return -1;
}

int bind(int descriptor, const struct sockaddr* address, socklen_t size) noexcept {
  static const auto real = Real<decltype(&bind)>("bind");
  const int error = ErrorOfThisCall(Fault::kBindCall);
  if (error == 0) return real(descriptor, address, size);
  errno = -error;
  return -1;
}

int listen(int descriptor, int backlog) noexcept {
  static const auto real = Real<decltype(&listen)>("listen");
  const int error = ErrorOfThisCall(Fault::kListenCall);
  if (error == 0) return real(descriptor, backlog);
  errno = -error;
  return -1;
}

int connect(int descriptor, const struct sockaddr* address, socklen_t size) {
  static const auto real = Real<decltype(&connect)>("connect");
  const int error = ErrorOfThisCall(Fault::kConnectCall);
  if (error == 0) return real(descriptor, address, size);
  errno = -error;
  return -1;
}

int accept4(int listener, struct sockaddr* address, socklen_t* size, int flags) {
  static const auto real = Real<decltype(&accept4)>("accept4");
  const int error = ErrorOfThisCall(Fault::kAcceptCall);
  if (error == 0) return real(listener, address, size, flags);
  errno = -error;
  return -1;
}

ssize_t sendmsg(int descriptor, const struct msghdr* message, int flags) {
  static const auto real = Real<decltype(&sendmsg)>("sendmsg");
  const int error = ErrorOfThisCall(Fault::kSendCall);
  if (error != 0) {
    errno = -error;
    return -1;
  }
  std::size_t left = mivo_test::most_of_a_send.load(std::memory_order_relaxed);
  if (left == 0) return real(descriptor, message, flags);
  std::vector<iovec> parts;
  for (std::size_t i = 0; i < message->msg_iovlen && left > 0; ++i) {
    parts.push_back(message->msg_iov[i]);
    parts.back().iov_len = std::min(parts.back().iov_len, left);
    left -= parts.back().iov_len;
  }
  msghdr shortened = *message;
  shortened.msg_iov = parts.data();
  shortened.msg_iovlen = parts.size();
  return real(descriptor, &shortened, flags);
}

int epoll_ctl(int set, int operation, int descriptor, struct epoll_event* event) noexcept {
  static const auto real = Real<decltype(&epoll_ctl)>("epoll_ctl");
  // libuv's sets carry the descriptor, the library's a ticket.
  const bool is_ours = operation == EPOLL_CTL_ADD && event->data.u64 != static_cast<std::uint64_t>(descriptor);
  const int error = is_ours ? ErrorOfThisCall(Fault::kWatchCall) : 0;
  if (error == 0) return real(set, operation, descriptor, event);
  errno = -error;
  return -1;
}

}  // extern "C"
