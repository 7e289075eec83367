// Taking turns: the calls of which the whole process makes one at a time.
#ifndef MIVO_CLIENT_TURN_LOCK_H_
#define MIVO_CLIENT_TURN_LOCK_H_

#include "base/mutex.h"

namespace mivo {

// Held across a whole call, from its beginning to its return.
//
// A loop thread does not wait for its turn: the call that it would wait for may be waiting for this very thread.
class TurnLock {
 public:
  enum class Turn {
    kCall,       // SendMsg and PostMsg
    kLargeCall,  // SendMsgEx, whose slices are calls
  };

  explicit TurnLock(Turn turn);
  ~TurnLock();
  TurnLock(const TurnLock&) = delete;
  TurnLock& operator=(const TurnLock&) = delete;

 private:
  Mutex* const mutex_;  // null: taken without waiting
};

}  // namespace mivo

#endif  // MIVO_CLIENT_TURN_LOCK_H_
