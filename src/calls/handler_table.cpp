#include "calls/handler_table.h"

#include <mivo/handler.h>

#include "calls/in_order_method.h"

namespace mivo {

HandlerTable::~HandlerTable() = default;

void HandlerTable::Register(const char* name, IServerMethod* handler) {
  MutexLock lock(mutex_);
  const auto [entry, is_new] = methods_.emplace(name == nullptr ? "" : name, handler);
  if (!is_new && second_ == SecondRegistration::kReplaces) entry->second = handler;
}

void HandlerTable::RegisterCatchAll(IMethodAll* handler) {
  MutexLock lock(mutex_);
  if (catch_all_ == nullptr || second_ == SecondRegistration::kReplaces) catch_all_ = handler;
}

void HandlerTable::RegisterBuiltin(const char* name, IServerMethod* handler) {
  MutexLock lock(mutex_);
  builtins_.insert(handler);
  methods_.emplace(name, handler);
}

void HandlerTable::RegisterInOrder(const char* name, InOrderMethod* handler) {
  RegisterBuiltin(name, handler);
  MutexLock lock(mutex_);
  in_order_[name] = handler;
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

InOrderMethod* HandlerTable::FindInOrder(std::string_view name) const {
  MutexLock lock(mutex_);
  const auto in_order = in_order_.find(name);
  if (!open_ || in_order == in_order_.end()) return nullptr;
  const auto registered = methods_.find(name);
  return registered != methods_.end() && registered->second == in_order->second ? in_order->second : nullptr;
}

void HandlerTable::Open() {
  MutexLock lock(mutex_);
  open_ = true;
}

bool HandlerTable::Close(const IServerMethod* handler) {
  MutexLock lock(mutex_);
  open_ = false;
  // A server whose handlers are the application's keeps them registered for its next start.
  if (keep_ && second_ == SecondRegistration::kReplaces) return false;

  if (!keep_) {
    for (const auto& [name, method] : methods_) {
      if (method != nullptr && builtins_.count(method) == 0) closed_methods_.insert(method);
    }
    if (catch_all_ != nullptr) closed_catch_alls_.insert(catch_all_);
  }
  methods_.clear();
  catch_all_ = nullptr;
  for (const IServerMethod* const closed : closed_methods_) {
    if (closed == handler) return true;
  }
  return false;
}

void HandlerTable::Release() {
  std::set<IServerMethod*> methods;
  std::set<IMethodAll*> catch_alls;
  {
    MutexLock lock(mutex_);
    methods.swap(closed_methods_);
    catch_alls.swap(closed_catch_alls_);
  }
  // Their destructors are the application's code: without the lock.
  for (IServerMethod* const method : methods)
    delete method;
  for (IMethodAll* const catch_all : catch_alls)
    delete catch_all;
}

}  // namespace mivo
