#include "server/mivo_server.h"

#include <mivo/params.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "base/call_key.h"
#include "base/handler_scope.h"
#include "base/library_thread.h"
#include "base/one_shot.h"
#include "largedata/slice_size.h"
#include "server/serving.h"
#include "transport/builtin_keys.h"

namespace mivo {

namespace {

constexpr int kDefaultTimeoutStepMs = 100;
// Promised: closeasync takes at least this long. Nothing relies on it.
constexpr unsigned int kCloseAsyncPauseUs = 10000;

std::string TextOrEmpty(const char* text) {
  return text == nullptr ? "" : text;
}

}  // namespace

MIVOServer::MIVOServer()
    : print_(this),
      dispatch_(this, print_, handlers_),
      slice_header_receiver_(MakeLargeDataReceiver()),
      slice_receiver_(MakeLargeDataReceiver()) {
  RegisterBuiltins();
}

MIVOServer::~MIVOServer() {
  if (const std::shared_ptr<Serving> serving = CurrentServing()) {
    serving->Close(Serving::Wait::kUntilEnded);
    thread_.Join();
    // Nobody may be left to run the loop: then this thread sees its handles off.
    serving->Run();
  }
  thread_.Join();
  callers_.WaitUntilNobody();
  async_calls_.WaitUntilIdle();
}

std::unique_ptr<RecvLargeDataServer> MIVOServer::MakeLargeDataReceiver() {
  return std::make_unique<RecvLargeDataServer>(
      [this](const std::string& name, int client_id, MIVOParams* request, MIVOParams* result) {
        dispatch_.CallMethod(name, client_id, request, result);
      });
}

void MIVOServer::RegisterBuiltins() {
  handlers_.RegisterBuiltin(kSliceHeaderMethod, slice_header_receiver_.get());
  handlers_.RegisterBuiltin(kSliceMethod, slice_receiver_.get());
}

bool MIVOServer::StartMIVOServer(const char* name) {
  return Listen({Endpoint::kLocal, TextOrEmpty(name), ""}) == 0;
}

bool MIVOServer::StartMIVOServerTcp4(const char* ip, const char* port) {
  return Listen({Endpoint::kTcp4, TextOrEmpty(port), TextOrEmpty(ip)}) == 0;
}

bool MIVOServer::StartMIVOServerTcp6(const char* ip, const char* port) {
  return Listen({Endpoint::kTcp6, TextOrEmpty(port), TextOrEmpty(ip)}) == 0;
}

int MIVOServer::Listen(const Endpoint& endpoint) {
  if (!IsOfThisProcess()) return -EPERM;
  if (isok()) return -EISCONN;
  if (IsInsideItself()) return -EDEADLK;
  MutexLock lock(start_mutex_);
  if (const std::shared_ptr<Serving> old = CurrentServing()) {
    if (old->is_running()) return -EISCONN;
    // Closed, and perhaps not run to its end yet.
    old->Run();
  }
  handlers_.Open();
  RegisterBuiltins();
  port_ = PortNumber(endpoint.name);

  auto serving = std::make_shared<Serving>(ServerParts{this, print_, handlers_, replies_, dispatch_, *slice_receiver_,
                                                       *slice_header_receiver_, timeout_step_ms_, async_calls_});
  if (const int status = serving->Start(endpoint); status < 0) return status;
  MutexLock serving_lock(serving_mutex_);
  serving_.swap(serving);
  return 0;
}

bool MIVOServer::InitMIVOServer(const char* port) {
  return StartOnThread(port, [this](const char* text) { return StartMIVOServer(text); });
}

bool MIVOServer::InitMIVOServerTcp4(const char* ip, const char* port) {
  return StartOnThread(
      port, [this, host = TextOrEmpty(ip)](const char* text) { return StartMIVOServerTcp4(host.c_str(), text); });
}

bool MIVOServer::InitMIVOServerTcp6(const char* ip, const char* port) {
  return StartOnThread(
      port, [this, host = TextOrEmpty(ip)](const char* text) { return StartMIVOServerTcp6(host.c_str(), text); });
}

bool MIVOServer::StartOnThread(const char* port, const std::function<bool(const char* port)>& start) {
  if (!IsOfThisProcess() || isok() || IsInsideItself()) return false;
  MutexLock lock(init_mutex_);
  if (isok()) return false;
  thread_.Join();  // of an earlier start that has ended
  thread_mode_ = true;
  port_ = PortNumber(TextOrEmpty(port));

  OneShot started;
  bool listening = false;
  const bool has_thread = thread_.Start([this, &start, &started, &listening] {
    const bool success = start(std::to_string(GetPort()).c_str());
    listening = success;
    started.Set();
    if (success) run();
  });
  if (!has_thread) return false;
  started.Wait();
  if (!listening) thread_.Join();
  return isok();
}

bool MIVOServer::run() {
  // A handler would wait for its own end.
  if (IsInsideItself()) return true;
  if (const std::shared_ptr<Serving> serving = CurrentServing()) serving->Run();
  return true;
}

bool MIVOServer::close() {
  const std::shared_ptr<Serving> serving = CurrentServing();
  if (!serving || !serving->is_running()) return true;
  serving->Close(HandlerScope::Inside(this) ? Serving::Wait::kNo : Serving::Wait::kUntilEnded);
  return true;
}

bool MIVOServer::closeasync() {
  const std::shared_ptr<Serving> serving = CurrentServing();
  if (!serving || !serving->is_running()) {
    print_.Debug("server closeasync\n");
    return true;
  }
  serving->RequestClose();
  ::usleep(kCloseAsyncPauseUs);
  return true;
}

bool MIVOServer::isok() {
  const std::shared_ptr<Serving> serving = CurrentServing();
  return serving && serving->is_running();
}

bool MIVOServer::IsInsideItself() {
  if (HandlerScope::Inside(this)) return true;
  const std::shared_ptr<Serving> serving = CurrentServing();
  return serving && serving->InThread();
}

std::shared_ptr<Serving> MIVOServer::CurrentServing() {
  if (!IsOfThisProcess()) return nullptr;
  MutexLock lock(serving_mutex_);
  return serving_;
}

MIVOParams* MIVOServer::SendMsg(int clientId, const char* name, MIVOParams* params, int key, int timeout) {
  if (IsOfThisProcess()) {
    const Presence::Scope inside(callers_);
    const std::shared_ptr<Serving> serving = CurrentServing();
    if (serving && serving->is_running()) {
      const ReplyPlace place(CallKey(key), clientId);
      replies_.BeginCall(place);
      std::optional<std::string> reply = serving->calls().Call(clientId, TextOrEmpty(name), params, place.key, timeout);
      return reply ? replies_.Collect(place, std::move(*reply)) : replies_.CollectStored(place);
    }
  }
  print_.Error("send msg: disconnect... .. .\n");
  return nullptr;
}

int MIVOServer::PostMsg(int clientId, const char* name, MIVOParams* params, int key) {
  if (IsOfThisProcess()) {
    const Presence::Scope inside(callers_);
    const std::shared_ptr<Serving> serving = CurrentServing();
    if (serving && serving->is_running()) {
      serving->calls().Post(clientId, TextOrEmpty(name), params, CallKey(key));
      return 0;
    }
  }
  print_.Error("send msg: disconnect... .. .\n");
  return 0;
}

void MIVOServer::ClearRetvalMem() {
  if (!IsOfThisProcess()) return;
  replies_.Clear();
}

void MIVOServer::method(const char* name, IServerMethod* handler) {
  if (name != nullptr && std::strcmp(name, kLogSink) == 0) {
    print_.sink().Set(handler);
  } else {
    handlers_.Register(name, handler);
  }
}

void MIVOServer::methodall(IMethodAll* handler) {
  handlers_.RegisterCatchAll(handler);
}

void MIVOServer::SetCustomReleaseEvent() {
  handlers_.KeepHandlers();
}

void MIVOServer::SetTimeoutStep(int ms) {
  timeout_step_ms_ = ms < 1 ? kDefaultTimeoutStepMs : ms;
}

int MIVOServer::log(char* path, int level) {
  return print_.SetLevel(path, level);
}

int MIVOServer::GetPort() {
  return port_;
}

int MIVOServer::GetClientCount() {
  const std::shared_ptr<Serving> serving = CurrentServing();
  return serving ? serving->read_count() : 0;
}

bool MIVOServer::isthread() {
  return thread_mode_;
}

void MIVOServer::SetBigfileBufferSize(int bytes) {
  SetSliceSize(bytes);
}

}  // namespace mivo

IServer* CreateServer() {
  return new mivo::MIVOServer;
}

void DestroyServer(IServer* server) {
  if (server == nullptr) return;
  const auto destroy = [server] {
    if (server->isthread()) {
      server->closeasync();
    } else {
      server->close();
    }
    delete server;
  };
  auto* const own = dynamic_cast<mivo::MIVOServer*>(server);
  // Its thread lives in the parent, and so do the connections: there is nothing here to end.
  if (own != nullptr && !own->IsOfThisProcess()) return;
  if (own != nullptr && own->IsInsideItself()) {
    // The end has to wait for the handler that we are called from.
    // Without a thread for it, it only ends, and its memory is lost.
    if (!mivo::RunDetached("mivo-destroy", destroy)) server->closeasync();
  } else {
    destroy();
  }
}
