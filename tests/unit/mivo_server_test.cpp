#include "server/mivo_server.h"

#include <gtest/gtest.h>
#include <mivo/params.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/event.h"
#include "support/handlers.h"
#include "support/stdout_capture.h"
#include "support/transport.h"

namespace mivo {
namespace {

using mivo_test::Deletions;
using mivo_test::LambdaMethod;
using mivo_test::LambdaMethodAll;
using mivo_test::StdoutCapture;
using Strings = std::vector<std::string>;

// Stands in for the operations that the others call, and writes down which of them was called where.
class Subclass : public MIVOServer {
 public:
  bool StartMIVOServer(const char* name) override { return Started(std::string("local ") + name); }
  bool StartMIVOServerTcp4(const char* ip, const char* port) override {
    return Started(std::string("tcp4 ") + ip + " " + port);
  }
  bool StartMIVOServerTcp6(const char* ip, const char* port) override {
    return Started(std::string("tcp6 ") + ip + " " + port);
  }
  int GetPort() override { return 4711; }
  bool run() override {
    Note("run");
    return true;
  }
  bool isok() override { return is_listening; }

  Strings journal() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return journal_;
  }
  int other_threads() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return other_threads_;
  }

  bool starts = true;
  std::atomic<bool> is_listening{false};

 private:
  bool Started(const std::string& what) {
    Note(what);
    is_listening = starts;
    return starts;
  }
  void Note(const std::string& what) {
    const std::lock_guard<std::mutex> lock(mutex_);
    journal_.push_back(what);
    if (std::this_thread::get_id() != maker_) ++other_threads_;
  }

  const std::thread::id maker_ = std::this_thread::get_id();
  std::mutex mutex_;
  Strings journal_;
  int other_threads_ = 0;
};

TEST(MIVOServer, StartsAndRunsThroughTheTableOnTheThreadThatServes) {
  {
    Subclass server;
    EXPECT_TRUE(server.InitMIVOServer("80"));
    EXPECT_TRUE(mivo_test::Eventually([&] { return server.journal().size() == 2; }));
    EXPECT_EQ(server.journal(), (Strings{"local 4711", "run"}));
    EXPECT_EQ(server.other_threads(), 2);
    EXPECT_TRUE(server.isthread());
  }
  {
    Subclass server;
    EXPECT_TRUE(server.InitMIVOServerTcp4("1.2.3.4", "80"));
    EXPECT_TRUE(mivo_test::Eventually([&] { return server.journal().size() == 2; }));
    EXPECT_EQ(server.journal(), (Strings{"tcp4 1.2.3.4 4711", "run"}));
    EXPECT_EQ(server.other_threads(), 2);
  }
  {
    Subclass server;
    EXPECT_TRUE(server.InitMIVOServerTcp6("::1", "80"));
    EXPECT_TRUE(mivo_test::Eventually([&] { return server.journal().size() == 2; }));
    EXPECT_EQ(server.journal(), (Strings{"tcp6 ::1 4711", "run"}));
    EXPECT_EQ(server.other_threads(), 2);
  }
}

TEST(MIVOServer, DoesNotRunWhatDidNotStart) {
  Subclass server;
  server.starts = false;
  EXPECT_FALSE(server.InitMIVOServer("80"));
  EXPECT_EQ(server.journal(), Strings{"local 4711"});
  EXPECT_TRUE(server.isthread());
  // And can be tried again.
  server.starts = true;
  EXPECT_TRUE(server.InitMIVOServer("80"));
  EXPECT_TRUE(mivo_test::Eventually([&] { return server.journal().size() == 3; }));
}

TEST(MIVOServer, RefusesASecondStartOnAThread) {
  Subclass server;
  EXPECT_TRUE(server.InitMIVOServer("80"));
  EXPECT_FALSE(server.InitMIVOServer("80"));
  EXPECT_FALSE(server.InitMIVOServerTcp4("127.0.0.1", "80"));
  EXPECT_TRUE(mivo_test::Eventually([&] { return server.journal().size() == 2; }));
  EXPECT_EQ(server.journal(), (Strings{"local 4711", "run"}));
}

TEST(MIVOServer, IsClosedByTheOperationThatFitsItsMode) {
  class Closing : public MIVOServer {
   public:
    Closing(bool threaded, Strings& journal) : threaded_(threaded), journal_(journal) {}
    bool isthread() override { return threaded_; }
    bool close() override {
      journal_.emplace_back("close");
      return true;
    }
    bool closeasync() override {
      journal_.emplace_back("closeasync");
      return true;
    }

   private:
    const bool threaded_;
    Strings& journal_;
  };
  Strings journal;
  DestroyServer(new Closing(true, journal));
  EXPECT_EQ(journal, Strings{"closeasync"});
  DestroyServer(new Closing(false, journal));
  EXPECT_EQ(journal, (Strings{"closeasync", "close"}));
  DestroyServer(nullptr);
}

TEST(MIVOServer, ReturnsNothingFromCallsWhenItDoesNotRun) {
  MIVOServer server;
  char nothing[] = "";
  EXPECT_EQ(server.log(nothing, 0), 0);
  const StdoutCapture out;
  EXPECT_EQ(server.SendMsg(42, "foo", nullptr, 0, 1000), nullptr);
  EXPECT_EQ(server.PostMsg(42, "foo", nullptr, 0), 0);
  EXPECT_EQ(out.Text(), "send msg: disconnect... .. .\nsend msg: disconnect... .. .\n");
}

TEST(MIVOServer, LeavesTheHandlersOfAServerThatNeverRanToTheApplication) {
  Deletions deletions;
  LambdaMethod handler(nullptr, &deletions);
  LambdaMethodAll catch_all(nullptr, &deletions);
  const StdoutCapture out;
  {
    MIVOServer server;
    server.method("name", &handler);
    server.methodall(&catch_all);
    EXPECT_TRUE(server.close());
  }
  EXPECT_EQ(deletions.count, 0);
}

TEST(MIVOServer, DeletesItsHandlersOnceAndNeverItsSink) {
  Deletions deletions;
  Deletions sink_deletions;
  LambdaMethod sink(nullptr, &sink_deletions);
  {
    MIVOServer server;
    auto* const handler = new LambdaMethod(nullptr, &deletions);
    server.method("s_c_log", &sink);
    server.method("one", handler);
    server.method("two", handler);
    server.methodall(new LambdaMethodAll(nullptr, &deletions));
    ASSERT_TRUE(server.StartMIVOServer(mivo_test::UniqueSocketName().c_str()));
    EXPECT_TRUE(server.close());
    EXPECT_EQ(deletions.count, 2);
  }
  EXPECT_EQ(deletions.count, 2);
  EXPECT_EQ(sink_deletions.count, 0);
}

TEST(MIVOServer, ForgetsASinkThatItDeletesAsAHandler) {
  Deletions deletions;
  Strings lines;
  const StdoutCapture out;
  MIVOServer server;
  auto* const both = new LambdaMethod(
      [&](int, MIVOParams* request, MIVOParams*) { lines.emplace_back(request->GetValue(0)->GetString()); },
      &deletions);
  server.method("s_c_log", both);
  server.method("name", both);
  ASSERT_TRUE(server.StartMIVOServer(mivo_test::UniqueSocketName().c_str()));
  EXPECT_TRUE(server.close());
  EXPECT_EQ(deletions.count, 1);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back(), "Server Closing!\n");
  EXPECT_EQ(out.Count("Server Closed!\n"), 1);
}

TEST(MIVOServer, ReadsThePortFromTheTextItWasStartedWith) {
  const StdoutCapture out;
  MIVOServer server;
  EXPECT_EQ(server.GetPort(), 0);
  const std::string name = mivo_test::UniqueSocketName();
  ASSERT_TRUE(server.StartMIVOServer(name.c_str()));
  EXPECT_EQ(server.GetPort(), std::stoi(name));
  EXPECT_FALSE(server.isthread());
  EXPECT_TRUE(server.isok());
  EXPECT_FALSE(server.StartMIVOServer("another"));
  EXPECT_TRUE(server.close());
  EXPECT_FALSE(server.isok());
}

}  // namespace
}  // namespace mivo
