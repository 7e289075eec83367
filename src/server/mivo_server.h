// The server object: what IServer promises, put together from its parts.
#ifndef MIVO_SERVER_MIVO_SERVER_H_
#define MIVO_SERVER_MIVO_SERVER_H_

#include <mivo/calls.h>
#include <mivo/server.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "base/mutex.h"
#include "base/presence.h"
#include "base/process.h"
#include "calls/diagnostics.h"
#include "calls/handler_table.h"
#include "calls/reply_table.h"
#include "largedata/recv_large_data_server.h"
#include "loop/loop_thread.h"
#include "server/dispatch.h"
#include "transport/endpoint.h"

namespace mivo {

class Serving;

// See IServer. Virtual operations call each other through the table, so that a subclass can stand in for any of them;
// it has to be closed, and its loop thread gone, before its destructor begins.
class MIVOServer : public IServer {
 public:
  MIVOServer();
  ~MIVOServer() override;

  bool StartMIVOServer(const char* name) override;
  bool InitMIVOServer(const char* port) override;
  bool StartMIVOServerTcp4(const char* ip, const char* port) override;
  bool StartMIVOServerTcp6(const char* ip, const char* port) override;
  bool InitMIVOServerTcp4(const char* ip, const char* port) override;
  bool InitMIVOServerTcp6(const char* ip, const char* port) override;
  bool run() override;
  void SetTimeoutStep(int ms) override;
  bool isok() override;
  bool close() override;
  bool closeasync() override;
  MIVOParams* SendMsg(int clientId, const char* name, MIVOParams* params, int key, int timeout) override;
  int PostMsg(int clientId, const char* name, MIVOParams* params, int key) override;
  int log(char* path, int level) override;
  void method(const char* name, IServerMethod* handler) override;
  void methodall(IMethodAll* handler) override;
  int GetPort() override;
  int GetClientCount() override;
  bool isthread() override;
  void SetCustomReleaseEvent() override;
  void SetBigfileBufferSize(int bytes) override;
  void ClearRetvalMem() override;

  // Whether the calling thread runs a handler or notice of this server, which cannot wait for the server's end.
  bool IsInsideItself();

  // See <mivo/calls.h>.
  CallOutcome CallApart(int client_id, const char* name, const MIVOParams* params, int timeout_ms, MIVOParams& reply);
  void CallAsync(int client_id, const char* name, const MIVOParams* params, int timeout_ms,
                 std::unique_ptr<CallCompletion> completion);

  // See <mivo/connections.h>.
  int Listen(const Endpoint& endpoint);
  void StopListening();
  int RequestsUnderWay();
  int UserOf(int client_id);
  void BeQuiet() { print_.BeQuiet(); }

  // False in a child of fork, which has a copy that nothing makes work.
  bool IsOfThisProcess() const { return process_.IsThisProcess(); }

 private:
  bool StartOnThread(const char* port, const std::function<bool(const char* port)>& start);
  std::unique_ptr<RecvLargeDataServer> MakeLargeDataReceiver();
  void RegisterBuiltins();
  // Null in a child of fork: what its copy of the server looks like is not to be asked.
  std::shared_ptr<Serving> CurrentServing();

  const ProcessMark process_;
  Diagnostics print_;
  HandlerTable handlers_{HandlerTable::Rules::kOfAServer};
  ReplyTable replies_{ReplyTable::Retention::kStale};
  Dispatch dispatch_;
  const std::unique_ptr<RecvLargeDataServer> slice_header_receiver_;
  const std::unique_ptr<RecvLargeDataServer> slice_receiver_;
  Presence callers_;
  // Calls that nobody waits for; none is dropped, for each is told how it has ended.
  JobGroup async_calls_;
  LoopThread thread_{"mivo-server"};

  // Written by the operations that set them, read by any thread.
  std::atomic<int> port_{0};
  std::atomic<bool> thread_mode_{false};
  std::atomic<int> timeout_step_ms_{100};

  Mutex init_mutex_;   // one Init at a time
  Mutex start_mutex_;  // one Start at a time
  Mutex serving_mutex_;
  std::shared_ptr<Serving> serving_ MIVO_GUARDED_BY(serving_mutex_);
};

}  // namespace mivo

#endif  // MIVO_SERVER_MIVO_SERVER_H_
