// Handlers that were taken out of a table and are to be deleted.
#ifndef MIVO_CALLS_CLOSED_HANDLERS_H_
#define MIVO_CALLS_CLOSED_HANDLERS_H_

#include <set>
#include <vector>

class IMethodAll;
class IServerMethod;

namespace mivo {

// Deletes what it holds, each object once: at its end, or when it is told to. Whoever holds one has to see that none of
// them runs any more by then.
class ClosedHandlers {
 public:
  ClosedHandlers() = default;
  ~ClosedHandlers() { Delete(); }
  ClosedHandlers(ClosedHandlers&& other) noexcept;
  ClosedHandlers& operator=(ClosedHandlers&& other) noexcept;

  // One object may stand under several names, and be a method and a catch-all.
  void Add(IServerMethod* method);
  void Add(IMethodAll* catch_all);

  bool Contains(const IServerMethod* method) const;

  // The destructors are the application's code: without a lock. May be repeated.
  void Delete();

 private:
  std::set<const void*> objects_;
  std::vector<IServerMethod*> methods_;
  std::vector<IMethodAll*> catch_alls_;
};

}  // namespace mivo

#endif  // MIVO_CALLS_CLOSED_HANDLERS_H_
