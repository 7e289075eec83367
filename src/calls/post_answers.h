// Answers to posts that are still to come.
#ifndef MIVO_CALLS_POST_ANSWERS_H_
#define MIVO_CALLS_POST_ANSWERS_H_

#include <cstddef>
#include <map>
#include <string_view>

#include "base/mutex.h"
#include "transport/envelope.h"

namespace mivo {

// A server answers posts as it answers calls, under the same key, only without a token. Such an answer must not be
// taken for that of a call on the key which is waiting meanwhile. Any thread.
class PostAnswers {
 public:
  void Expect(int key) {
    MutexLock lock(mutex_);
    // Of a server that never answers, the lowest keys are forgotten: an answer to one of them would then count as one
    // that came for nobody.
    if (expected_.size() >= kMostKeys && expected_.count(key) == 0) expected_.erase(expected_.begin());
    ++expected_[key];
  }

  // A call that asks the server to close under `key` was sent: its answer names no waiter either, and comes before
  // those to posts that the server has not served yet.
  void ExpectOfClose(int key) {
    MutexLock lock(mutex_);
    if (of_close_.size() < kMostKeys) ++of_close_[key];
  }

  // Whether an answer without a token, `reply`, is the one to such a call.
  bool TakeOfClose(int key, std::string_view reply) {
    MutexLock lock(mutex_);
    const std::map<int, int>::iterator found = of_close_.find(key);
    if (found == of_close_.end() || reply != CloseAnswer(key)) return false;
    if (--found->second == 0) of_close_.erase(found);
    return true;
  }

  // Whether an answer under `key` without a token belongs to a post; if so, it is that post's.
  bool Take(int key) {
    MutexLock lock(mutex_);
    const std::map<int, int>::iterator found = expected_.find(key);
    if (found == expected_.end()) return false;
    if (--found->second == 0) expected_.erase(found);
    return true;
  }

 private:
  static constexpr std::size_t kMostKeys = 65536;

  Mutex mutex_;
  std::map<int, int> expected_ MIVO_GUARDED_BY(mutex_);
  std::map<int, int> of_close_ MIVO_GUARDED_BY(mutex_);
};

}  // namespace mivo

#endif  // MIVO_CALLS_POST_ANSWERS_H_
