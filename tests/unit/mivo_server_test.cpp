#include "server/mivo_server.h"

#include <gtest/gtest.h>
#include <mivo/params.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "largedata/slice.h"
#include "support/background.h"
#include "support/event.h"
#include "support/handlers.h"
#include "support/raw_client.h"
#include "support/stdout_capture.h"
#include "support/transport.h"
#include "transport/envelope.h"
#include "unit/live_bytes.h"

namespace mivo {
namespace {

using mivo_test::Background;
using mivo_test::Deletions;
using mivo_test::Event;
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

TEST(MIVOServer, DeletesNoSinkThatALineOfAnotherThreadIsStillWith) {
  Deletions deletions;
  Event entered;
  Event leave;
  const StdoutCapture out;
  MIVOServer server;
  auto* const both = new LambdaMethod(
      [&](int, MIVOParams* request, MIVOParams*) {
        if (std::string(request->GetValue(0)->GetString()) != "send msg: disconnect... .. .\n") return;
        entered.Signal();
        leave.WaitFor();
        EXPECT_EQ(deletions.count, 0);
      },
      &deletions);
  server.method("s_c_log", both);
  server.method("name", both);
  std::thread caller([&] { server.PostMsg(1, "name", nullptr, 0); });
  ASSERT_TRUE(entered.WaitFor());
  ASSERT_TRUE(server.StartMIVOServer(mivo_test::UniqueSocketName().c_str()));
  Background<bool> closing([&] { return server.close(); });
  // The state is changed first; handlers go last.
  EXPECT_TRUE(mivo_test::Eventually([&] { return !server.isok(); }));
  EXPECT_FALSE(closing.WaitFor(std::chrono::milliseconds(50)));
  leave.Signal();
  EXPECT_TRUE(closing.Get());
  EXPECT_EQ(deletions.count, 1);
  caller.join();
}

TEST(MIVOServer, DeletesASinkThatClosesItWhenItHasReturned) {
  Deletions deletions;
  Event deleted_too_early;
  const StdoutCapture out;
  MIVOServer server;
  auto* const both = new LambdaMethod(
      [&](int, MIVOParams* request, MIVOParams*) {
        if (std::string(request->GetValue(0)->GetString()).find("Accept success") != 0) return;
        EXPECT_TRUE(server.close());
        if (deletions.count != 0) deleted_too_early.Signal();
      },
      &deletions);
  server.method("s_c_log", both);
  server.method("name", both);
  const std::string name = mivo_test::UniqueSocketName();
  ASSERT_TRUE(server.InitMIVOServer(name.c_str()));
  const mivo_test::RawPeer peer = mivo_test::RawPeer::ConnectTo({mivo_test::Transport::Local, "", name});
  EXPECT_TRUE(mivo_test::Eventually([&] { return deletions.count == 1; }));
  EXPECT_EQ(deleted_too_early.count(), 0);
  EXPECT_FALSE(server.isok());
}

TEST(MIVOServer, KeepsNothingOfUnfinishedLargeMessagesBeyondItsClose) {
  const StdoutCapture out;
  MIVOServer server;
  const mivo_test::Address address = mivo_test::FreeAddress(mivo_test::Transport::Local);
  ASSERT_TRUE(mivo_test::InitServer(&server, address));
  mivo_test::RawPeer peer = mivo_test::RawPeer::ConnectTo(address);
  const std::size_t before = mivo_test::LiveBytes();
  const std::string bytes(std::size_t{8} << 20, 'x');
  for (const char* const name : {"s_c_req_body", "s_c_req_header"}) {
    for (const int key : {1, 2}) {
      MIVOParams slice;
      WriteSlice({key, 1 << 30, bytes}, &slice);
      ASSERT_TRUE(peer.Exchange(EncodeRequest(name, key, &slice, 0)));
    }
  }
  EXPECT_GT(mivo_test::LiveBytes(), before + 4 * bytes.size());
  EXPECT_TRUE(server.close());
  // The address sanitizer counts what a thread has freed a moment after that thread has ended.
  EXPECT_TRUE(mivo_test::Eventually([&] { return mivo_test::LiveBytes() < before + 2 * bytes.size(); }));
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
