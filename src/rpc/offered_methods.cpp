#include "rpc/offered_methods.h"

#include <mivo/rpc/wire_names.h>

#include <utility>

namespace mivo {
namespace rpc {

void AnswerNoSuchMethod(MIVOParams& reply, const std::string& text) {
  reply.AddKeyValueString(kErrorKey, kNoSuchMethodCode);
  reply.AddKeyValueString(kErrorTextKey, text.c_str());
}

void OfferedMethods::Add(std::shared_ptr<OfferedHandler> handler) {
  const std::string name = handler->name();
  MutexLock lock(mutex_);
  handlers_[name] = std::move(handler);
}

void OfferedMethods::OnCall(int, MIVOParams*, MIVOParams* reply) {
  if (!is_told_) return AnswerNoSuchMethod(*reply, "what there is, is not told");
  MIVOParams all;
  MutexLock lock(mutex_);
  for (const auto& [name, handler] : handlers_)
    handler->Describe(all);
  reply->AddStream(all.GetParamasPtr(), all.GetParamasSize());
}

void UnknownOfClient::OnCall(int, MIVOParams*, MIVOParams* reply) {
  AnswerNoSuchMethod(*reply, "the client offers no such method");
}

void UnknownOfServer::OnCall(const char* name, int, MIVOParams*, MIVOParams* reply) {
  AnswerNoSuchMethod(*reply, std::string(name) + ": there is no such method");
}

}  // namespace rpc
}  // namespace mivo
