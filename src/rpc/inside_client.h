// Which client's handler or completion a thread is in.
#ifndef MIVO_RPC_INSIDE_CLIENT_H_
#define MIVO_RPC_INSIDE_CLIENT_H_

#include <utility>

namespace mivo {
namespace rpc {

// A new connection waits for these, so that nobody may wait for a new connection here.
class InsideClient {
 public:
  explicit InsideClient(const void* client) : outer_(std::exchange(inside_, client)) {}
  ~InsideClient() { inside_ = outer_; }
  InsideClient(const InsideClient&) = delete;
  InsideClient& operator=(const InsideClient&) = delete;

  static bool By(const void* client) { return inside_ == client; }

 private:
  inline static thread_local const void* inside_ = nullptr;
  const void* const outer_;
};

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_INSIDE_CLIENT_H_
