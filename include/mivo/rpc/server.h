// A server of the typed layer.
#ifndef MIVO_RPC_SERVER_H_
#define MIVO_RPC_SERVER_H_

#include <mivo/connections.h>
#include <mivo/rpc/address.h>
#include <mivo/rpc/boundary.h>
#include <mivo/rpc/calls.h>
#include <mivo/rpc/handler.h>
#include <mivo/rpc/host.h>
#include <mivo/rpc/process.h>
#include <mivo/rpc/service.h>
#include <mivo/server.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
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
  Caller(rpc::Service& service, int id, const rpc::ObserverSlot& observer, Deadline deadline)
      : Calls({&service.server(), id, &observer}, deadline), service_(&service) {}
  int id() const { return target().id; }
  // The user whose process it is, if it has connected over a local socket; otherwise, or when it has gone, -1.
  int uid() const { return UserOf(*target().server, target().id); }
  bool is_connected() const { return service_->IsConnected(id()); }

 private:
  template <class T>
  friend class PerClient;
  rpc::Service& service() const { return *service_; }

  rpc::Service* service_;
};

namespace rpc {

// What there is of a server once, wherever it is moved.
class ServerParts {
 public:
  ServerParts* left_before = nullptr;
  const ProcessMark process;
  const std::shared_ptr<Host> host = std::make_shared<Host>();

  explicit ServerParts(Deadline deadline) : deadline_(deadline), service_(CreateService()) {}
  ServerParts(const ServerParts&) = delete;
  ServerParts& operator=(const ServerParts&) = delete;

  Service& service() const { return *service_; }
  Caller CallerOf(int id) const { return Caller(*service_, id, host->observer, deadline_); }

  // False in a child of fork, and in a handler of its own, where there is no end that could be waited for.
  bool Close() {
    if (!process.IsThisProcess() || !service_->Close()) return false;
    host->gate.Close();
    service_->ForgetClients();
    return true;
  }
  static void Delete(ServerParts* parts) {
    if (!parts->Close()) return LeaveBehind(parts);
    parts->service_->Destroy();
    delete parts;
  }

 private:
  ~ServerParts() = default;

  const Deadline deadline_;
  Service* const service_;
};

// A function to be called for a client.
class CallerFunction final : public ClientAction {
 public:
  CallerFunction(const ServerParts& parts, std::function<void(Caller&)> function)
      : parts_(parts), function_(std::move(function)) {}
  void Run(int client_id) override {
    Caller caller = parts_.CallerOf(client_id);
    try {
      function_(caller);
    } catch (...) {
      // Others are to hear of it all the same.
    }
  }

 private:
  const ServerParts& parts_;
  const std::function<void(Caller&)> function_;
};

class CallersSink final : public ClientAction {
 public:
  explicit CallersSink(const ServerParts& parts) : parts_(parts) {}
  std::vector<Caller> callers;
  void Run(int client_id) override { callers.push_back(parts_.CallerOf(client_id)); }

 private:
  const ServerParts& parts_;
};

class NamesSink final : public TextSink {
 public:
  std::vector<std::string> names;
  void Take(const char* text, std::size_t length) override { names.emplace_back(text, length); }
};

}  // namespace rpc

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
  explicit Server(Deadline deadline = kUsualDeadline) : parts_(new rpc::ServerParts(deadline)) {}
  Server(Server&&) = default;
  // As close. A static one may also go by an exit() in a handler of its own: there it waits for nobody.
  ~Server() = default;

  // Offers a method, in place of one of that name. The function's parameters are those of the call, its first may be a
  // mivo::Caller&: who calls; the last may be std::optional, and missing. What it returns or throws goes back. Throws
  // std::invalid_argument for a name of the library's own.
  template <class Function>
  Server& on(const std::string& name, Function function, About about = {}) {
    const rpc::ServerParts& parts = *parts_;
    std::shared_ptr<Handler> handler = rpc::MakeHandler<Caller>(
        name, parts.host, std::move(about), [&parts](int id) { return parts.CallerOf(id); }, std::move(function));
    parts.service().Offer(new rpc::SharedHandler(std::move(handler)));
    return *this;
  }

  // Called when somebody has connected, before the first of his requests is served; and when he has gone, when requests
  // of his may still be being served. On the server's own thread, which accepts and sees off nobody meanwhile: what
  // would wait for a client throws NotConnected there, while posts and asynchronous calls are sent, though not yet to
  // somebody who has just connected. What one throws is lost.
  Server& on_connect(std::function<void(Caller&)> function) {
    parts_->service().OnConnect(new rpc::CallerFunction(*parts_, std::move(function)));
    return *this;
  }
  Server& on_disconnect(std::function<void(Caller&)> function) {
    parts_->service().OnDisconnect(new rpc::CallerFunction(*parts_, std::move(function)));
    return *this;
  }

  // Serves from now on, on a thread of its own. Throws Error if it cannot listen there, std::invalid_argument for what
  // is no address.
  void listen(const std::string& address) {
    const Address at = Address::Parse(address);
    const int status = parts_->service().Listen(at.kind, at.where.c_str(), at.port.c_str());
    if (status < 0) CannotListen(address, status == -EISCONN ? "this server listens already" : std::strerror(-status));
    parts_->host->is_stopping = false;
    parts_->host->gate.Open();
    if (parts_->service().Serve()) return;
    close();
    CannotListen(address, "there is no thread to be had");
  }

  // The end of serving that leaves nobody in the middle: nobody can connect any more, new requests are answered with
  // kStoppingCode, and those that are being served may end, and their answers leave. Returns the names of those that
  // had not ended at the deadline. The connections stay until close. Not in a handler, and not on the thread that
  // drains a Loop while requests wait there.
  std::vector<std::string> drain(Deadline deadline) { return Drain(deadline, nullptr); }
  // The same on the thread that runs the handlers of `loop`, which are run meanwhile.
  std::vector<std::string> drain(Deadline deadline, const Loop& loop) { return Drain(deadline, &loop); }

  // Ends all connections and waits for handlers that run; it may listen again. In one of them it only ends the
  // connections.
  void close() { parts_->Close(); }

  // Who is connected.
  std::vector<Caller> clients() const {
    rpc::CallersSink all(*parts_);
    parts_->service().EachClient(all);
    return std::move(all.callers);
  }

  // Posts to everybody who is connected.
  template <class... A>
  void broadcast(const std::string& name, const A&... arguments) const {
    for (const Caller& client : clients())
      client.post(name, arguments...);
  }

  // Whether clients may ask what there is (mivo::methods); as long as nothing was said, they may.
  void describe(bool on) { parts_->service().Describe(on); }

  // Calls and handlers are told to `observer` from now on; null: to nobody.
  void observe(Observer observer) { parts_->host->observer.Set(std::move(observer)); }

 private:
  [[noreturn]] static void CannotListen(const std::string& address, const std::string& why) {
    throw Error(kCannotListenCode, address + ": cannot listen there: " + why);
  }

  // `loop`, if it is not null, is drained meanwhile.
  std::vector<std::string> Drain(Deadline deadline, const Loop* loop) {
    constexpr std::chrono::milliseconds kStep{2};
    rpc::Service& service = parts_->service();
    parts_->host->is_stopping = true;
    StopListening(service.server());
    const auto end = deadline.from_now();
    for (;;) {
      if (loop != nullptr) loop->drain();
      rpc::NamesSink running;
      service.Running(running);
      // Also until the last answers are on their way.
      const bool is_done = running.names.empty() && RequestsUnderWay(service.server()) == 0;
      if (is_done || std::chrono::steady_clock::now() >= end) return running.names;
      // Nobody tells when an answer has left: it is not worth anything on the path of a call.
      std::this_thread::sleep_for(kStep);
    }
  }

  struct DeleteParts {
    void operator()(rpc::ServerParts* parts) const { rpc::ServerParts::Delete(parts); }
  };

  std::unique_ptr<rpc::ServerParts, DeleteParts> parts_;
};

}  // namespace mivo

#endif  // MIVO_RPC_SERVER_H_
