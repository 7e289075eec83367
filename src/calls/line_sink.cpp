#include "calls/line_sink.h"

#include <mivo/handler.h>
#include <mivo/params.h>

#include <cassert>
#include <exception>
#include <utility>

#include "base/handler_scope.h"
#include "base/printable.h"
#include "base/standard_output.h"

namespace mivo {

namespace {

void Call(IServerMethod& sink, const char* line) {
  try {
    MIVOParams params;
    params.AddString(line);
    params.ToParams();
    sink.OnCall(0, &params, nullptr);
  } catch (const std::exception& error) {
    PrintDirect("handler s_c_log: %s\n", Printable(error.what()).c_str());
  } catch (...) {
    PrintDirect("handler s_c_log: unknown exception\n");
  }
}

}  // namespace

thread_local LineSink::Visit* LineSink::current_visit = nullptr;

LineSink::~LineSink() {
  assert(current_visit == nullptr || current_visit->host != this);
  MutexLock lock(mutex_);
  while (visits_ != nullptr)
    left_.Wait(mutex_);
}

void LineSink::Set(IServerMethod* sink) {
  MutexLock lock(mutex_);
  sink_ = sink;
}

IServerMethod* LineSink::Get() const {
  MutexLock lock(mutex_);
  return sink_;
}

bool LineSink::Take(const char* line) {
  Visit visit{this, nullptr, nullptr, {}};
  if (current_visit != nullptr || !Enter(visit)) return false;
  current_visit = &visit;
  {
    const HandlerScope handler_scope(owner_);
    Call(*visit.sink, line);
    // Inside the scope: a destructor of the application's may destroy the owner, which must not wait for this thread.
    for (ClosedHandlers& handlers : visit.to_delete)
      DeleteWhenOthersHaveLeft(std::move(handlers), &visit);
  }
  current_visit = nullptr;
  Leave(visit);
  return true;
}

bool LineSink::Enter(Visit& visit) {
  MutexLock lock(mutex_);
  if (sink_ == nullptr) return false;
  visit.sink = sink_;
  visit.next = visits_;
  visits_ = &visit;
  return true;
}

// The object may be gone afterwards.
void LineSink::Leave(const Visit& visit) {
  MutexLock lock(mutex_);
  Visit** link = &visits_;
  while (*link != &visit)
    link = &(*link)->next;
  *link = visit.next;
  left_.NotifyAll();
}

void LineSink::Remove(const ClosedHandlers& handlers) {
  MutexLock lock(mutex_);
  if (handlers.Contains(sink_)) sink_ = nullptr;
}

void LineSink::Delete(ClosedHandlers handlers) {
  Remove(handlers);
  Visit* const own = current_visit != nullptr && current_visit->host == this ? current_visit : nullptr;
  if (own != nullptr && handlers.Contains(own->sink)) {
    own->to_delete.push_back(std::move(handlers));
  } else {
    DeleteWhenOthersHaveLeft(std::move(handlers), own);
  }
}

void LineSink::DeleteWhenOthersHaveLeft(ClosedHandlers handlers, const Visit* own) {
  {
    MutexLock lock(mutex_);
    for (const Visit* visit = visits_; visit != nullptr;) {
      if (visit != own && handlers.Contains(visit->sink)) {
        left_.Wait(mutex_);
        visit = visits_;  // not the list it was
      } else {
        visit = visit->next;
      }
    }
  }
  handlers.Delete();
}

}  // namespace mivo
