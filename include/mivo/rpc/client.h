// A client of the typed layer.
#ifndef MIVO_RPC_CLIENT_H_
#define MIVO_RPC_CLIENT_H_

#include <mivo/client.h>
#include <mivo/rpc/address.h>
#include <mivo/rpc/calls.h>
#include <mivo/rpc/handler.h>

#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>

namespace mivo {
namespace rpc {

struct ServerTarget {
  CallOutcome Call(const char* name, const MIVOParams& request, int timeout_ms, MIVOParams& reply) const {
    return mivo::Call(*client, name, &request, timeout_ms, reply);
  }
  void CallAsync(const char* name, const MIVOParams& request, int timeout_ms,
                 std::unique_ptr<CallCompletion> completion) const {
    mivo::CallAsync(*client, name, &request, timeout_ms, completion.release());
  }
  void Post(const char* name, MIVOParams& request) const { client->PostMsgFast(name, &request, 1); }

  IClient* client;
};

}  // namespace rpc

// A connection to a server, from the constructor to the destructor.
//
//     mivo::Client client("unix:jobs");
//     client.on("done", [](std::int64_t id, bool ok) { ... });
//     const int sum = client.call<int>("add", 2, 40);
//
// Threads: any, several at a time; Handlers run on the library's pool threads.
class Client : public Calls<rpc::ServerTarget> {
 public:
  static constexpr std::chrono::seconds kUsualDeadline{10};

  // Connects. Throws NotConnected if there is no server, or one of another version; std::invalid_argument for what is
  // no address.
  explicit Client(const std::string& address, Deadline deadline = kUsualDeadline)
      : Client(Parts::Make(), Address::Parse(address), address, deadline) {}
  Client(Client&&) = default;
  // What waits is woken with Disconnected; waits for handlers that run.
  ~Client() = default;

  bool is_connected() const { return parts_->client->isok(); }

  // Offers a method to the server. The function's parameters are those of the call; what it returns or throws goes
  // back. Throws std::logic_error if there is one of the name, std::invalid_argument for a name of the library's own.
  template <class Function>
  Client& on(const std::string& name, Function function) {
    auto handler = rpc::MakeHandler<Nobody>(
        name, [](int) { return Nobody(); }, std::move(function));
    const std::lock_guard<std::mutex> lock(parts_->mutex);
    auto [place, is_new] = parts_->handlers.emplace(name, std::move(handler));
    if (!is_new) throw std::logic_error(name + ": there is a handler of that name");
    parts_->client->method(name.c_str(), place->second.get());
    return *this;
  }

 private:
  struct Nobody {};
  struct Destroy {
    void operator()(IClient* client) const { DestroyClient(client); }
  };
  struct Parts {
    static std::unique_ptr<Parts> Make() {
      auto parts = std::make_unique<Parts>();
      parts->client->log(nullptr, 0);
      parts->client->SetCustomReleaseEvent();
      return parts;
    }
    // Outlive the client that calls them.
    std::mutex mutex;
    std::map<std::string, std::unique_ptr<IServerMethod>> handlers;
    std::unique_ptr<IClient, Destroy> client{CreateClient()};
  };

  Client(std::unique_ptr<Parts> parts, const Address& to, const std::string& address, Deadline deadline)
      : Calls(rpc::ServerTarget{parts->client.get()}, deadline), parts_(std::move(parts)) {
    IClient& client = *parts_->client;
    const bool connected = to.kind == Address::kUnix ? client.InitMIVOClient(to.name.c_str(), true)
                           : to.kind == Address::kTcp4
                               ? client.InitMIVOClientTcp4(to.host.c_str(), to.name.c_str(), true)
                               : client.InitMIVOClientTcp6(to.host.c_str(), to.name.c_str(), true);
    if (!connected) throw NotConnected(address + ": no server of this version answers");
  }

  std::unique_ptr<Parts> parts_;
};

}  // namespace mivo

#endif  // MIVO_RPC_CLIENT_H_
