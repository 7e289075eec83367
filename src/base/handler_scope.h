// Which objects' handlers the current thread is running.
#ifndef MIVO_BASE_HANDLER_SCOPE_H_
#define MIVO_BASE_HANDLER_SCOPE_H_

namespace mivo {

// Stands on the stack around every call of application code on behalf of a client or server. A close or a destruction
// that finds itself inside a handler of its own object must not wait for that handler to end.
class HandlerScope {
 public:
  explicit HandlerScope(const void* object);
  ~HandlerScope();
  HandlerScope(const HandlerScope&) = delete;
  HandlerScope& operator=(const HandlerScope&) = delete;

  // Whether the calling thread is inside a handler of `object`, directly or below handlers of others.
  static bool Inside(const void* object);

 private:
  const void* const object_;
  HandlerScope* const outer_;
};

}  // namespace mivo

#endif  // MIVO_BASE_HANDLER_SCOPE_H_
