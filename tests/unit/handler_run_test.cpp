#include "calls/handler_run.h"

#include <gtest/gtest.h>
#include <mivo/handler.h>
#include <mivo/params.h>

#include <stdexcept>
#include <string>

#include "base/handler_scope.h"
#include "calls/diagnostics.h"
#include "support/handlers.h"
#include "support/stdout_capture.h"

namespace mivo {
namespace {

using mivo_test::LambdaMethod;
using mivo_test::LambdaMethodAll;
using mivo_test::StdoutCapture;

struct Call {
  int owner = 0;
  Diagnostics print{&owner};
  std::string name = "sum";
  MIVOParams request;
  MIVOParams reply;

  HandlerCall operator()() { return {&owner, print, name, 42, &request, &reply}; }
};

TEST(RunHandler, PassesOnWhatTheCallBrings) {
  Call call;
  bool called = false;
  LambdaMethod handler([&](int client_id, MIVOParams* request, MIVOParams* reply) {
    called = true;
    EXPECT_EQ(client_id, 42);
    EXPECT_EQ(request, &call.request);
    EXPECT_EQ(reply, &call.reply);
    EXPECT_TRUE(HandlerScope::Inside(&call.owner));
  });
  RunHandler(handler, call());
  EXPECT_TRUE(called);
  EXPECT_FALSE(HandlerScope::Inside(&call.owner));
}

TEST(RunHandler, PassesOnThatThereAreNoParameters) {
  Call call;
  bool called = false;
  LambdaMethod handler([&](int, MIVOParams* request, MIVOParams* reply) {
    called = true;
    EXPECT_EQ(request, nullptr);
    EXPECT_EQ(reply, nullptr);
  });
  RunHandler(handler, {&call.owner, call.print, call.name, 42, nullptr, nullptr});
  EXPECT_TRUE(called);
}

TEST(RunHandler, ReportsAnExceptionAndKeepsTheReplySoFar) {
  Call call;
  LambdaMethod handler([](int, MIVOParams*, MIVOParams* reply) {
    reply->AddInt(5);
    throw std::runtime_error("out of cheese");
  });
  const StdoutCapture out;
  RunHandler(handler, call());
  EXPECT_EQ(out.Text(), "handler sum: out of cheese\n");
  ASSERT_TRUE(call.reply.ToParams());
  ASSERT_EQ(call.reply.ParamsSize(), 1);
  EXPECT_EQ(call.reply.GetValue(0)->GetInt(), 5);
  EXPECT_FALSE(HandlerScope::Inside(&call.owner));
}

TEST(RunHandler, ReportsAnExceptionOfAnyTypeAndAtAnyLevel) {
  Call call;
  call.print.SetLevel("", 0);
  LambdaMethod handler([](int, MIVOParams*, MIVOParams*) { throw 5; });
  const StdoutCapture out;
  RunHandler(handler, call());
  EXPECT_EQ(out.Text(), "handler sum: unknown exception\n");
}

TEST(RunHandler, WritesControlCharactersOfAPeerAsNumbers) {
  Call call;
  call.name = std::string("a\nhandler b: \x1b[2J\0c", 19);
  LambdaMethod throws([](int, MIVOParams*, MIVOParams*) { throw std::runtime_error("no \x07\r\n Käse"); });
  LambdaMethod throws_anything([](int, MIVOParams*, MIVOParams*) { throw 5; });
  const StdoutCapture out;
  RunHandler(throws, call());
  RunHandler(throws_anything, call());
  EXPECT_EQ(out.Text(),
            "handler a\\x0ahandler b: \\x1b[2J\\x00c: no \\x07\\x0d\\x0a Käse\n"
            "handler a\\x0ahandler b: \\x1b[2J\\x00c: unknown exception\n");
}

TEST(RunCatchAll, PassesOnTheNameToo) {
  Call call;
  bool called = false;
  LambdaMethodAll handler([&](const char* name, int client_id, MIVOParams* request, MIVOParams* reply) {
    called = true;
    EXPECT_STREQ(name, "sum");
    EXPECT_EQ(client_id, 42);
    EXPECT_EQ(request, &call.request);
    EXPECT_EQ(reply, &call.reply);
    EXPECT_TRUE(HandlerScope::Inside(&call.owner));
  });
  RunCatchAll(handler, call());
  EXPECT_TRUE(called);
}

TEST(RunCatchAll, ReportsAnException) {
  Call call;
  const StdoutCapture out;
  LambdaMethodAll throws([](const char*, int, MIVOParams*, MIVOParams*) { throw std::logic_error("no"); });
  RunCatchAll(throws, call());
  LambdaMethodAll throws_anything([](const char*, int, MIVOParams*, MIVOParams*) { throw "no"; });
  RunCatchAll(throws_anything, call());
  EXPECT_EQ(out.Text(), "handler sum: no\nhandler sum: unknown exception\n");
}

}  // namespace
}  // namespace mivo
