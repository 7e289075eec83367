// The client object: what IClient promises, put together from its parts.
#ifndef MIVO_CLIENT_MIVO_CLIENT_H_
#define MIVO_CLIENT_MIVO_CLIENT_H_

#include <mivo/calls.h>
#include <mivo/client.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "base/mutex.h"
#include "base/presence.h"
#include "base/process.h"
#include "calls/diagnostics.h"
#include "calls/handler_table.h"
#include "calls/reply_table.h"
#include "calls/request_job.h"
#include "calls/waiters.h"
#include "client/server_closed.h"
#include "largedata/recv_large_data_client.h"
#include "pool/job.h"
#include "transport/endpoint.h"
#include "transport/envelope.h"

namespace mivo {

class Session;

// See IClient. Virtual operations call each other through the table, so that a subclass can stand in for any of them.
class MIVOClient : public IClient, private RequestServer {
 public:
  MIVOClient();
  ~MIVOClient() override;

  bool InitMIVOClient(const char* name, bool threaded) override;
  bool InitMIVOClientTcp4(const char* host, const char* port, bool threaded) override;
  bool InitMIVOClientTcp6(const char* host, const char* port, bool threaded) override;
  bool isok() override;
  void SetTimeoutStep(int ms) override;
  void close() override;
  MIVOParams* SendMsg(const char* name, MIVOParams* params, int key, int timeout) override;
  MIVOParams* SendMsgFast(const char* name, MIVOParams* params, int key, int timeout) override;
  MIVOParams* SendMsgEx(const char* name, MIVOParams* params, int key, int timeout) override;
  int PostMsg(const char* name, MIVOParams* params, int key) override;
  int PostMsgFast(const char* name, MIVOParams* params, int key) override;
  void method(const char* name, IServerMethod* handler) override;
  void methodall(IMethodAll* handler) override;
  int log(char* text, int level) override;
  void SetCustomReleaseEvent() override;
  void SetBigfileBufferSize(int bytes) override;
  int GetBigfileBufferSize() override;
  void ClearRetvalMem() override;

  // Sends `params`, with the name and `key` added to it, in slices of one call each. True: every slice was sent,
  // whatever was answered.
  bool SendMsgLargeData(const char* name, MIVOParams* params, int key, int timeout);

  // See <mivo/calls.h>.
  CallOutcome CallApart(const char* name, const MIVOParams* params, int timeout_ms, MIVOParams& reply);
  void CallAsync(const char* name, const MIVOParams* params, int timeout_ms,
                 std::unique_ptr<CallCompletion> completion);

  // See <mivo/connections.h>.
  int Connect(Endpoint endpoint, int timeout_ms);
  void BeQuiet() { print_.BeQuiet(); }

  // Sees out the calls that wait for their turn, and lets no further one wait. Those that are sent are seen out by the
  // close.
  void AbandonTurns();

  // Whether the calling thread runs a handler or notice of this client, which cannot wait for the client's end.
  bool IsInsideItself();

  // False in a child of fork, which has a copy that nothing makes work.
  bool IsOfThisProcess() const { return process_.IsThisProcess(); }

 private:
  // What a call brought: the reply as it came, or why there is none.
  struct Answer {
    std::optional<std::string> reply;
    int error;
  };

  bool Init(Endpoint endpoint);
  // 0, or the negative errno: -EISCONN if there is nothing to be done.
  int MayConnect();
  int Open(Endpoint endpoint, std::int64_t deadline_ms) MIVO_REQUIRES(init_mutex_);
  enum class Turn { kTaken, kNone };
  int CheckServer(Turn turn, int timeout_ms);
  // A call up to its reply. The library's own calls end here: nobody can free a reply that is in no table. The caller
  // counts among callers_.
  Answer Ask(Waiter::Of of, const char* name, const MIVOParams* params, int call_key, int timeout);
  Answer AskInTurn(const char* name, const MIVOParams* params, int call_key, int timeout);
  bool SendSlices(const std::string& whole, int key, int call_key, int timeout);
  Answer NotConnected();

  // RequestServer.
  void Serve(const Request& request, MIVOParams* reply) override;
  ReplyTail tail() const override { return &AppendClientReplyTail; }

  // Null in a child of fork: what its copy of the client looks like is not to be asked.
  std::shared_ptr<Session> CurrentSession();
  // For CallTurn: whether a call on the connection of now can come to nothing any more.
  std::function<bool()> IsPointless();
  void BeginSession(std::shared_ptr<Session> session);
  void DropSession(const std::shared_ptr<Session>& session);

  const ProcessMark process_;
  Diagnostics print_;
  HandlerTable handlers_{HandlerTable::Rules::kOfAClient};
  ReplyTable replies_{ReplyTable::Retention::kUntilNextCall};
  ReplyTable large_replies_{ReplyTable::Retention::kUntilNextCall};
  RecvLargeDataClient large_data_receiver_;
  ServerClosed server_closed_;
  Presence callers_;
  // Calls that nobody waits for; none is dropped, for each is told how it has ended.
  JobGroup async_calls_;
  // Set by whoever destroys the client, read by those who wait for their turn.
  std::atomic<bool> turns_abandoned_{false};

  Mutex init_mutex_;     // one Init at a time, its handshake included
  Mutex session_mutex_;  // also makes one step of a session's beginning and end and those of the handler table
  std::shared_ptr<Session> session_ MIVO_GUARDED_BY(session_mutex_);
};

}  // namespace mivo

#endif  // MIVO_CLIENT_MIVO_CLIENT_H_
