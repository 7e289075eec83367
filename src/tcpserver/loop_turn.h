// Knowing that a loop is being turned.
#ifndef MIVO_TCPSERVER_LOOP_TURN_H_
#define MIVO_TCPSERVER_LOOP_TURN_H_

#include <uv.h>

namespace mivo {

// libuv cannot be asked whether a loop is inside uv_run, and must not be entered twice. A LoopTurn stands on the stack
// while this room runs a loop, and while it runs a callback of the application's, whoever runs the loop.
class LoopTurn {
 public:
  enum class Purpose {
    kServe,  // as the application wants it
    kDrain,  // only to let handles finish closing
  };

  explicit LoopTurn(const uv_loop_t* loop, Purpose purpose = Purpose::kServe);
  ~LoopTurn();
  LoopTurn(const LoopTurn&) = delete;
  LoopTurn& operator=(const LoopTurn&) = delete;

  // By this thread or another. Any thread.
  static bool IsRunning(const uv_loop_t* loop);

  // By this thread, to let handles finish closing.
  static bool IsDraining(const uv_loop_t* loop);

 private:
  const uv_loop_t* const loop_;
  const Purpose purpose_;
  const LoopTurn* const outer_;
  const bool listed_;
};

}  // namespace mivo

#endif  // MIVO_TCPSERVER_LOOP_TURN_H_
