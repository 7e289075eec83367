// Threads of the library's own.
#ifndef MIVO_BASE_LIBRARY_THREAD_H_
#define MIVO_BASE_LIBRARY_THREAD_H_

#include <pthread.h>

#include <system_error>
#include <thread>
#include <utility>

#include "base/sigpipe_guard.h"

namespace mivo {

// A thread that runs `function` under a name for debuggers and `top`: a literal of 15 characters at most. SIGPIPE is
// blocked on it: what is written there may go to somebody who has left, and the signal would end the program. Throws
// std::system_error when the system has no thread left.
template <class Function>
std::thread StartThread(const char* name, Function function) {
  return std::thread([name, run = std::move(function)]() mutable {
    // By the thread itself it is one system call; from outside it would take a descriptor.
    ::pthread_setname_np(::pthread_self(), name);
    const SigpipeGuard guard;
    run();
  });
}

// The same for a thread that nobody waits for. False when the system has none left.
template <class Function>
bool RunDetached(const char* name, Function function) {
  try {
    StartThread(name, std::move(function)).detach();
  } catch (const std::system_error&) {
    return false;
  }
  return true;
}

}  // namespace mivo

#endif  // MIVO_BASE_LIBRARY_THREAD_H_
