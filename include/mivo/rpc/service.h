// What stands behind a server: its thread, its handlers, and who is connected.
#ifndef MIVO_RPC_SERVICE_H_
#define MIVO_RPC_SERVICE_H_

#include <mivo/connections.h>
#include <mivo/export.h>
#include <mivo/rpc/boundary.h>

class IServer;

namespace mivo {
namespace rpc {

// Any thread, several at a time. New functions are added behind the others.
class MIVO_EXPORT Service {
 public:
  virtual IServer& server() = 0;

  // In place of one of that name, which lives on until Destroy.
  virtual void Offer(OfferedHandler* handler) = 0;
  // Whether clients are told which methods there are.
  virtual void Describe(bool on) = 0;
  // For each client, in the order in which they were given, on the thread that serves.
  virtual void OnConnect(ClientAction* action) = 0;
  virtual void OnDisconnect(ClientAction* action) = 0;

  // 0, or a negative errno as of Listen; serving begins with the other: false if there is no thread to be had.
  virtual int Listen(AddressKind kind, const char* where, const char* port) = 0;
  virtual bool Serve() = 0;
  // Ends all connections, and waits for handlers that run on the pool. False in one of these: then it only begins.
  virtual bool Close() = 0;
  // After a Close that was true, which tells of nobody's end.
  virtual void ForgetClients() = 0;
  // After both.
  virtual void Destroy() = 0;

  // The names of the handlers that have requests, one after the other.
  virtual void Running(TextSink& names) const = 0;
  // Who is connected, one after the other; `action` stays the caller's.
  virtual void EachClient(ClientAction& action) const = 0;
  virtual bool IsConnected(int client_id) const = 0;

 protected:
  ~Service() = default;
};

// Belongs to the caller, who ends it with Close, ForgetClients and Destroy.
MIVO_EXPORT Service* CreateService();

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_SERVICE_H_
