// Threads that prepare and then begin together. An exception in one of them ends the program.
#ifndef MIVO_BENCH_HARNESS_CREW_H_
#define MIVO_BENCH_HARNESS_CREW_H_

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace bench {

class Crew {
 public:
  // `work` gets the thread's number and must call its second argument, which waits for Start, when it is prepared.
  using Work = std::function<void(int, const std::function<void()>&)>;
  Crew(int threads, const Work& work);
  ~Crew();
  Crew(const Crew&) = delete;
  Crew& operator=(const Crew&) = delete;

  // Waits until all are prepared, and lets them go.
  void Start();
  void Join();

 private:
  void Ready();

  std::mutex mutex_;
  std::condition_variable changed_;
  int waiting_ = 0;
  bool started_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace bench

#endif  // MIVO_BENCH_HARNESS_CREW_H_
