#include "base/handler_scope.h"

namespace mivo {

namespace {
thread_local HandlerScope* innermost = nullptr;
}  // namespace

HandlerScope::HandlerScope(const void* object) : object_(object), outer_(innermost) {
  innermost = this;
}

HandlerScope::~HandlerScope() {
  innermost = outer_;
}

bool HandlerScope::Inside(const void* object) {
  for (const HandlerScope* scope = innermost; scope != nullptr; scope = scope->outer_) {
    if (scope->object_ == object) return true;
  }
  return false;
}

}  // namespace mivo
