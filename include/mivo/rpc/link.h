// What stands behind a client: its connection, and how it comes back.
#ifndef MIVO_RPC_LINK_H_
#define MIVO_RPC_LINK_H_

#include <mivo/calls.h>
#include <mivo/connections.h>
#include <mivo/export.h>
#include <mivo/params.h>
#include <mivo/rpc/boundary.h>

namespace mivo {
namespace rpc {

// Times are in milliseconds. That of a call is as <mivo/calls.h> has it: below 1 there is no limit.
struct LinkOptions {
  AddressKind kind;
  const char* where;
  const char* port;
  const char* address;  // all of it, for messages
  int connect_timeout_ms;
  int post_timeout_ms;  // of one that waits for a connection
  bool reconnects;
  bool waits_while_away;
  int shortest_pause_ms;
  int longest_pause_ms;
};

// Any thread, several at a time, until End. What it is given, it keeps a copy of. New functions are added behind the
// others.
class MIVO_EXPORT Link {
 public:
  virtual bool reconnects() const = 0;
  virtual bool is_ready() const = 0;

  // False if there is a handler of the name; then `handler` is deleted. What cannot be deleted while others run it
  // lives until Destroy.
  virtual bool Offer(OfferedHandler* handler) = 0;

  // Of one that reconnects: once for each connection, on a thread of its own.
  virtual void OnReady(ReadyAction* action) = 0;
  virtual void RetryNow() = 0;
  virtual void LastError(TextSink& text) const = 0;
  virtual bool WaitUntilReady(int timeout_ms) = 0;

  // As the functions of <mivo/calls.h>, and again with another connection where that does no harm, or, if the call is
  // idempotent, no more than its caller wants. What is sent later is taken out of `request`.
  virtual CallOutcome Call(const char* name, MIVOParams& request, int timeout_ms, bool is_idempotent,
                           MIVOParams& reply) = 0;
  virtual void CallAsync(const char* name, MIVOParams& request, int timeout_ms, bool is_idempotent,
                         CallCompletion* completion) = 0;
  virtual void Post(const char* name, MIVOParams& request) = 0;

  // Wakes and sees out whoever is inside, and waits for what runs on the link's own threads. No other call after this.
  // False in a handler, completion or ready action of its own, which could not be waited for: then it has only ended
  // the connection, and stays as it is.
  virtual bool End() = 0;
  // After an End that was true. Waits for handlers, and tells every completion that was not told yet.
  virtual void Destroy() = 0;

 protected:
  ~Link() = default;
};

// One that does not reconnect is connected when this returns; null, and `error` was told why, if it cannot be. One that
// reconnects connects on its own thread.
MIVO_EXPORT Link* OpenLink(const LinkOptions& options, TextSink& error);

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_LINK_H_
