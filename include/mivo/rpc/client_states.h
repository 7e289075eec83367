// What stands behind PerClient: one state for each client of a server.
#ifndef MIVO_RPC_CLIENT_STATES_H_
#define MIVO_RPC_CLIENT_STATES_H_

#include <mivo/export.h>
#include <mivo/rpc/service.h>

namespace mivo {
namespace rpc {

// Makes a state, and throws what it throws; deletes one. Any thread, without a lock that others wait for.
using MakeState = void* (*)();
using DeleteState = void (*)(void* state);

// A hold on the state of one client, on one thread at a time.
class MIVO_EXPORT StateHold {
 public:
  // Made first if it is not there; then whoever else holds it waits meanwhile. Throws what MakeState throws.
  virtual void* Get() = 0;
  // The end of the hold. Deletes the state if it was the last and the client has gone.
  virtual void Release() = 0;

 protected:
  ~StateHold() = default;
};

// Any thread, several at a time. New functions are added behind the others.
class MIVO_EXPORT ClientStates {
 public:
  // While the service lives, which must be one of CreateService.
  virtual StateHold* Of(Service& service, int client_id) = 0;
  // Holds may outlive it.
  virtual void Destroy() = 0;

 protected:
  ~ClientStates() = default;
};

MIVO_EXPORT ClientStates* CreateClientStates(MakeState make, DeleteState del);

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_CLIENT_STATES_H_
