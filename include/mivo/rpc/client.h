// A client of the typed layer.
#ifndef MIVO_RPC_CLIENT_H_
#define MIVO_RPC_CLIENT_H_

#include <mivo/rpc/calls.h>
#include <mivo/rpc/handler.h>
#include <mivo/rpc/link.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace mivo {

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
      : Client(std::unique_ptr<rpc::Link, rpc::DeleteInOwnProcess>(new rpc::Link(address, options))) {}
  Client(const std::string& address, Deadline deadline) : Client(address, WithDeadline(deadline)) {}
  Client(Client&&) = default;
  // What waits is woken with Disconnected, or NotConnected if it waits to be sent; waits for handlers that run.
  ~Client() = default;

  bool is_connected() const { return link_->is_ready(); }

  // Offers a method to the server. The function's parameters are those of the call; what it returns or throws goes
  // back. The server may call as soon as the client is connected: what comes before this is dropped, so ask for what is
  // to come afterwards. Throws std::logic_error if there is one of the name, std::invalid_argument for a name of the
  // library's own.
  template <class Function>
  Client& on(const std::string& name, Function function, About about = {}) {
    link_->Offer(rpc::MakeHandler<Nobody>(
        name, link_->host(), std::move(about), [](int) { return Nobody(); }, std::move(function)));
    return *this;
  }

  // Called once for each connection as soon as it stands, and at once if it does: the place for subscriptions. On a
  // thread of the client's own; calls of others may be ahead of those made here, and those made here are for that
  // connection alone. If it throws, that connection is given up, and tried anew after a pause (last_error() says why).
  // Of a client that does not reconnect: here and now, and what it throws is thrown here.
  Client& on_ready(std::function<void()> function) {
    link_->OnReady(std::move(function));
    return *this;
  }

  // Until it is connected; false at the deadline. One that does not reconnect is connected, or never will be again.
  bool wait_until_ready(Deadline deadline) { return link_->WaitUntilReady(deadline); }

  // Of one that reconnects: does not wait out the pause before the next attempt.
  void retry_now() { link_->RetryNow(); }
  // Of one that reconnects: why the last attempt has failed, in a sentence; empty while it is connected.
  std::string last_error() const { return link_->last_error(); }

  // Calls and handlers are told to `observer` from now on; null: to nobody.
  void observe(Observer observer) { link_->host()->observer.Set(std::move(observer)); }

 private:
  struct Nobody {};

  static ClientOptions WithDeadline(Deadline deadline) {
    ClientOptions options;
    options.deadline = deadline;
    return options;
  }

  explicit Client(std::unique_ptr<rpc::Link, rpc::DeleteInOwnProcess> link)
      : Calls(rpc::ServerTarget{link.get()}, link->options().deadline), link_(std::move(link)) {}

  std::unique_ptr<rpc::Link, rpc::DeleteInOwnProcess> link_;
};

}  // namespace mivo

#endif  // MIVO_RPC_CLIENT_H_
