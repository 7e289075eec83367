#include "server/dispatch.h"

#include <gtest/gtest.h>
#include <mivo/handler.h>
#include <mivo/params.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "calls/request_job.h"
#include "support/golden.h"
#include "support/handlers.h"
#include "transport/connection.h"
#include "unit/payload.h"

namespace mivo {
namespace {

using mivo_test::Golden;
using mivo_test::LambdaMethod;
using mivo_test::LambdaMethodAll;
using mivo_test::Payload;
using mivo_test::ToHex;
using Strings = std::vector<std::string>;

class NoOwner : public Connection::Owner {
 public:
  void OnFirstRead(Connection&) override {}
  void OnPayload(Connection&, std::string_view, Jobs&) override {}
  void OnEnd(Connection&, int) override {}
  void OnFrameDropped(Connection&) override {}
};

struct Server {
  JobGroup jobs;
  NoOwner owner;
  Diagnostics print{this};
  HandlerTable handlers{HandlerTable::Rules::kOfAServer};
  Dispatch dispatch{this, print, handlers};
  const std::shared_ptr<Connection> client = std::make_shared<Connection>(owner, jobs, 42);

  std::string Serve(const std::string& bytes) {
    const Request request(client, bytes, ReadEnvelope(bytes));
    MIVOParams reply;
    dispatch.Serve(request, &reply);
    return *reply.GetParamas();
  }
  std::string ServeName(const char* name) {
    return Serve(Payload().KeyString("s_c_sw_name", name).KeyInt("s_c_sw_threadid", 9));
  }
};

std::string NoEvent(const char* name) {
  return Payload()
      .String(std::string("no event: ") + name)
      .KeyString("s_c_sw_name", "retval")
      .KeyInt("s_c_sw_threadid", 9);
}

TEST(Dispatch, SaysThatANameIsUnknown) {
  Server server;
  EXPECT_EQ(ToHex(server.ServeName("foo")), ToHex(Golden("server_reply_unknown_name")));
}

TEST(Dispatch, CompletesTheReplyOfAHandlerThatWritesNothing) {
  Server server;
  LambdaMethod handler(nullptr);
  server.handlers.Register("foo", &handler);
  EXPECT_EQ(ToHex(server.Serve(Golden("call_request"))), ToHex(Golden("server_reply_empty")));
}

TEST(Dispatch, GivesTheHandlerTheArgumentsAndTheClient) {
  Server server;
  LambdaMethod handler([](int client_id, MIVOParams* request, MIVOParams* reply) {
    EXPECT_EQ(client_id, 42);
    reply->AddInt(request->GetValue(0)->GetInt() + request->GetValue(1)->GetInt());
  });
  server.handlers.Register("sum", &handler);
  const std::string reply =
      server.Serve(Payload().KeyString("s_c_sw_name", "sum").KeyStream("s_c_sw_data", Payload().Int(2).Int(3).bytes()));
  EXPECT_EQ(ToHex(reply), ToHex(Payload().Int(5).KeyString("s_c_sw_name", "retval").bytes()));
}

TEST(Dispatch, CallsTheCatchAllFirstForANameWithoutAHandler) {
  Server server;
  Strings names;
  LambdaMethodAll catch_all([&](const char* name, int client_id, MIVOParams*, MIVOParams* reply) {
    EXPECT_EQ(client_id, 42);
    names.emplace_back(name);
    reply->AddInt(7);
  });
  server.handlers.RegisterCatchAll(&catch_all);
  const std::string expected =
      Payload().Int(7).String("no event: foo").KeyString("s_c_sw_name", "retval").KeyInt("s_c_sw_threadid", 9);
  EXPECT_EQ(ToHex(server.ServeName("foo")), ToHex(expected));
  EXPECT_EQ(names, Strings{"foo"});

  LambdaMethod handler(nullptr);
  server.handlers.Register("foo", &handler);
  server.ServeName("foo");
  EXPECT_EQ(names, Strings{"foo"});
}

TEST(Dispatch, KeepsNamesWithAMeaningOfTheirOwnFromTheCatchAll) {
  Server server;
  Strings names;
  LambdaMethodAll catch_all([&](const char* name, int, MIVOParams*, MIVOParams*) { names.emplace_back(name); });
  server.handlers.RegisterCatchAll(&catch_all);
  EXPECT_EQ(ToHex(server.ServeName("s_c_version")), ToHex(NoEvent("s_c_version")));
  EXPECT_EQ(ToHex(server.ServeName("s_c_closed")), ToHex(NoEvent("s_c_closed")));
  EXPECT_EQ(ToHex(server.ServeName("s_c_connect")), ToHex(NoEvent("s_c_connect")));
  EXPECT_TRUE(names.empty());
  server.ServeName("s_c_log");
  EXPECT_EQ(names, Strings{"s_c_log"});
}

TEST(Dispatch, CallsAMethodOfALargeMessageWithoutTheCatchAll) {
  Server server;
  LambdaMethodAll catch_all([](const char*, int, MIVOParams*, MIVOParams*) { ADD_FAILURE() << "called"; });
  server.handlers.RegisterCatchAll(&catch_all);
  MIVOParams request;
  MIVOParams result;
  server.dispatch.CallMethod("foo", 42, &request, &result);
  EXPECT_EQ(ToHex(*result.GetParamas()), ToHex(Payload().String("no event: foo").bytes()));
}

TEST(Dispatch, NotifiesWhoeverIsRegisteredAndNobodyElse) {
  Server server;
  MIVOParams request;
  MIVOParams reply;
  server.dispatch.Notify("s_c_connect", 42, &request, &reply);
  EXPECT_EQ(reply.Size(), 0);
  int notices = 0;
  LambdaMethod handler([&](int client_id, MIVOParams* given_request, MIVOParams* given_reply) {
    ++notices;
    EXPECT_EQ(client_id, 42);
    EXPECT_EQ(given_request, &request);
    EXPECT_EQ(given_reply, &reply);
  });
  server.handlers.Register("s_c_connect", &handler);
  server.dispatch.Notify("s_c_connect", 42, &request, &reply);
  server.dispatch.Notify("s_c_closed", 42, &request, &reply);
  EXPECT_EQ(notices, 1);
}

}  // namespace
}  // namespace mivo
