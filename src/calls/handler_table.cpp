#include "calls/handler_table.h"

#include <mivo/calls.h>
#include <mivo/handler.h>

namespace mivo {

void HandlerTable::Register(const char* name, IServerMethod* handler) {
  if (dynamic_cast<IInOrderMethod*>(handler) != nullptr) has_in_order_ = true;
  MutexLock lock(mutex_);
  const auto [entry, is_new] = methods_.emplace(name == nullptr ? "" : name, handler);
  if (!is_new && rules_ == Rules::kOfAServer) entry->second = handler;
}

void HandlerTable::RegisterCatchAll(IMethodAll* handler) {
  MutexLock lock(mutex_);
  if (catch_all_ == nullptr || rules_ == Rules::kOfAServer) catch_all_ = handler;
}

void HandlerTable::RegisterBuiltin(const char* name, IServerMethod* handler) {
  MutexLock lock(mutex_);
  builtins_.insert(handler);
  methods_.emplace(name, handler);
}

void HandlerTable::KeepHandlers() {
  MutexLock lock(mutex_);
  keep_ = true;
}

IServerMethod* HandlerTable::Find(std::string_view name) const {
  MutexLock lock(mutex_);
  if (!open_) return nullptr;
  const auto found = methods_.find(name);
  return found == methods_.end() ? nullptr : found->second;
}

IMethodAll* HandlerTable::CatchAll() const {
  MutexLock lock(mutex_);
  return open_ ? catch_all_ : nullptr;
}

bool HandlerTable::IsUnder(std::string_view name, const IServerMethod& handler) const {
  return Find(name) == &handler;
}

bool HandlerTable::IsInOrder(std::string_view name) const {
  return has_in_order_.load(std::memory_order_relaxed) && dynamic_cast<IInOrderMethod*>(Find(name)) != nullptr;
}

void HandlerTable::Open() {
  MutexLock lock(mutex_);
  open_ = true;
}

ClosedHandlers HandlerTable::Close() {
  ClosedHandlers closed;
  MutexLock lock(mutex_);
  open_ = false;
  if (keep_ && rules_ == Rules::kOfAServer) return closed;

  for (auto entry = methods_.begin(); entry != methods_.end();) {
    if (builtins_.count(entry->second) != 0) {
      ++entry;
      continue;
    }
    if (!keep_ && entry->second != nullptr) closed.Add(entry->second);
    entry = methods_.erase(entry);
  }
  if (!keep_ && catch_all_ != nullptr) closed.Add(catch_all_);
  catch_all_ = nullptr;
  return closed;
}

}  // namespace mivo
