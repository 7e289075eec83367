// A handler for which the order of its requests counts.
#ifndef MIVO_CALLS_IN_ORDER_METHOD_H_
#define MIVO_CALLS_IN_ORDER_METHOD_H_

#include <mivo/handler.h>

#include <memory>
#include <string_view>

namespace mivo {

// The pool keeps no order: of two requests that wait for a thread, the later one may run first. A handler that puts
// together what several requests carry hears of each when it arrives.
class InOrderMethod : public IServerMethod {
 public:
  // Loop thread, in the order of arrival. Returns what is called in place of this handler for the one request, at most
  // once, on the pool. Deleted without a call, it takes the request back. `arguments`, encoded, outlive it.
  virtual std::unique_ptr<IServerMethod> Arrive(std::string_view arguments) = 0;
};

}  // namespace mivo

#endif  // MIVO_CALLS_IN_ORDER_METHOD_H_
