// A server of the typed layer.
#ifndef MIVO_RPC_SERVER_H_
#define MIVO_RPC_SERVER_H_

#include <mivo/rpc/address.h>
#include <mivo/rpc/calls.h>
#include <mivo/rpc/handler.h>
#include <mivo/server.h>

#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace mivo {
namespace rpc {

struct ClientTarget {
  CallOutcome Call(const char* name, const MIVOParams& request, int timeout_ms, MIVOParams& reply) const {
    return mivo::Call(*server, id, name, &request, timeout_ms, reply);
  }
  void CallAsync(const char* name, const MIVOParams& request, int timeout_ms,
                 std::unique_ptr<CallCompletion> completion) const {
    mivo::CallAsync(*server, id, name, &request, timeout_ms, completion.release());
  }
  void Post(const char* name, MIVOParams& request) const { server->PostMsg(id, name, &request, 1); }

  IServer* server;
  int id;
};

}  // namespace rpc

// One client of a server, to be called and posted to, in its handlers or later: it may be kept as long as the server
// lives. When the client has gone, calls throw NotConnected and posts go nowhere; nobody else ever gets its number.
class Caller : public Calls<rpc::ClientTarget> {
 public:
  Caller(IServer& server, int id, Deadline deadline) : Calls({&server, id}, deadline) {}
  int id() const { return target().id; }
};

// Offers methods, from listen to the destructor.
//
//     mivo::Server server;
//     server.on("add", [](int a, int b) { return a + b; });
//     server.on("subscribe", [&](mivo::Caller& caller) { subscribers.add(caller); });
//     server.listen("unix:jobs");
//
// Threads: any. Handlers run on the library's pool threads, several at a time, also for one client.
class Server {
 public:
  static constexpr std::chrono::seconds kUsualDeadline{10};

  // `deadline` is that of calls to clients.
  explicit Server(Deadline deadline = kUsualDeadline) : parts_(std::make_unique<Parts>(deadline)) {}
  Server(Server&&) = default;
  // As close.
  ~Server() {
    if (parts_) close();
  }

  // Offers a method, in place of one of that name. The function's parameters are those of the call, its first may be a
  // mivo::Caller&: who calls. What it returns or throws goes back. Throws std::invalid_argument for a name of the
  // library's own.
  template <class Function>
  Server& on(const std::string& name, Function function) {
    Parts& parts = *parts_;
    auto handler = rpc::MakeHandler<Caller>(
        name, [&parts](int id) { return parts.CallerOf(id); }, std::move(function));
    const std::lock_guard<std::mutex> lock(parts.mutex);
    parts.server->method(name.c_str(), handler.get());
    // One that was replaced may be running.
    parts.handlers.push_back(std::move(handler));
    return *this;
  }

  // Serves from now on, on a thread of its own. Throws Error if it cannot listen there, std::invalid_argument for what
  // is no address.
  void listen(const std::string& address) {
    const Address at = Address::Parse(address);
    IServer& server = *parts_->server;
    const bool is_listening = at.kind == Address::kUnix ? server.StartMIVOServer(at.name.c_str())
                              : at.kind == Address::kTcp4
                                  ? server.StartMIVOServerTcp4(at.host.c_str(), at.name.c_str())
                                  : server.StartMIVOServerTcp6(at.host.c_str(), at.name.c_str());
    if (!is_listening) throw Error("mivo.cannot_listen", address + ": cannot listen there");
    if (parts_->thread.joinable()) parts_->thread.join();
    parts_->thread = std::thread([&server] { server.run(); });
  }

  // Ends all connections and waits for handlers that run, so not in one of them. It may listen again.
  void close() {
    parts_->server->close();
    if (parts_->thread.joinable()) parts_->thread.join();
  }

  // Who is connected.
  std::vector<Caller> clients() const {
    std::vector<Caller> all;
    const std::lock_guard<std::mutex> lock(parts_->mutex);
    for (const int id : parts_->connected)
      all.push_back(parts_->CallerOf(id));
    return all;
  }

  // Posts to everybody who is connected.
  template <class... A>
  void broadcast(const std::string& name, const A&... arguments) const {
    for (const Caller& client : clients())
      client.post(name, arguments...);
  }

 private:
  struct Destroy {
    void operator()(IServer* server) const { DestroyServer(server); }
  };
  struct Parts;

  class Notice : public IServerMethod {
   public:
    Notice(Parts& parts, bool has_come) : parts_(parts), has_come_(has_come) {}
    void OnCall(int id, MIVOParams*, MIVOParams*) override {
      const std::lock_guard<std::mutex> lock(parts_.mutex);
      if (has_come_) {
        parts_.connected.insert(id);
      } else {
        parts_.connected.erase(id);
      }
    }

   private:
    Parts& parts_;
    const bool has_come_;
  };

  class Unknown : public IMethodAll {
   public:
    void OnCall(const char* name, int, MIVOParams*, MIVOParams* reply) override {
      rpc::AddError(*reply, NoSuchMethod::kCode, std::string(name) + ": there is no such method");
    }
  };

  struct Parts {
    explicit Parts(Deadline within) : deadline(within) {
      server->log(nullptr, 0);
      server->SetCustomReleaseEvent();
      server->method("s_c_connect", &come);
      server->method("s_c_closed", &gone);
      server->methodall(&unknown);
    }
    Caller CallerOf(int id) { return Caller(*server, id, deadline); }

    const Deadline deadline;
    std::mutex mutex;
    std::set<int> connected;
    // Outlive the server that calls them.
    Notice come{*this, true};
    Notice gone{*this, false};
    Unknown unknown;
    std::vector<std::unique_ptr<IServerMethod>> handlers;
    std::unique_ptr<IServer, Destroy> server{CreateServer()};
    std::thread thread;
  };

  std::unique_ptr<Parts> parts_;
};

}  // namespace mivo

#endif  // MIVO_RPC_SERVER_H_
