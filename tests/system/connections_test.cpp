// Connecting, listening, late replies and replies in order, by the functions beside the plain interface.
#include <mivo/calls.h>
#include <mivo/connections.h>
#include <mivo/mivo.h>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/background.h"
#include "support/event.h"
#include "support/sanitizers.h"
#include "support/stdout_capture.h"
#include "support/transport.h"

namespace {

using mivo::AddressKind;
using mivo_test::Background;
using mivo_test::Event;
using mivo_test::Eventually;
using mivo_test::StdoutCapture;
using mivo_test::Stopwatch;

template <class Base>
class Function : public Base {
 public:
  using Body = std::function<void(int client_id, MIVOParams* request, MIVOParams* reply)>;
  explicit Function(Body body) : body_(std::move(body)) {}
  void OnCall(int client_id, MIVOParams* request, MIVOParams* reply) override { body_(client_id, request, reply); }

 private:
  const Body body_;
};
using Method = Function<IServerMethod>;
using InOrderMethod = Function<mivo::IInOrderMethod>;

struct Destroy {
  void operator()(IClient* client) const { mivo::DestroyAtOnce(client); }
  void operator()(IServer* server) const { DestroyServer(server); }
};
using Client = std::unique_ptr<IClient, Destroy>;
using Server = std::unique_ptr<IServer, Destroy>;

// Serves until its end.
class Serving {
 public:
  explicit Serving(IServer& server) : server_(server), thread_([&server] { server.run(); }) {}
  ~Serving() {
    server_.close();
    thread_.join();
  }
  Serving(const Serving&) = delete;
  Serving& operator=(const Serving&) = delete;

 private:
  IServer& server_;
  std::thread thread_;
};

std::string OwnPath() {
  return "/tmp/" + mivo_test::UniqueSocketName() + ".sock";
}

class Connections : public testing::Test {
 protected:
  Connections() {
    mivo::BeQuiet(*server_);
    mivo::BeQuiet(*client_);
  }
  int Connect(int timeout_ms = 20000) {
    return mivo::Connect(*client_, AddressKind::kPath, path_.c_str(), nullptr, timeout_ms);
  }
  int Listen() { return mivo::Listen(*server_, AddressKind::kPath, path_.c_str(), nullptr); }
  // The first value of the reply, or -1.
  int Call(const char* name, int timeout_ms = 20000) {
    MIVOParams reply;
    if (mivo::Call(*client_, name, nullptr, timeout_ms, reply) != mivo::CallOutcome::kAnswered) return -1;
    return reply.ParamsSize() == 0 ? 0 : reply.GetValue(0)->GetInt();
  }

  // The server's "ask" answers what the asking client's "yours" does.
  void OfferAsk() {
    server_->SetCustomReleaseEvent();
    server_->method("ask", &ask_);
  }

  const StdoutCapture out_;
  const std::string path_ = OwnPath();
  Method ask_{[this](int id, MIVOParams*, MIVOParams* reply) {
    MIVOParams answer;
    EXPECT_EQ(mivo::Call(*server_, id, "yours", nullptr, 20000, answer), mivo::CallOutcome::kAnswered);
    reply->AddInt(answer.GetValue(0)->GetInt());
  }};
  Server server_{CreateServer()};
  Client client_{CreateClient()};
};

TEST_F(Connections, ToWhereNobodyListensAreRefused) {
  EXPECT_EQ(Connect(), -ENOENT);
  Method one([](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(1); });
  server_->SetCustomReleaseEvent();
  server_->method("one", &one);
  ASSERT_EQ(Listen(), 0);
  EXPECT_EQ(mivo::Listen(*server_, AddressKind::kPath, OwnPath().c_str(), nullptr), -EISCONN);
  {
    const Serving serving(*server_);
    EXPECT_EQ(Connect(), 0);
    EXPECT_EQ(Connect(), -EISCONN);
    EXPECT_EQ(Call("one"), 1);
  }
  EXPECT_TRUE(Eventually([&] { return !client_->isok(); }));
  EXPECT_EQ(Connect(), -ENOENT);
}

TEST_F(Connections, SayNothingOfTheirOwn) {
  ASSERT_EQ(Listen(), 0);
  Server named(CreateServer());
  mivo::BeQuiet(*named);
  EXPECT_EQ(mivo::Listen(*named, AddressKind::kName, mivo_test::UniqueSocketName().c_str(), nullptr), 0);
  {
    const Serving serving(*server_);
    ASSERT_EQ(Connect(), 0);
    client_->close();
    client_->PostMsgFast("lost", nullptr, 1);
    Client tcp(CreateClient());
    mivo::BeQuiet(*tcp);
    EXPECT_EQ(mivo::Connect(*tcp, AddressKind::kTcp4, "127.0.0.1", "1", 20000), -ECONNREFUSED);
  }
  EXPECT_EQ(out_.Text(), "");
}

TEST_F(Connections, EndTheirAttemptAtTheDeadline) {
  // Somebody who listens and says nothing.
  const int silent = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path_.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(silent, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(silent, 0), 0);
  Stopwatch check;
  EXPECT_EQ(Connect(100), -ETIMEDOUT);
  EXPECT_GE(check.ElapsedMs(), 100);
  EXPECT_LT(check.ElapsedMs(), 2000 * mivo_test::kSlowdown);
  // The attempt before stands in its list, which is full now.
  Client other(CreateClient());
  mivo::BeQuiet(*other);
  Stopwatch listed;
  const int status = mivo::Connect(*other, AddressKind::kPath, path_.c_str(), nullptr, 100);
  EXPECT_TRUE(status == -EAGAIN || status == -ETIMEDOUT) << status;
  EXPECT_GE(listed.ElapsedMs(), 100);
  EXPECT_LT(listed.ElapsedMs(), 2000 * mivo_test::kSlowdown);
  close(silent);
  unlink(path_.c_str());
}

TEST_F(Connections, AreEndedByACloseMeanwhile) {
  const int silent = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path_.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(silent, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(silent, 8), 0);
  Background<int> attempt([&] { return Connect(0); });
  while (!attempt.IsDone())
    client_->close();
  EXPECT_TRUE(attempt.Get() == -ECONNRESET || attempt.Get() == -ECANCELED) << attempt.Get();
  close(silent);
  unlink(path_.c_str());
}

TEST_F(Connections, KeepTheHandlersWhenTheyAreRefused) {
  Method yours([](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(7); });
  client_->SetCustomReleaseEvent();
  client_->method("yours", &yours);
  EXPECT_EQ(Connect(), -ENOENT);
  OfferAsk();
  ASSERT_EQ(Listen(), 0);
  const Serving serving(*server_);
  ASSERT_EQ(Connect(), 0);
  EXPECT_EQ(Call("ask"), 7);
}

TEST_F(Connections, CanBeRefusedToNewcomersOnly) {
  Method one([](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(1); });
  server_->SetCustomReleaseEvent();
  server_->method("one", &one);
  ASSERT_EQ(Listen(), 0);
  const Serving serving(*server_);
  ASSERT_EQ(Connect(), 0);
  mivo::StopListening(*server_);
  EXPECT_TRUE(Eventually([&] { return access(path_.c_str(), F_OK) != 0; }));
  Client late(CreateClient());
  mivo::BeQuiet(*late);
  EXPECT_EQ(mivo::Connect(*late, AddressKind::kPath, path_.c_str(), nullptr, 20000), -ENOENT);
  EXPECT_EQ(Call("one"), 1);
  // The place is free for the next.
  Server next(CreateServer());
  mivo::BeQuiet(*next);
  EXPECT_EQ(mivo::Listen(*next, AddressKind::kPath, path_.c_str(), nullptr), 0);
}

TEST_F(Connections, TakeThePlaceOfAServerThatHasDied) {
  const int dead = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path_.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(dead, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  close(dead);
  EXPECT_EQ(Listen(), 0);
}

TEST_F(Connections, OfAServerThatDoesNotServeAreNobodys) {
  EXPECT_EQ(mivo::UserOf(*server_, 12345), -1);
  EXPECT_EQ(mivo::RequestsUnderWay(*server_), 0);
  mivo::StopListening(*server_);
}

TEST_F(Connections, AnswerLater) {
  std::unique_ptr<mivo::LateReply> late;
  Event taken;
  std::atomic<bool> is_second_null{false};
  Method later([&](int, MIVOParams*, MIVOParams* reply) {
    late.reset(mivo::ReplyLater());
    is_second_null = mivo::ReplyLater() == nullptr;
    reply->AddInt(1);  // dropped
    taken.Signal();
  });
  Method now([](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(2); });
  server_->SetCustomReleaseEvent();
  server_->method("later", &later);
  server_->method("now", &now);
  EXPECT_EQ(mivo::ReplyLater(), nullptr);
  ASSERT_EQ(Listen(), 0);
  const Serving serving(*server_);
  ASSERT_EQ(Connect(), 0);
  {
    Background<int> waiting([&] { return Call("later"); });
    ASSERT_TRUE(taken.WaitFor(1));
    EXPECT_TRUE(is_second_null);
    EXPECT_EQ(Call("now"), 2);
    EXPECT_FALSE(waiting.IsDone());
    MIVOParams answer;
    answer.AddInt(42);
    late->Send(answer);
    EXPECT_EQ(waiting.Get(), 42);
    late.reset();
  }
  // One that is not sent is sent empty.
  Background<int> waiting([&] { return Call("later"); });
  ASSERT_TRUE(taken.WaitFor(2));
  late.reset();
  EXPECT_EQ(waiting.Get(), 0);
}

TEST_F(Connections, AnswerLaterAlsoToAServer) {
  std::unique_ptr<mivo::LateReply> late;
  Event taken;
  Method yours([&](int, MIVOParams*, MIVOParams*) {
    late.reset(mivo::ReplyLater());
    taken.Signal();
  });
  client_->SetCustomReleaseEvent();
  client_->method("yours", &yours);
  OfferAsk();
  ASSERT_EQ(Listen(), 0);
  const Serving serving(*server_);
  ASSERT_EQ(Connect(), 0);
  Background<int> waiting([&] { return Call("ask"); });
  ASSERT_TRUE(taken.WaitFor());
  MIVOParams answer;
  answer.AddInt(7);
  late->Send(answer);
  EXPECT_EQ(waiting.Get(), 7);
  late.reset();
}

// A handler that calls somebody else reads for him, and may have to hand on a request of his before it answers itself.
TEST_F(Connections, AnswerLaterAlsoAfterACallThatHasReadForOthers) {
  const std::string inner_path = OwnPath();
  Server inner(CreateServer());
  mivo::BeQuiet(*inner);
  inner->SetCustomReleaseEvent();
  Client asking(CreateClient());
  mivo::BeQuiet(*asking);
  asking->SetCustomReleaseEvent();
  InOrderMethod seven([](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(7); });
  asking->method("seven", &seven);
  Method back([&](int id, MIVOParams*, MIVOParams*) {
    MIVOParams answer;
    EXPECT_EQ(mivo::Call(*inner, id, "seven", nullptr, 20000, answer), mivo::CallOutcome::kAnswered);
  });
  inner->method("back", &back);
  ASSERT_EQ(mivo::Listen(*inner, AddressKind::kPath, inner_path.c_str(), nullptr), 0);
  const Serving serving_inner(*inner);
  ASSERT_EQ(mivo::Connect(*asking, AddressKind::kPath, inner_path.c_str(), nullptr, 20000), 0);

  Method outer([&](int, MIVOParams*, MIVOParams*) {
    MIVOParams nothing;
    EXPECT_EQ(mivo::Call(*asking, "back", nullptr, 20000, nothing), mivo::CallOutcome::kAnswered);
    const std::unique_ptr<mivo::LateReply> late(mivo::ReplyLater());
    ASSERT_NE(late, nullptr);
    MIVOParams answer;
    answer.AddInt(42);
    late->Send(answer);
  });
  server_->SetCustomReleaseEvent();
  server_->method("outer", &outer);
  ASSERT_EQ(Listen(), 0);
  const Serving serving(*server_);
  ASSERT_EQ(Connect(), 0);
  for (int i = 0; i < 50; ++i)
    EXPECT_EQ(Call("outer"), 42);
  asking.reset();
}

TEST_F(Connections, AnswerNobodyWhenAllHaveGone) {
  std::unique_ptr<mivo::LateReply> late;
  Event taken;
  Method later([&](int, MIVOParams*, MIVOParams*) {
    late.reset(mivo::ReplyLater());
    taken.Signal();
  });
  server_->SetCustomReleaseEvent();
  server_->method("later", &later);
  ASSERT_EQ(Listen(), 0);
  {
    const Serving serving(*server_);
    ASSERT_EQ(Connect(), 0);
    client_->PostMsgFast("later", nullptr, 1);
    ASSERT_TRUE(taken.WaitFor());
  }
  client_.reset();
  server_.reset();
  MIVOParams answer;
  answer.AddInt(1);
  late->Send(answer);
  late.reset();
  EXPECT_EQ(out_.Text(), "");
}

TEST_F(Connections, HandOnRequestsInTheirOrder) {
  constexpr int kPosts = 3000;
  std::vector<int> numbers;
  InOrderMethod append(
      [&](int, MIVOParams* request, MIVOParams*) { numbers.push_back(request->GetValue(0)->GetInt()); });
  InOrderMethod count([&](int, MIVOParams*, MIVOParams* reply) { reply->AddInt(static_cast<int>(numbers.size())); });
  server_->SetCustomReleaseEvent();
  server_->method("append", &append);
  server_->method("count", &count);
  ASSERT_EQ(Listen(), 0);
  const Serving serving(*server_);
  ASSERT_EQ(Connect(), 0);
  for (int i = 0; i < kPosts; ++i) {
    MIVOParams number;
    number.AddInt(i);
    client_->PostMsgFast("append", &number, 1);
  }
  EXPECT_EQ(Call("count"), kPosts);
  ASSERT_EQ(numbers.size(), static_cast<std::size_t>(kPosts));
  for (int i = 0; i < kPosts; ++i)
    ASSERT_EQ(numbers[static_cast<std::size_t>(i)], i);
}

}  // namespace
