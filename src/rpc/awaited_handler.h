// A handler of a client's.
#ifndef MIVO_RPC_AWAITED_HANDLER_H_
#define MIVO_RPC_AWAITED_HANDLER_H_

#include <mivo/calls.h>
#include <mivo/handler.h>
#include <mivo/rpc/boundary.h>

#include <memory>
#include <utility>

#include "rpc/inside_client.h"

namespace mivo {
namespace rpc {

class AwaitedHandler final : public IServerMethod {
 public:
  AwaitedHandler(const void* client, std::shared_ptr<OfferedHandler> handler)
      : client_(client), handler_(std::move(handler)) {}

  // To be registered. What runs elsewhere than on the pool is waited for by nobody.
  IServerMethod* method() {
    IServerMethod* const own = handler_->method();
    return dynamic_cast<IInOrderMethod*>(own) != nullptr ? own : this;
  }

  void OnCall(int connection_id, MIVOParams* request, MIVOParams* reply) override {
    const InsideClient inside(client_);
    handler_->method()->OnCall(connection_id, request, reply);
  }

 private:
  const void* const client_;
  const std::shared_ptr<OfferedHandler> handler_;
};

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_AWAITED_HANDLER_H_
