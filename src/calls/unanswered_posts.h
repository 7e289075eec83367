// Posts whose answers are still to come.
#ifndef MIVO_CALLS_UNANSWERED_POSTS_H_
#define MIVO_CALLS_UNANSWERED_POSTS_H_

#include <map>

#include "base/mutex.h"

namespace mivo {

// A server answers posts as it answers calls, under the same key, only without a token. Such an answer must not be
// taken for that of a call on the key which is waiting meanwhile. Any thread.
class UnansweredPosts {
 public:
  void Sent(int key) {
    MutexLock lock(mutex_);
    ++count_[key];
  }

  // Whether an answer under `key` without a token belongs to a post; if so, it is that post's.
  bool TakeAnswer(int key) {
    MutexLock lock(mutex_);
    const std::map<int, int>::iterator found = count_.find(key);
    if (found == count_.end()) return false;
    if (--found->second == 0) count_.erase(found);
    return true;
  }

 private:
  Mutex mutex_;
  std::map<int, int> count_ MIVO_GUARDED_BY(mutex_);
};

}  // namespace mivo

#endif  // MIVO_CALLS_UNANSWERED_POSTS_H_
