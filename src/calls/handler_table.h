// The handlers of a client or server, and their end.
#ifndef MIVO_CALLS_HANDLER_TABLE_H_
#define MIVO_CALLS_HANDLER_TABLE_H_

#include <atomic>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "base/mutex.h"
#include "base/thread_annotations.h"
#include "calls/closed_handlers.h"

class IMethodAll;
class IServerMethod;

namespace mivo {

// Any thread. The application registers handlers and gives them away; the table's owner registers built-in ones, which
// stay its own.
//
// The end comes in two steps, for a handler must not be deleted while it runs: Close makes every look-up find nothing,
// and gives what there was to the caller, who lets go of it once nothing runs any more.
class HandlerTable {
 public:
  enum class Rules {
    // The first registration of a name counts. Handlers that the application keeps are forgotten by a close.
    kOfAClient,
    // The last registration counts. Handlers that the application keeps are there again after the next start.
    kOfAServer,
  };

  explicit HandlerTable(Rules rules) : rules_(rules) {}
  HandlerTable(const HandlerTable&) = delete;
  HandlerTable& operator=(const HandlerTable&) = delete;

  void Register(const char* name, IServerMethod* handler);
  void RegisterCatchAll(IMethodAll* handler);

  // Enters a handler that is never deleted and outlasts every close, unless the name is taken.
  void RegisterBuiltin(const char* name, IServerMethod* handler);

  // From now on the application deletes its handlers.
  void KeepHandlers();

  // Null if there is none.
  IServerMethod* Find(std::string_view name) const;
  IMethodAll* CatchAll() const;

  // Whether `handler` stands under `name`, and nobody else.
  bool IsUnder(std::string_view name, const IServerMethod& handler) const;

  // Whether requests of that name are to be served by whoever reads.
  bool IsInOrder(std::string_view name) const;

  // Look-ups work again, of what was registered meanwhile.
  void Open();

  // Look-ups find nothing from now on. Returns the handlers that are to be deleted.
  [[nodiscard]] ClosedHandlers Close();

 private:
  const Rules rules_;
  mutable Mutex mutex_;
  bool open_ MIVO_GUARDED_BY(mutex_) = true;
  bool keep_ MIVO_GUARDED_BY(mutex_) = false;
  std::map<std::string, IServerMethod*, std::less<>> methods_ MIVO_GUARDED_BY(mutex_);
  // Most tables never have one: then nobody asks further.
  std::atomic<bool> has_in_order_{false};
  std::set<const IServerMethod*> builtins_ MIVO_GUARDED_BY(mutex_);
  IMethodAll* catch_all_ MIVO_GUARDED_BY(mutex_) = nullptr;
};

}  // namespace mivo

#endif  // MIVO_CALLS_HANDLER_TABLE_H_
