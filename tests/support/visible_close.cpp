// Lets ThreadSanitizer see the closes of libuv.
//
// libuv closes descriptors by syscall(SYS_close), which the sanitizer does not follow: it goes on taking the number for
// the old descriptor, and when another thread's next descriptor gets the same number, for a race between the two. Every
// program that is tested under it therefore has this function ahead of the C library's.
#if defined(__SANITIZE_THREAD__)

#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>

extern "C" long syscall(long number, ...) noexcept {
  long arguments[6];
  va_list list;
  va_start(list, number);
  for (long& argument : arguments)
    argument = va_arg(list, long);
  va_end(list);
  if (number == SYS_close) return close(static_cast<int>(arguments[0]));

  // Not a static of the function: whoever waits for one to be initialised comes here again.
  static std::atomic<decltype(&syscall)> known{nullptr};
  auto real = known.load(std::memory_order_relaxed);
  if (real == nullptr) {
    real = reinterpret_cast<decltype(&syscall)>(dlsym(RTLD_NEXT, "syscall"));
    known.store(real, std::memory_order_relaxed);
  }
  return real(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
}

#endif
