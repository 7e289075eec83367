// What happened, in order, written down by any thread.
#ifndef MIVO_TESTS_SUPPORT_JOURNAL_H_
#define MIVO_TESTS_SUPPORT_JOURNAL_H_

#include "support/event.h"

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

namespace mivo_test {

using Lines = std::vector<std::string>;

class Journal {
 public:
  void Add(const std::string& line) {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(line);
  }

  Lines lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }

  bool Contains(const std::string& line) const {
    const Lines all = lines();
    return std::find(all.begin(), all.end(), line) != all.end();
  }

  // How many lines begin like this.
  int CountOf(const std::string& beginning) const {
    const Lines all = lines();
    return static_cast<int>(std::count_if(all.begin(), all.end(), [&](const std::string& line) {
      return line.compare(0, beginning.size(), beginning) == 0;
    }));
  }

  // The first line that begins like this; -1 when there is none.
  int IndexOf(const std::string& beginning) const {
    const Lines all = lines();
    for (std::size_t i = 0; i < all.size(); ++i) {
      if (all[i].compare(0, beginning.size(), beginning) == 0) return static_cast<int>(i);
    }
    return -1;
  }

  bool WaitForSize(std::size_t size, std::chrono::milliseconds patience = kPatience) const {
    return Eventually([&] { return lines().size() >= size; }, patience);
  }
  bool WaitFor(const std::string& beginning, int count = 1, std::chrono::milliseconds patience = kPatience) const {
    return Eventually([&] { return CountOf(beginning) >= count; }, patience);
  }

 private:
  mutable std::mutex mutex_;
  Lines lines_;
};

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_JOURNAL_H_
