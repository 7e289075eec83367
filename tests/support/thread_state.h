// What the kernel says about a thread of this process.
#ifndef MIVO_TESTS_SUPPORT_THREAD_STATE_H_
#define MIVO_TESTS_SUPPORT_THREAD_STATE_H_

#include "support/event.h"

#include <fstream>
#include <string>

namespace mivo_test {

// True once the thread sleeps, and has not been awake for some time: it waits for something.
inline bool WaitUntilAsleep(int thread_id, std::chrono::milliseconds patience = kPatience) {
  const std::string folder = "/proc/self/task/" + std::to_string(thread_id);
  long last_switches = -1;
  int steady = 0;
  return Eventually(
      [&] {
        std::ifstream status(folder + "/status");
        bool asleep = false;
        long switches = 0;
        std::string word;
        while (status >> word) {
          if (word == "State:") {
            std::string state;
            status >> state;
            asleep = state == "S";
          } else if (word == "voluntary_ctxt_switches:" || word == "nonvoluntary_ctxt_switches:") {
            long count = 0;
            status >> count;
            switches += count;
          }
        }
        steady = asleep && switches == last_switches ? steady + 1 : 0;
        last_switches = switches;
        return steady >= 20;
      },
      patience);
}

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_THREAD_STATE_H_
