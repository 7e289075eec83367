// The end of a program by SIGINT or SIGTERM, without a signal handler.
//
//     int main() {
//       mivo::Signals stop;                 // first, before any thread is started
//       mivo::Server server;
//       ...
//       server.listen("unix:jobs");
//       stop.wait();
//       server.drain(5s);
//     }
#ifndef MIVO_RPC_SIGNALS_H_
#define MIVO_RPC_SIGNALS_H_

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <initializer_list>
#include <system_error>

namespace mivo {

// Holds back signals from where they would end the program, and lets somebody wait for them. They are blocked on the
// thread that makes it, and on all that are started from there; a thread that was there before may still get them.
class Signals {
 public:
  explicit Signals(std::initializer_list<int> signals = {SIGINT, SIGTERM}) {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : signals)
      sigaddset(&set, signal);
    const int error = ::pthread_sigmask(SIG_BLOCK, &set, &before_);
    if (error != 0) throw std::system_error(error, std::generic_category(), "pthread_sigmask");
    descriptor_ = ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (descriptor_ >= 0) return;
    const int failure = errno;
    ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    throw std::system_error(failure, std::generic_category(), "signalfd");
  }
  // On the thread that has made it.
  ~Signals() {
    ::close(descriptor_);
    ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

  // Waits for the next of them, and takes it. Any thread.
  int wait() const {
    for (;;) {
      if (const int signal = Wait(-1); signal != 0) return signal;
    }
  }
  // The same for a time; 0 when it is over.
  int wait_for(std::chrono::milliseconds time) const {
    const auto end = std::chrono::steady_clock::now() + time;
    for (;;) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
      if (const int signal = Wait(static_cast<int>(std::max<std::int64_t>(0, left.count()))); signal != 0)
        return signal;
      if (left.count() <= 0) return 0;
    }
  }

  // Readable when there is one: for a loop of the application's, which calls wait() then.
  int descriptor() const { return descriptor_; }

 private:
  int Wait(int timeout_ms) const {
    pollfd readable{descriptor_, POLLIN, 0};
    if (::poll(&readable, 1, timeout_ms) < 1) return 0;
    signalfd_siginfo info{};
    return ::read(descriptor_, &info, sizeof info) == sizeof info ? static_cast<int>(info.ssi_signo) : 0;
  }

  sigset_t before_{};
  int descriptor_ = -1;
};

}  // namespace mivo

#endif  // MIVO_RPC_SIGNALS_H_
