#include "harness/crew.h"

#include <unistd.h>

#include <exception>
#include <iostream>

namespace bench {

Crew::Crew(int threads, const Work& work) {
  for (int number = 0; number < threads; ++number) {
    threads_.emplace_back([this, work, number] {
      try {
        work(number, [this] { Ready(); });
      } catch (const std::exception& error) {
        // The others may wait for this one, so that nobody would ever hear of it.
        std::cerr << "client: " << error.what() << std::endl;
        _exit(3);
      }
    });
  }
}

Crew::~Crew() {
  Join();
}

void Crew::Ready() {
  std::unique_lock<std::mutex> lock(mutex_);
  ++waiting_;
  changed_.notify_all();
  changed_.wait(lock, [this] { return started_; });
}

void Crew::Start() {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return waiting_ == static_cast<int>(threads_.size()); });
  started_ = true;
  changed_.notify_all();
}

void Crew::Join() {
  for (std::thread& thread : threads_) {
    if (thread.joinable()) thread.join();
  }
}

}  // namespace bench
