#include "support/connect_faults.h"

#include <dlfcn.h>
#include <uv.h>

#include <atomic>

namespace mivo_test {
namespace {

std::atomic<int> error_of_connect{0};

}  // namespace

ScopedConnectFault::ScopedConnectFault(int error) {
  error_of_connect = error;
}

ScopedConnectFault::~ScopedConnectFault() {
  error_of_connect = 0;
}

}  // namespace mivo_test

extern "C" int uv_tcp_connect(uv_connect_t* request, uv_tcp_t* handle, const struct sockaddr* address,
                              uv_connect_cb callback) {
  static const auto real = reinterpret_cast<decltype(&uv_tcp_connect)>(dlsym(RTLD_NEXT, "uv_tcp_connect"));
  const int error = mivo_test::error_of_connect;
  return error != 0 ? error : real(request, handle, address, callback);
}
