// What an object answers by itself: which methods it offers, and that it lacks one.
#ifndef MIVO_RPC_OFFERED_METHODS_H_
#define MIVO_RPC_OFFERED_METHODS_H_

#include <mivo/handler.h>
#include <mivo/rpc/any_handler.h>
#include <mivo/rpc/message.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace mivo {
namespace rpc {

// Answers kMethodsMethod. Any thread.
class OfferedMethods final : public IServerMethod {
 public:
  // In place of one of that name.
  void Add(std::shared_ptr<Handler> handler) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::string name = handler->name();
    handlers_[name] = std::move(handler);
  }
  void Tell(bool on) { is_told_ = on; }

  void OnCall(int, MIVOParams*, MIVOParams* reply) override {
    if (!is_told_) return AddError(*reply, NoSuchMethod::kCode, "what there is, is not told");
    std::vector<Method> all;
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [name, handler] : handlers_)
      all.push_back(handler->Describe());
    AddArgument(*reply, all);
  }

 private:
  std::mutex mutex_;
  std::map<std::string, std::shared_ptr<Handler>> handlers_;
  std::atomic<bool> is_told_{true};
};

// Of a client, for every name that it has no handler for.
class UnknownMethod final : public IServerMethod {
 public:
  void OnCall(int, MIVOParams*, MIVOParams* reply) override {
    AddError(*reply, NoSuchMethod::kCode, "the client offers no such method");
  }
};

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_OFFERED_METHODS_H_
