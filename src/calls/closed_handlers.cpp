#include "calls/closed_handlers.h"

#include <mivo/handler.h>

#include <utility>

namespace mivo {

ClosedHandlers::ClosedHandlers(ClosedHandlers&& other) noexcept
    : objects_(std::exchange(other.objects_, {})),
      methods_(std::exchange(other.methods_, {})),
      catch_alls_(std::exchange(other.catch_alls_, {})) {}

ClosedHandlers& ClosedHandlers::operator=(ClosedHandlers&& other) noexcept {
  if (this == &other) return *this;
  Delete();
  objects_ = std::exchange(other.objects_, {});
  methods_ = std::exchange(other.methods_, {});
  catch_alls_ = std::exchange(other.catch_alls_, {});
  return *this;
}

// Two pointers may mean one object: the whole of it decides.
void ClosedHandlers::Add(IServerMethod* method) {
  if (objects_.insert(dynamic_cast<const void*>(method)).second) methods_.push_back(method);
}

void ClosedHandlers::Add(IMethodAll* catch_all) {
  if (objects_.insert(dynamic_cast<const void*>(catch_all)).second) catch_alls_.push_back(catch_all);
}

bool ClosedHandlers::Contains(const IServerMethod* method) const {
  return method != nullptr && objects_.count(dynamic_cast<const void*>(method)) != 0;
}

void ClosedHandlers::Delete() {
  // A destructor may lead back in here.
  objects_.clear();
  for (IServerMethod* const method : std::exchange(methods_, {}))
    delete method;
  for (IMethodAll* const catch_all : std::exchange(catch_alls_, {}))
    delete catch_all;
}

}  // namespace mivo
