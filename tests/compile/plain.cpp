// A program that does without exceptions: the interface below the typed layer asks for none. Exit status 0 when its
// call came back as it should.
#include <mivo/calls.h>
#include <mivo/connections.h>
#include <mivo/mivo.h>

#include <cstdio>
#include <thread>

#ifdef __cpp_exceptions
#error "to be compiled with -fno-exceptions"
#endif

namespace {

struct Add : IServerMethod {
  void OnCall(int, MIVOParams* request, MIVOParams* reply) override {
    reply->AddInt(request->GetValue(0)->GetInt() + request->GetValue(1)->GetInt());
  }
};

int Fail(const char* what, int number) {
  std::printf("FAILED: %s: %d\n", what, number);
  return 1;
}

}  // namespace

// plain <socket>
int main(int argument_count, char** arguments) {
  if (argument_count != 2) return Fail("arguments", argument_count);
  IServer* const server = CreateServer();
  mivo::BeQuiet(*server);
  server->method("add", new Add);
  const int listening = mivo::Listen(*server, mivo::AddressKind::kPath, arguments[1], nullptr);
  if (listening != 0) return Fail("cannot listen", listening);
  std::thread serving([server] { server->run(); });

  IClient* const client = CreateClient();
  mivo::BeQuiet(*client);
  const int connected = mivo::Connect(*client, mivo::AddressKind::kPath, arguments[1], nullptr, 60000);
  int status = connected == 0 ? 0 : Fail("cannot connect", connected);
  if (status == 0) {
    MIVOParams request;
    request.AddInt(2);
    request.AddInt(40);
    MIVOParams reply;
    const mivo::CallOutcome outcome = mivo::Call(*client, "add", &request, 60000, reply);
    const MIVOValue* const sum = reply.GetValue(0);
    if (outcome != mivo::CallOutcome::kAnswered) {
      status = Fail("no answer", static_cast<int>(outcome));
    } else if (sum == nullptr || !sum->IsInt() || sum->GetInt() != 42) {
      status = Fail("another sum", sum == nullptr ? 0 : sum->GetInt());
    } else {
      std::printf("2 + 40 = 42\n");
    }
  }
  DestroyClient(client);
  server->close();
  serving.join();
  DestroyServer(server);
  return status;
}
