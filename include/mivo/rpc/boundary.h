// What the typed layer, which is compiled into programs, and the library hand each other. No type of the standard
// library is in it: the two may have been built by different compilers.
#ifndef MIVO_RPC_BOUNDARY_H_
#define MIVO_RPC_BOUNDARY_H_

#include <mivo/export.h>
#include <mivo/handler.h>
#include <mivo/params.h>

#include <cstddef>

namespace mivo {
namespace rpc {

// Takes texts of the library's. They hold until it returns.
class MIVO_EXPORT TextSink {
 public:
  virtual void Take(const char* text, std::size_t length) = 0;

 protected:
  ~TextSink() = default;
};

// What follows is made with new and given to the library, which deletes it when the object it was given to has ended,
// or earlier if it cannot be needed any more. Nothing of it throws.

// A handler and its name.
class MIVO_EXPORT OfferedHandler {
 public:
  virtual ~OfferedHandler() = default;
  virtual const char* name() const = 0;
  // To be registered under the name; lives as long as this.
  virtual IServerMethod* method() = 0;
  // Requests that it has taken and not answered. Any thread.
  virtual int running() const = 0;
  // Adds one value. Any thread.
  virtual void Describe(MIVOParams& list) const = 0;
};

// To be done when a connection stands.
class MIVO_EXPORT ReadyAction {
 public:
  virtual ~ReadyAction() = default;
  // False: it has failed, and `error` was told why.
  virtual bool Run(TextSink& error) = 0;
};

// To be done for a client of a server.
class MIVO_EXPORT ClientAction {
 public:
  virtual ~ClientAction() = default;
  virtual void Run(int client_id) = 0;
};

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_BOUNDARY_H_
