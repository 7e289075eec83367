// A server that was started and is not served yet: there is no client to call.
#include <mivo/mivo.h>

#include "support/child_program.h"
#include "support/role_outcome.h"
#include "support/test_client.h"
#include "support/test_server.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

using namespace mivo_test;

namespace {

// `argument`: the number of the transport, and what is called.
int CallBeforeRun(const std::string& argument) {
  TestServer server(static_cast<Transport>(argument[0] - '0'));
  SetLog(server.get(), "", 0);
  if (!server.Start()) return 2;
  const std::string kind = argument.substr(2);
  if (kind == "post" && server->PostMsg(1, "anything", nullptr, 5) != 0) return 3;
  if (kind == "send" && server->SendMsg(1, "anything", nullptr, 5, 1000) != nullptr) return 4;
  if (kind == "send for ever" && server->SendMsg(1, "anything", nullptr, 5, -1) != nullptr) return 5;
  // It can still be served.
  std::thread serving([&] { server->run(); });
  const bool answers = server.Connect().AnswersInOrder();
  server->closeasync();
  serving.join();
  return answers ? 0 : 6;
}

const Role kCallBeforeRun("calls before run", CallBeforeRun);

class ServerBeforeRun : public testing::TestWithParam<Transport> {
 protected:
  static void Expect(const std::string& kind) {
    ExpectRoleSucceeds("calls before run", std::to_string(static_cast<int>(GetParam())) + " " + kind);
  }
};

INSTANTIATE_TEST_SUITE_P(OnEveryTransport, ServerBeforeRun, kEveryTransport, TransportName);

TEST_P(ServerBeforeRun, ACallReturns) {
  Expect("send");
}

TEST_P(ServerBeforeRun, ACallWithoutLimitReturns) {
  Expect("send for ever");
}

TEST_P(ServerBeforeRun, APostReturns) {
  Expect("post");
}

}  // namespace
