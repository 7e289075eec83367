// A client of the typed layer.
#ifndef MIVO_RPC_CLIENT_H_
#define MIVO_RPC_CLIENT_H_

#include <mivo/rpc/address.h>
#include <mivo/rpc/boundary.h>
#include <mivo/rpc/calls.h>
#include <mivo/rpc/client_options.h>
#include <mivo/rpc/handler.h>
#include <mivo/rpc/host.h>
#include <mivo/rpc/link.h>
#include <mivo/rpc/process.h>

#include <exception>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace mivo {
namespace rpc {

struct ServerTarget {
  CallOutcome Call(const char* name, MIVOParams& request, const CallTerms& terms, MIVOParams& reply) const {
    return link->Call(name, request, terms.deadline.milliseconds(), terms.is_idempotent, reply);
  }
  void CallAsync(const char* name, MIVOParams& request, const CallTerms& terms,
                 std::unique_ptr<CallCompletion> completion) const {
    link->CallAsync(name, request, terms.deadline.milliseconds(), terms.is_idempotent, completion.release());
  }
  void Post(const char* name, MIVOParams& request) const { link->Post(name, request); }
  const ObserverSlot& observer() const { return *observer_slot; }

  Link* link;
  const ObserverSlot* observer_slot;
};

// A function to be called when a connection stands.
class ReadyFunction final : public ReadyAction {
 public:
  explicit ReadyFunction(std::function<void()> function) : function_(std::move(function)) {}
  bool Run(TextSink& error) override {
    try {
      function_();
      return true;
    } catch (const std::exception& thrown) {
      const std::string what = thrown.what();
      error.Take(what.data(), what.size());
    } catch (...) {
      const std::string what = "unknown exception";
      error.Take(what.data(), what.size());
    }
    return false;
  }

 private:
  const std::function<void()> function_;
};

// What there is of a client once, wherever it is moved.
class ClientParts {
 public:
  ClientParts* left_before = nullptr;
  const ProcessMark process;
  const std::shared_ptr<Host> host = std::make_shared<Host>();

  // Throws what the client's constructor does.
  ClientParts(const std::string& address, const ClientOptions& options) : link_(Open(address, options)) {}
  ClientParts(const ClientParts&) = delete;
  ClientParts& operator=(const ClientParts&) = delete;

  Link& link() const { return *link_; }

  // In a handler of its own there is no end that could be waited for.
  static void Delete(ClientParts* parts) {
    if (!parts->process.IsThisProcess() || !parts->link_->End()) return LeaveBehind(parts);
    parts->host->gate.Close();
    parts->link_->Destroy();
    delete parts;
  }

 private:
  ~ClientParts() = default;

  static Link* Open(const std::string& address, const ClientOptions& options) {
    const Address at = Address::Parse(address);
    const ClientOptions filled = WithPauses(options, at.is_local());
    StringSink error;
    Link* const link =
        OpenLink({at.kind, at.where.c_str(), at.port.c_str(), address.c_str(), filled.connect_deadline.milliseconds(),
                  filled.deadline.milliseconds(), filled.reconnect, filled.while_away == WhileAway::kWait,
                  static_cast<int>(filled.shortest_pause.count()), static_cast<int>(filled.longest_pause.count())},
                 error);
    if (link == nullptr) throw NotConnected(error.text);
    return link;
  }

  Link* const link_;
};

}  // namespace rpc

// A connection to a server, from the constructor to the destructor.
//
//     mivo::Client client("unix:jobs");
//     client.on("done", [](std::int64_t id, bool ok) { ... });
//     const int sum = client.call<int>("add", 2, 40);
//
// With kReconnect, or ClientOptions::reconnect, it comes back when the connection has ended, on the same address, with
// the same handlers. What may have been carried out is not sent again by itself, unless the call is marked
// idempotent(). Before it connects again it waits for its handlers and completions (then) that run on the pool; so a
// call in one of them, or in on_ready, does not wait for a connection, but throws NotConnected.
//
// Threads: any, several at a time. Handlers run on the library's pool threads; see queue.h for others. What a handler
// uses has to live until the client has gone: declare it before the client.
class Client : public Calls<rpc::ServerTarget> {
 public:
  // Connects. Throws NotConnected if there is no server, or one of another version; std::invalid_argument for what is
  // no address. One that reconnects does not wait for its first connection, and throws the latter only.
  explicit Client(const std::string& address, ClientOptions options = {})
      : Client(PartsOwner(new rpc::ClientParts(address, options)), options.deadline) {}
  Client(const std::string& address, Deadline deadline) : Client(address, WithDeadline(deadline)) {}
  Client(Client&&) = default;
  // What waits is woken with Disconnected, or NotConnected if it waits to be sent; waits for handlers that run. A
  // static one may also go by an exit() in a handler of its own: there it waits for nobody.
  ~Client() = default;

  bool is_connected() const { return parts_->link().is_ready(); }

  // Offers a method to the server. The function's parameters are those of the call; what it returns or throws goes
  // back. The server may call as soon as the client is connected: what comes before this is dropped, so ask for what is
  // to come afterwards. Throws std::logic_error if there is one of the name, std::invalid_argument for a name of the
  // library's own.
  template <class Function>
  Client& on(const std::string& name, Function function, About about = {}) {
    std::shared_ptr<Handler> handler = rpc::MakeHandler<Nobody>(
        name, parts_->host, std::move(about), [](int) { return Nobody(); }, std::move(function));
    Offer(name, std::move(handler));
    return *this;
  }

  // Called once for each connection as soon as it stands, and at once if it does: the place for subscriptions. On a
  // thread of the client's own; calls of others may be ahead of those made here, and those made here are for that
  // connection alone. If it throws, that connection is given up, and tried anew after a pause (last_error() says why).
  // Of a client that does not reconnect: here and now, and what it throws is thrown here.
  Client& on_ready(std::function<void()> function) {
    if (parts_->link().reconnects()) {
      parts_->link().OnReady(new rpc::ReadyFunction(std::move(function)));
    } else {
      function();
    }
    return *this;
  }

  // Until it is connected; false at the deadline. One that does not reconnect is connected, or never will be again.
  bool wait_until_ready(Deadline deadline) { return parts_->link().WaitUntilReady(deadline.milliseconds()); }

  // Of one that reconnects: does not wait out the pause before the next attempt.
  void retry_now() { parts_->link().RetryNow(); }
  // Of one that reconnects: why the last attempt has failed, in a sentence; empty while it is connected.
  std::string last_error() const {
    rpc::StringSink error;
    parts_->link().LastError(error);
    return error.text;
  }

  // Calls and handlers are told to `observer` from now on; null: to nobody.
  void observe(Observer observer) { parts_->host->observer.Set(std::move(observer)); }

 private:
  struct Nobody {};

  static ClientOptions WithDeadline(Deadline deadline) {
    ClientOptions options;
    options.deadline = deadline;
    return options;
  }

  struct DeleteParts {
    void operator()(rpc::ClientParts* parts) const { rpc::ClientParts::Delete(parts); }
  };
  using PartsOwner = std::unique_ptr<rpc::ClientParts, DeleteParts>;

  Client(PartsOwner parts, Deadline deadline)
      : Calls(rpc::ServerTarget{&parts->link(), &parts->host->observer}, deadline), parts_(std::move(parts)) {}

  void Offer(const std::string& name, std::shared_ptr<Handler> handler) {
    if (!parts_->link().Offer(new rpc::SharedHandler(std::move(handler)))) {
      throw std::logic_error(name + ": there is a handler of that name");
    }
  }

  PartsOwner parts_;
};

}  // namespace mivo

#endif  // MIVO_RPC_CLIENT_H_
