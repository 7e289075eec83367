// The calls of which the whole process makes one at a time.
#ifndef MIVO_CLIENT_CALL_TURN_H_
#define MIVO_CLIENT_CALL_TURN_H_

#include <functional>

namespace mivo {

// Held across a whole call, from its beginning to its return.
//
// A loop thread does not wait for its turn: the call that it would wait for may be waiting for this very thread. Nor
// does a call that can come to nothing any more, so that no end of a client waits for another client's call.
class CallTurn {
 public:
  enum class Kind {
    kCall,       // SendMsg and PostMsg
    kLargeCall,  // SendMsgEx, whose slices are calls
  };

  // `is_pointless` says whether to wait no longer. It is asked under a lock, and takes none itself.
  CallTurn(Kind kind, const std::function<bool()>& is_pointless);
  ~CallTurn();
  CallTurn(const CallTurn&) = delete;
  CallTurn& operator=(const CallTurn&) = delete;

  // The wait was pointless: the call is not to be made.
  bool is_given_up() const { return is_given_up_; }

  // Has every call that waits ask again. Any thread.
  static void AskAgain();

 private:
  const Kind kind_;
  bool is_held_ = false;
  bool is_given_up_ = false;
};

}  // namespace mivo

#endif  // MIVO_CLIENT_CALL_TURN_H_
