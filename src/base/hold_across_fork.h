// A process-wide mutex that a child of fork can use.
#ifndef MIVO_BASE_HOLD_ACROSS_FORK_H_
#define MIVO_BASE_HOLD_ACROSS_FORK_H_

#include <pthread.h>

#include "base/mutex.h"
#include "base/thread_annotations.h"

namespace mivo {

// To be called once, while the process loads. From then on the thread that forks has `mutex` for the time of the fork:
// no other thread, which the child lacks, can have it at that moment, and what it guards is whole in the child.
//
// For mutexes that are held for a few instructions, without another one. One that is held across a wait would make fork
// wait as well: renew it in the child instead.
template <Mutex& mutex>
int HoldAcrossFork() {
  return ::pthread_atfork([]() MIVO_NO_THREAD_SAFETY_ANALYSIS { mutex.lock(); },
                          []() MIVO_NO_THREAD_SAFETY_ANALYSIS { mutex.unlock(); },
                          []() MIVO_NO_THREAD_SAFETY_ANALYSIS { mutex.unlock(); });
}

}  // namespace mivo

#endif  // MIVO_BASE_HOLD_ACROSS_FORK_H_
