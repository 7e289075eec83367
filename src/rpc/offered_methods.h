// What an object answers by itself: which methods it offers, and that it lacks one.
#ifndef MIVO_RPC_OFFERED_METHODS_H_
#define MIVO_RPC_OFFERED_METHODS_H_

#include <mivo/handler.h>
#include <mivo/params.h>
#include <mivo/rpc/boundary.h>

#include <atomic>
#include <map>
#include <memory>
#include <string>

#include "base/mutex.h"

namespace mivo {
namespace rpc {

// An error in place of a result.
void AnswerNoSuchMethod(MIVOParams& reply, const std::string& text);

// Answers kMethodsMethod. Any thread.
class OfferedMethods final : public IServerMethod {
 public:
  // In place of one of that name.
  void Add(std::shared_ptr<OfferedHandler> handler);
  void Tell(bool on) { is_told_ = on; }

  void OnCall(int, MIVOParams*, MIVOParams* reply) override;

 private:
  Mutex mutex_;
  std::map<std::string, std::shared_ptr<OfferedHandler>> handlers_ MIVO_GUARDED_BY(mutex_);
  std::atomic<bool> is_told_{true};
};

// Of a client, for every name that it has no handler for.
class UnknownOfClient final : public IServerMethod {
 public:
  void OnCall(int, MIVOParams*, MIVOParams* reply) override;
};

// The same of a server.
class UnknownOfServer final : public IMethodAll {
 public:
  void OnCall(const char* name, int, MIVOParams*, MIVOParams* reply) override;
};

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_OFFERED_METHODS_H_
