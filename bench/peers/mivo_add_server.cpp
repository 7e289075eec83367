// The addition of two numbers, offered through the plain interface (flavour "plain") or the typed layer ("typed").
#include <mivo/mivo.h>
#include <mivo/rpc.h>

#include <functional>

#include "harness/program.h"
#include "peers/mivo_echo.h"

namespace bench {
namespace {

class Addition : public IServerMethod {
 public:
  void OnCall(int, MIVOParams* request, MIVOParams* reply) override {
    const MIVOValue* const first = request->GetValue(0);
    const MIVOValue* const second = request->GetValue(1);
    if (first == nullptr || second == nullptr || !first->IsInt() || !second->IsInt()) return;
    reply->AddInt(first->GetInt() + second->GetInt());
  }
};

void ServePlain(const Options& options, const std::function<void()>& listening) {
  // Never destroyed, like the other one: the program ends while it serves.
  IServer* const server = CreateServer();
  server->log(nullptr, 0);
  server->method("add", new Addition);
  Require(server->StartMIVOServer(MivoName(options).c_str()), "cannot listen");
  listening();
  server->run();
}

void ServeTyped(const Options& options, const std::function<void()>& listening) {
  auto* const server = new mivo::Server;
  server->on("add", [](int first, int second) { return first + second; });
  server->listen("unix:" + MivoName(options));
  listening();
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  using namespace bench;
  return ServerMain(argc, argv, [](const Options& options, const std::function<void()>& listening) {
    (options.flavour == "typed" ? ServeTyped : ServePlain)(options, listening);
  });
}
