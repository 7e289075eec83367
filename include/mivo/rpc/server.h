// A server of the typed layer.
#ifndef MIVO_RPC_SERVER_H_
#define MIVO_RPC_SERVER_H_

#include <mivo/connections.h>
#include <mivo/rpc/address.h>
#include <mivo/rpc/calls.h>
#include <mivo/rpc/connected.h>
#include <mivo/rpc/handler.h>
#include <mivo/rpc/offered_methods.h>
#include <mivo/rpc/process.h>
#include <mivo/server.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace mivo {
namespace rpc {

struct ClientTarget {
  CallOutcome Call(const char* name, MIVOParams& request, const CallTerms& terms, MIVOParams& reply) const {
    return mivo::Call(*server, id, name, &request, terms.deadline.milliseconds(), reply);
  }
  void CallAsync(const char* name, MIVOParams& request, const CallTerms& terms,
                 std::unique_ptr<CallCompletion> completion) const {
    mivo::CallAsync(*server, id, name, &request, terms.deadline.milliseconds(), completion.release());
  }
  void Post(const char* name, MIVOParams& request) const { server->PostMsg(id, name, &request, 1); }
  const ObserverSlot& observer() const { return *observer_slot; }

  IServer* server;
  int id;
  const ObserverSlot* observer_slot;
};

}  // namespace rpc

// One client of a server, to be called and posted to, in its handlers or later: it may be kept as long as the server
// lives. When the client has gone, calls throw NotConnected and posts go nowhere; nobody else ever gets its number.
class Caller : public Calls<rpc::ClientTarget> {
 public:
  Caller(IServer& server, int id, rpc::Connected& connected, const rpc::ObserverSlot& observer, Deadline deadline)
      : Calls({&server, id, &observer}, deadline), connected_(&connected) {}
  int id() const { return target().id; }
  // The user whose process it is, if it has connected over a local socket; otherwise, or when it has gone, -1.
  int uid() const { return UserOf(*target().server, target().id); }
  bool is_connected() const {
    return connected_->Look(id(), [](bool is_connected) { return is_connected; });
  }

 private:
  template <class T>
  friend class PerClient;
  rpc::Connected& connected() const { return *connected_; }

  rpc::Connected* connected_;
};

// Offers methods, from listen to the destructor.
//
//     mivo::Server server;
//     server.on("add", [](int a, int b) { return a + b; });
//     server.on("subscribe", [&](mivo::Caller& caller) { subscribers.add(caller); });
//     server.listen("unix:jobs");
//
// Threads: any. Handlers run on the library's pool threads, several at a time, also for one client; see queue.h for
// others. What a handler uses has to live until the server has been closed: declare it before the server.
class Server {
 public:
  static constexpr std::chrono::seconds kUsualDeadline{10};

  // `deadline` is that of calls to clients.
  explicit Server(Deadline deadline = kUsualDeadline) : parts_(new Parts(deadline)) {}
  Server(Server&&) = default;
  // As close.
  ~Server() {
    if (parts_) close();
  }

  // Offers a method, in place of one of that name. The function's parameters are those of the call, its first may be a
  // mivo::Caller&: who calls; the last may be std::optional, and missing. What it returns or throws goes back. Throws
  // std::invalid_argument for a name of the library's own.
  template <class Function>
  Server& on(const std::string& name, Function function, About about = {}) {
    Parts& parts = *parts_;
    std::shared_ptr<Handler> handler = rpc::MakeHandler<Caller>(
        name, parts.host, std::move(about), [&parts](int id) { return parts.CallerOf(id); }, std::move(function));
    const std::lock_guard<std::mutex> lock(parts.mutex);
    parts.server->method(name.c_str(), handler->method());
    parts.offered.Add(handler);
    // One that was replaced may be running.
    parts.handlers.push_back(std::move(handler));
    return *this;
  }

  // Called when somebody has connected, before the first of his requests is served; and when he has gone, when requests
  // of his may still be being served. On the server's own thread, which accepts and sees off nobody meanwhile: what
  // would wait for a client throws NotConnected there, while posts and asynchronous calls are sent, though not yet to
  // somebody who has just connected. What one throws is lost.
  Server& on_connect(std::function<void(Caller&)> function) { return Add(parts_->come, std::move(function)); }
  Server& on_disconnect(std::function<void(Caller&)> function) { return Add(parts_->gone, std::move(function)); }

  // Serves from now on, on a thread of its own. Throws Error if it cannot listen there, std::invalid_argument for what
  // is no address.
  void listen(const std::string& address) {
    const Address at = Address::Parse(address);
    Parts& parts = *parts_;
    IServer& server = *parts.server;
    const int status = Listen(server, at.kind, at.where.c_str(), at.port.c_str());
    if (status < 0) {
      const char* const why = status == -EISCONN ? "this server listens already" : std::strerror(-status);
      throw Error(kCannotListenCode, address + ": cannot listen there: " + why);
    }
    if (parts.thread.joinable()) parts.thread.join();
    parts.host->is_stopping = false;
    parts.host->gate.Open();
    parts.thread = std::thread([&server] { server.run(); });
  }

  // The end of serving that leaves nobody in the middle: nobody can connect any more, new requests are answered with
  // kStoppingCode, and those that are being served may end, and their answers leave. Returns the names of those that
  // had not ended at the deadline. The connections stay until close. Not in a handler, and not on the thread that
  // drains a Loop while requests wait there.
  std::vector<std::string> drain(Deadline deadline) {
    return Drain(deadline, [] {});
  }
  // The same on the thread that runs the handlers of `loop`, which are run meanwhile.
  std::vector<std::string> drain(Deadline deadline, const Loop& loop) {
    return Drain(deadline, [&loop] { loop.drain(); });
  }

  // Ends all connections and waits for handlers that run, so not in one of them. It may listen again.
  void close() {
    Parts& parts = *parts_;
    if (!parts.process.IsThisProcess()) return;
    parts.server->close();
    if (parts.thread.joinable()) parts.thread.join();
    parts.host->gate.Close();
    // A close tells of nobody's end.
    parts.connected.GoAll();
  }

  // Who is connected.
  std::vector<Caller> clients() const {
    std::vector<Caller> all;
    for (const int id : parts_->connected.All())
      all.push_back(parts_->CallerOf(id));
    return all;
  }

  // Posts to everybody who is connected.
  template <class... A>
  void broadcast(const std::string& name, const A&... arguments) const {
    for (const Caller& client : clients())
      client.post(name, arguments...);
  }

  // Whether clients may ask what there is (mivo::methods); as long as nothing was said, they may.
  void describe(bool on) { parts_->offered.Tell(on); }

  // Calls and handlers are told to `observer` from now on; null: to nobody.
  void observe(Observer observer) { parts_->host->observer.Set(std::move(observer)); }

 private:
  struct Destroy {
    void operator()(IServer* server) const { DestroyServer(server); }
  };
  struct Parts;

  class Notice : public IServerMethod {
   public:
    Notice(Parts& parts, bool has_come) : parts_(parts), has_come_(has_come) {}
    void OnCall(int id, MIVOParams*, MIVOParams*) override {
      if (has_come_) {
        parts_.connected.Come(id);
      } else {
        parts_.connected.Go(id);
      }
      const auto functions = [this] {
        const std::lock_guard<std::mutex> lock(parts_.mutex);
        return functions_;
      }();
      Caller caller = parts_.CallerOf(id);
      for (const auto& function : functions) {
        try {
          (*function)(caller);
        } catch (...) {
          // The others are to hear of it all the same.
        }
      }
    }

    // With the lock of the parts held.
    void Add(std::function<void(Caller&)> function) {
      functions_.push_back(std::make_shared<std::function<void(Caller&)>>(std::move(function)));
    }

   private:
    Parts& parts_;
    const bool has_come_;
    std::vector<std::shared_ptr<std::function<void(Caller&)>>> functions_;
  };

  class Unknown : public IMethodAll {
   public:
    void OnCall(const char* name, int, MIVOParams*, MIVOParams* reply) override {
      rpc::AddError(*reply, NoSuchMethod::kCode, std::string(name) + ": there is no such method");
    }
  };

  struct Parts {
    explicit Parts(Deadline within) : deadline(within) {
      BeQuiet(*server);
      server->SetCustomReleaseEvent();
      server->method("s_c_connect", &come);
      server->method("s_c_closed", &gone);
      server->method(rpc::kMethodsMethod, &offered);
      server->methodall(&unknown);
    }

    Caller CallerOf(int id) { return Caller(*server, id, connected, host->observer, deadline); }

    std::vector<std::string> Running() {
      std::vector<std::string> names;
      const std::lock_guard<std::mutex> lock(mutex);
      for (const auto& handler : handlers) {
        if (handler->running() > 0) names.push_back(handler->name());
      }
      return names;
    }

    const Deadline deadline;
    const rpc::ProcessMark process;
    const std::shared_ptr<rpc::Host> host = std::make_shared<rpc::Host>();
    rpc::Connected connected;
    std::mutex mutex;
    // Outlive the server that calls them.
    Notice come{*this, true};
    Notice gone{*this, false};
    Unknown unknown;
    rpc::OfferedMethods offered;
    std::vector<std::shared_ptr<Handler>> handlers;
    std::unique_ptr<IServer, Destroy> server{CreateServer()};
    std::thread thread;
  };

  template <class Meanwhile>
  std::vector<std::string> Drain(Deadline deadline, const Meanwhile& meanwhile) {
    constexpr std::chrono::milliseconds kStep{2};
    Parts& parts = *parts_;
    parts.host->is_stopping = true;
    StopListening(*parts.server);
    const auto end = deadline.from_now();
    for (;;) {
      meanwhile();
      std::vector<std::string> running = parts.Running();
      // Also until the last answers are on their way.
      const bool is_done = running.empty() && RequestsUnderWay(*parts.server) == 0;
      if (is_done || std::chrono::steady_clock::now() >= end) return running;
      // Nobody tells when an answer has left: it is not worth anything on the path of a call.
      std::this_thread::sleep_for(kStep);
    }
  }

  Server& Add(Notice& notice, std::function<void(Caller&)> function) {
    const std::lock_guard<std::mutex> lock(parts_->mutex);
    notice.Add(std::move(function));
    return *this;
  }

  std::unique_ptr<Parts, rpc::DeleteInOwnProcess> parts_;
};

}  // namespace mivo

#endif  // MIVO_RPC_SERVER_H_
