// Sends large results back to a client, slice after slice, without a thread that waits.
#ifndef MIVO_LARGEDATA_RESULT_TRANSFER_H_
#define MIVO_LARGEDATA_RESULT_TRANSFER_H_

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "calls/waiters.h"
#include "transport/frame.h"

namespace mivo {

class Connection;

// Each slice is a call of its own: the next one is sent by whoever finds its answer, or by the sweep that ends the wait
// for it. So a client that does not answer keeps nobody waiting.
//
// Alive as long as a slice of it waits for an answer. One thread at a time.
class ResultTransfer : public std::enable_shared_from_this<ResultTransfer> {
 public:
  // Lists the waiter and sends the request. False, or an exception, if nobody will wake the waiter: the connection has
  // gone, or there is no memory.
  using Begin = std::function<bool(Connection& connection, Waiter& waiter, Frame request)>;

  // Sends `wholes`, encoded results, one after another under `key`, then calls `done`; if the connection goes, without
  // sending the rest. A slice that is not answered before any other was ends the transfer; later ones are passed over.
  ResultTransfer(std::shared_ptr<Connection> connection, int key, std::vector<std::string> wholes, Begin begin,
                 std::function<void()> done);

  ~ResultTransfer();

  void Start();

 private:
  class SliceWaiter;

  void SendNext();
  void Answered(bool has_answer);

  const std::shared_ptr<Connection> connection_;
  const int key_;
  std::vector<std::string> wholes_;
  const Begin begin_;
  const std::function<void()> done_;
  std::size_t slice_size_ = 0;
  std::size_t whole_ = 0;   // which one
  std::size_t offset_ = 0;  // in that one
  bool has_answer_ = false;
};

}  // namespace mivo

#endif  // MIVO_LARGEDATA_RESULT_TRANSFER_H_
