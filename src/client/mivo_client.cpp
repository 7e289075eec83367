#include "client/mivo_client.h"

#include <mivo/params.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <utility>

#include "base/call_key.h"
#include "base/handler_scope.h"
#include "base/library_thread.h"
#include "base/printable.h"
#include "base/spare_memory.h"
#include "calls/handler_run.h"
#include "client/call_turn.h"
#include "client/session.h"
#include "largedata/slice_sender.h"
#include "largedata/slice_size.h"
#include "transport/builtin_keys.h"
#include "transport/connection.h"
#include "transport/envelope.h"
#include "transport/frame.h"

namespace mivo {

namespace {

constexpr int kSliceTimeoutMs = 500;
// Promised: a close takes at least this long. Nothing relies on it.
constexpr unsigned int kClosePauseUs = 100000;

const char* TextOrEmpty(const char* text) {
  return text == nullptr ? "" : text;
}

// A set that was decoded may bring the key of the call it came with.
int LargeCallKey(int key, const MIVOParams& params) {
  if (key != 0) return key;
  const MIVOValue* const own_key = params.GetMap(kThreadIdKey);
  return CallKey(own_key != nullptr && own_key->IsInt() ? own_key->GetInt() : 0);
}

// Makes of `params` the whole of a large call as it travels.
void AddNameAndKey(const char* name, int key, MIVOParams* params) {
  RequireSendable(params->GetParamas()->size());
  params->AddKeyValueString(kNameKey, TextOrEmpty(name));
  params->AddKeyValueInt(kThreadIdKey, key);
}

MIVOParams* ErrorSet(int code) {
  auto* set = new MIVOParams;
  set->AddKeyValueInt(kErrorCodeKey, code);
  set->ToParams();
  return set;
}

}  // namespace

MIVOClient::MIVOClient()
    : print_(this), large_data_receiver_([this](int key, std::string result) {
        const std::shared_ptr<Session> session = CurrentSession();
        if (session && session->DeliverLargeResult(key, &result)) return;
        large_replies_.Store(key, std::move(result));
      }) {
  handlers_.RegisterBuiltin(kSliceMethod, &large_data_receiver_);
  handlers_.RegisterBuiltin(kBuiltinClosedNotice, &server_closed_);
}

MIVOClient::~MIVOClient() {
  AbandonTurns();
  if (const std::shared_ptr<Session> session = CurrentSession()) {
    session->Close(Session::Closing::kReleaseHandlers);
    session->Join();
  }
  callers_.WaitUntilNobody();
  async_calls_.WaitUntilIdle();
}

void MIVOClient::close() {
  if (!IsOfThisProcess()) return;
  print_.Debug("Closing!\n");
  const std::shared_ptr<Session> session = CurrentSession();
  const bool may_wait = !IsInsideItself();
  if (session) {
    session->Close(Session::Closing::kReleaseHandlers);
    print_.Debug("Client Closing waiting thread!\n");
    if (may_wait) session->Join();
  }
  if (may_wait) {
    {
      // What the session has not taken along, as it never stood, or had ended before this was registered. Nothing runs.
      ClosedHandlers closed;
      MutexLock lock(session_mutex_);
      // Otherwise somebody has begun anew meanwhile, and they are in use.
      if (session_ == nullptr || session_ == session) {
        session_.reset();
        closed = handlers_.Close();
      }
    }
    if (isok()) print_.Debug("bad close\n");
    ::usleep(kClosePauseUs);
  }
  print_.Debug("Closed!\n");
}

bool MIVOClient::isok() {
  const std::shared_ptr<Session> session = CurrentSession();
  return session && session->is_connected();
}

bool MIVOClient::IsInsideItself() {
  if (HandlerScope::Inside(this)) return true;
  const std::shared_ptr<Session> session = CurrentSession();
  return session && session->InThread();
}

std::shared_ptr<Session> MIVOClient::CurrentSession() {
  if (!IsOfThisProcess()) return nullptr;
  MutexLock lock(session_mutex_);
  return session_;
}

void MIVOClient::BeginSession(std::shared_ptr<Session> session) {
  // The one replaced ends outside the lock.
  MutexLock lock(session_mutex_);
  handlers_.Open();
  session_.swap(session);
}

void MIVOClient::DropSession(const std::shared_ptr<Session>& session) {
  MutexLock lock(session_mutex_);
  if (session_ == session) session_.reset();
}

void MIVOClient::AbandonTurns() {
  turns_abandoned_ = true;
  CallTurn::AskAgain();
}

std::function<bool()> MIVOClient::IsPointless() {
  return [this, session = CurrentSession()] {
    return turns_abandoned_ || (session != nullptr && !session->is_connected());
  };
}

MIVOParams* MIVOClient::SendMsg(const char* name, MIVOParams* params, int key, int timeout) {
  if (!IsOfThisProcess()) return ErrorSet(NotConnected().error);
  const Presence::Scope inside(callers_);
  const CallTurn turn(CallTurn::Kind::kCall, IsPointless());
  if (turn.is_given_up()) return ErrorSet(NotConnected().error);
  return SendMsgFast(name, params, key, timeout);
}

MIVOParams* MIVOClient::SendMsgFast(const char* name, MIVOParams* params, int key, int timeout) {
  if (!IsOfThisProcess()) return ErrorSet(NotConnected().error);
  const Presence::Scope inside(callers_);
  const int call_key = CallKey(key);
  Answer answer = Ask(Waiter::Of::kApplication, name, params, call_key, timeout);
  return answer.reply ? replies_.Collect(call_key, std::move(*answer.reply)) : ErrorSet(answer.error);
}

MIVOClient::Answer MIVOClient::NotConnected() {
  if (!print_.is_quiet()) PrintDirect("SendMsg end: IsOk Flase\n");
  print_.Error("send msg: disconnect... .. .\n");
  return {std::nullopt, kErrorNotConnected};
}

MIVOClient::Answer MIVOClient::Ask(Waiter::Of of, const char* name, const MIVOParams* params, int call_key,
                                   int timeout) {
  const std::shared_ptr<Session> session = CurrentSession();
  if (!session || !session->is_connected()) return NotConnected();
  std::optional<std::string> reply = session->Call(of, TextOrEmpty(name), params, call_key, timeout);
  if (!reply && of == Waiter::Of::kApplication) reply = replies_.TakeUnread(call_key);
  return {std::move(reply), kErrorNoReply};
}

MIVOClient::Answer MIVOClient::AskInTurn(const char* name, const MIVOParams* params, int call_key, int timeout) {
  const CallTurn turn(CallTurn::Kind::kCall, IsPointless());
  if (turn.is_given_up()) return NotConnected();
  return Ask(Waiter::Of::kLibrary, name, params, call_key, timeout);
}

int MIVOClient::PostMsg(const char* name, MIVOParams* params, int key) {
  if (IsOfThisProcess()) {
    const Presence::Scope inside(callers_);
    const CallTurn turn(CallTurn::Kind::kCall, IsPointless());
    if (!turn.is_given_up()) return PostMsgFast(name, params, key);
  }
  print_.Error("send msg: disconnect... .. .\n");
  return 0;
}

int MIVOClient::PostMsgFast(const char* name, MIVOParams* params, int key) {
  if (IsOfThisProcess()) {
    const Presence::Scope inside(callers_);
    const std::shared_ptr<Session> session = CurrentSession();
    if (session && session->is_connected()) {
      session->Post(TextOrEmpty(name), params, CallKey(key));
      return 0;
    }
  }
  print_.Error("send msg: disconnect... .. .\n");
  return 0;
}

MIVOParams* MIVOClient::SendMsgEx(const char* name, MIVOParams* params, int key, int timeout) {
  if (!IsOfThisProcess()) {
    PrintDirect("sendmsgex: disconnect... .. .\n");
    return ErrorSet(kErrorNotConnected);
  }
  const Presence::Scope inside(callers_);
  const CallTurn turn(CallTurn::Kind::kLargeCall, IsPointless());
  const std::shared_ptr<Session> session = CurrentSession();
  if (turn.is_given_up() || !session || !isok()) {
    PrintDirect("sendmsgex: disconnect... .. .\n");
    return ErrorSet(kErrorNotConnected);
  }
  MIVOParams no_params;
  if (params == nullptr) params = &no_params;

  const int call_key = LargeCallKey(key, *params);
  AddNameAndKey(name, call_key, params);
  std::string whole = std::move(*params->GetParamas());
  params->Clear();
  // What an earlier call left, under the key as given and under the one it came to stand for. `params` may be among it:
  // it is not touched any more.
  large_replies_.BeginCall(key);
  large_replies_.BeginCall(call_key);

  std::optional<std::string> result = session->CallLarge(call_key, timeout, [&] {
    SendSlices(whole, call_key, call_key, kSliceTimeoutMs);
    // Not through the wait for the result.
    GiveSpareString(std::move(whole));
  });
  if (!isok()) {
    print_.Error("sendmsgex: disconnect... .. .\n");
    return ErrorSet(kErrorNotConnected);
  }
  if (!result) result = large_replies_.TakeUnread(call_key);
  return result ? large_replies_.Collect(call_key, std::move(*result)) : ErrorSet(kErrorNoReply);
}

bool MIVOClient::SendMsgLargeData(const char* name, MIVOParams* params, int key, int timeout) {
  const Presence::Scope inside(callers_);
  MIVOParams no_params;
  if (params == nullptr) params = &no_params;
  const int call_key = LargeCallKey(key, *params);
  AddNameAndKey(name, key, params);
  // A copy: each slice is a call, and `params` may be what an earlier one under its key has returned.
  return SendSlices(std::string(*params->GetParamas()), key, call_key, timeout);
}

bool MIVOClient::SendSlices(const std::string& whole, int key, int call_key, int timeout) {
  return SendInSlices(whole, key, [&](MIVOParams* slice) {
    // A slice that nobody answered does not end the transfer, but with the connection it ends.
    return AskInTurn(kSliceMethod, slice, call_key, timeout).error != kErrorNotConnected;
  });
}

void MIVOClient::ClearRetvalMem() {
  if (!IsOfThisProcess()) return;
  replies_.Clear();
  large_replies_.Clear();
}

void MIVOClient::Serve(const Request& request, MIVOParams* reply) {
  IServerMethod* handler = handlers_.Find(request.name);
  if (handler == nullptr) handler = handlers_.Find(kUnknownMethod);
  if (handler == nullptr) {
    // Without key and token: the server's call runs into its time-out.
    reply->AddKeyValueString(kNameKey, kRetval);
    return;
  }
  MIVOParams arguments;
  ReadArguments(request, &arguments);
  RunHandler(*handler, {this, print_, request.name, request.connection->id(), &arguments, reply});
  AppendClientReplyTail(*reply->GetParamas(), request.envelope);
}

void MIVOClient::method(const char* name, IServerMethod* handler) {
  handlers_.Register(name, handler);
}

void MIVOClient::methodall(IMethodAll* handler) {
  handlers_.RegisterCatchAll(handler);
}

void MIVOClient::SetCustomReleaseEvent() {
  handlers_.KeepHandlers();
}

void MIVOClient::SetTimeoutStep(int) {}

int MIVOClient::log(char* text, int level) {
  return print_.SetLevel(text, level);
}

void MIVOClient::SetBigfileBufferSize(int bytes) {
  SetSliceSize(bytes);
}

int MIVOClient::GetBigfileBufferSize() {
  return SliceSizeAsSet();
}

}  // namespace mivo

IClient* CreateClient() {
  return new mivo::MIVOClient;
}

void DestroyClient(IClient* client) {
  if (client == nullptr) return;
  const auto destroy = [client] {
    client->close();
    delete client;
  };
  auto* const own = dynamic_cast<mivo::MIVOClient*>(client);
  // Its thread lives in the parent, and so does the connection: there is nothing here to end.
  if (own != nullptr && !own->IsOfThisProcess()) return;
  if (own != nullptr) own->AbandonTurns();
  if (own != nullptr && own->IsInsideItself()) {
    // The close has to wait for the handler that we are called from.
    // Without a thread for it, it only ends, and its memory is lost.
    if (!mivo::RunDetached("mivo-destroy", destroy)) client->close();
  } else {
    destroy();
  }
}
