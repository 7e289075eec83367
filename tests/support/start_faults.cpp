#include "support/start_faults.h"

#include <dlfcn.h>
#include <pthread.h>
#include <uv.h>

#include <atomic>
#include <cerrno>

namespace mivo_test {
namespace {

std::atomic<int> error_of_connect{0};
std::atomic<bool> no_threads{false};
std::atomic<int> threads_refused{0};

}  // namespace

ScopedConnectFault::ScopedConnectFault(int error) {
  error_of_connect = error;
}

ScopedConnectFault::~ScopedConnectFault() {
  error_of_connect = 0;
}

ScopedThreadFault::ScopedThreadFault() {
  threads_refused = 0;
  no_threads = true;
}

ScopedThreadFault::~ScopedThreadFault() {
  no_threads = false;
}

int ScopedThreadFault::failures() const {
  return threads_refused;
}

}  // namespace mivo_test

extern "C" {

int uv_tcp_connect(uv_connect_t* request, uv_tcp_t* handle, const struct sockaddr* address, uv_connect_cb callback) {
  static const auto real = reinterpret_cast<decltype(&uv_tcp_connect)>(dlsym(RTLD_NEXT, "uv_tcp_connect"));
  const int error = mivo_test::error_of_connect;
  return error != 0 ? error : real(request, handle, address, callback);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*), void* argument) {
  static const auto real = reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
  if (!mivo_test::no_threads) return real(thread, attributes, entry, argument);
  ++mivo_test::threads_refused;
  return EAGAIN;
}

}  // extern "C"
