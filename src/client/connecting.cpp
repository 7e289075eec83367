// A client's way to a connection that stands and has been checked.
#include <mivo/connections.h>
#include <mivo/params.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <utility>

#include "base/call_key.h"
#include "base/clock.h"
#include "base/handler_scope.h"
#include "base/printable.h"
#include "client/mivo_client.h"
#include "client/session.h"
#include "transport/builtin_keys.h"
#include "transport/endpoint_of.h"

namespace mivo {

namespace {

constexpr int kHandshakeTimeoutMs = 10000;

const char* TextOrEmpty(const char* text) {
  return text == nullptr ? "" : text;
}

}  // namespace

bool MIVOClient::InitMIVOClient(const char* name, bool) {
  return Init({Endpoint::kLocal, TextOrEmpty(name), ""});
}

bool MIVOClient::InitMIVOClientTcp4(const char* host, const char* port, bool) {
  return Init({Endpoint::kTcp4, TextOrEmpty(port), TextOrEmpty(host)});
}

bool MIVOClient::InitMIVOClientTcp6(const char* host, const char* port, bool) {
  return Init({Endpoint::kTcp6, TextOrEmpty(port), TextOrEmpty(host)});
}

bool MIVOClient::Init(Endpoint endpoint) {
  if (const int status = MayConnect(); status < 0) return status == -EISCONN;
  MutexLock lock(init_mutex_);
  if (const int status = Open(std::move(endpoint), 0); status < 0) return status == -EISCONN;
  if (CheckServer(Turn::kTaken, kHandshakeTimeoutMs) == 0) return true;
  print_.Debug("Check Server Version Error!\n");
  close();
  return false;
}

int MIVOClient::Connect(Endpoint endpoint, int timeout_ms) {
  if (const int status = MayConnect(); status < 0) return status;
  MutexLock lock(init_mutex_);
  // The clock leaves off a part of a millisecond; a deadline does not come early for that.
  const std::int64_t deadline_ms = timeout_ms < 1 ? 0 : NowMs() + 1 + timeout_ms;
  if (const int status = Open(std::move(endpoint), deadline_ms); status < 0) return status;
  const int left_ms = deadline_ms == 0 ? 0 : static_cast<int>(std::max<std::int64_t>(1, deadline_ms - NowMs()));
  const int status = CheckServer(Turn::kNone, left_ms);
  if (status == 0) return 0;
  // Not by a close, which takes the handlers along.
  if (const std::shared_ptr<Session> session = CurrentSession()) {
    session->Close(Session::Closing::kKeepHandlers);
    session->Join();
    DropSession(session);
  }
  return status;
}

int MIVOClient::MayConnect() {
  if (!IsOfThisProcess()) return -EPERM;
  if (const std::shared_ptr<Session> current = CurrentSession()) {
    if (current->is_connected() && !current->is_ending() && HandlerScope::Inside(this)) return -EISCONN;
  }
  // A lost connection must be taken down first, and that waits for this thread's own work.
  return IsInsideItself() ? -EDEADLK : 0;
}

int MIVOClient::Open(Endpoint endpoint, std::int64_t deadline_ms) {
  if (const std::shared_ptr<Session> old = CurrentSession()) {
    if (old->is_connected() && !old->is_ending()) return -EISCONN;
    old->Close(Session::Closing::kKeepHandlers);
    old->Join();
  }

  // Known before it connects, so that a close can end the attempt.
  const std::string name = endpoint.name;
  const auto session = std::make_shared<Session>(
      ClientParts{this, print_, handlers_, replies_, large_replies_, large_data_receiver_, *this, async_calls_},
      std::move(endpoint), deadline_ms);
  BeginSession(session);
  if (const int status = session->Connect(); status < 0) {
    DropSession(session);
    print_.Debug("cant connect: %s \n", name.c_str());
    return status;
  }
  print_.Debug("connected: %s \n", name.c_str());
  return 0;
}

int MIVOClient::CheckServer(Turn turn, int timeout_ms) {
  const Presence::Scope inside(callers_);
  MIVOParams version;
  version.AddKeyValueString(kVersionKey, kVersionBanner);
  const int key = CallKey(0);
  Answer answer = turn == Turn::kTaken ? AskInTurn(kVersionMethod, &version, key, timeout_ms)
                                       : Ask(Waiter::Of::kLibrary, kVersionMethod, &version, key, timeout_ms);
  if (!answer.reply) {
    print_.Debug("Check Server Version: timeout\n");
    return isok() ? -ETIMEDOUT : -ECONNRESET;
  }
  MIVOParams reply;
  *reply.GetParamas() = std::move(*answer.reply);
  reply.ToParams();
  const MIVOValue* const accepted = reply.GetValue(0);
  const MIVOValue* const banner = reply.GetMap(kVersionKey);
  print_.Debug("Check Server Version: \nserver %s\nclient %s \n",
               Printable(banner != nullptr && banner->IsString() ? banner->GetString() : "").c_str(), kVersionBanner);
  // The server has compared the banners; its word decides.
  return accepted != nullptr && accepted->IsBool() && accepted->GetBool() ? 0 : -EPROTO;
}

int Connect(IClient& client, AddressKind kind, const char* where, const char* port, int timeout_ms) {
  auto* const own = dynamic_cast<MIVOClient*>(&client);
  return own == nullptr ? -ENOTSUP : own->Connect(EndpointOf(kind, where, port), timeout_ms);
}

void DestroyAtOnce(IClient* client) {
  auto* const own = dynamic_cast<MIVOClient*>(client);
  // See DestroyClient.
  if (own == nullptr || own->IsOfThisProcess()) delete client;
}

void BeQuiet(IClient& client) {
  if (auto* const own = dynamic_cast<MIVOClient*>(&client)) own->BeQuiet();
}

}  // namespace mivo
