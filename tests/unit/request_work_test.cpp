#include "calls/request_work.h"

#include <gtest/gtest.h>
#include <mivo/params.h>
#include <signal.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/sigpipe_guard.h"
#include "calls/handler_table.h"
#include "loop/work_queue.h"
#include "support/handlers.h"
#include "support/stdout_capture.h"
#include "transport/connection.h"
#include "unit/large_memory.h"
#include "unit/payload.h"
#include "unit/stream_pair.h"
#include "unit/test_loop.h"

namespace mivo {
namespace {

using mivo_test::Framed;
using mivo_test::Payload;
using mivo_test::StdoutCapture;
using mivo_test::StreamPair;

class Owner : public Connection::Owner {
 public:
  void OnRead(Connection&) override {}
  void OnPayload(Connection&, std::string_view) override {}
  void OnEnd(Connection& connection, int) override { connection.Close(); }
  void OnFrameDropped(Connection&) override { ++dropped; }

  int dropped = 0;
};

class FunctionServer : public RequestServer {
 public:
  using Function = std::function<void(const Request& request, MIVOParams* reply)>;
  explicit FunctionServer(Function function) : function_(std::move(function)) {}
  void Serve(const Request& request, MIVOParams* reply) override { function_(request, reply); }

 private:
  const Function function_;
};

struct Peers {
  Peers() {
    connection = std::make_shared<Connection>(loop, owner, 42);
    EXPECT_EQ(connection->OpenLocal(), 0);
    EXPECT_EQ(uv_pipe_open(connection->pipe(), pair.TakeOurs()), 0);
  }
  ~Peers() {
    if (connection) connection->Close();
  }
  Peers(const Peers&) = delete;
  Peers& operator=(const Peers&) = delete;

  const SigpipeGuard guard;
  TestLoop loop;
  StreamPair pair = StreamPair::Local();
  Owner owner;
  std::shared_ptr<Connection> connection;
  WorkQueue work;
};

std::string SomeRequest() {
  return Payload()
      .KeyString("s_c_sw_name", "sum")
      .KeyInt("s_c_sw_threadid", 9)
      .KeyStream("s_c_sw_data", Payload().Int(1).Int(2).bytes())
      .KeyString("s_c_sw_semid", "0xab");
}

TEST(Request, KeepsACopyOfItsPayload) {
  auto bytes = std::make_unique<std::string>(SomeRequest());
  const Request request(nullptr, *bytes, ReadEnvelope(*bytes));
  bytes->assign(bytes->size(), 'x');
  bytes.reset();
  EXPECT_EQ(request.payload, SomeRequest());
  EXPECT_EQ(request.name, "sum");
  EXPECT_EQ(request.envelope.name, "sum");
  EXPECT_EQ(request.envelope.thread_id, 9);
  EXPECT_EQ(request.envelope.sem_id, "0xab");
  EXPECT_EQ(request.envelope.data, Payload().Int(1).Int(2).bytes());
}

TEST(Request, WithoutANameHasAnEmptyOne) {
  const std::string bytes = Payload().Int(5);
  const Request request(nullptr, bytes, ReadEnvelope(bytes));
  EXPECT_EQ(request.name, "");
}

TEST(Request, HoldsItsConnection) {
  Peers peers;
  const std::string bytes = SomeRequest();
  auto request = std::make_unique<Request>(peers.connection, bytes, ReadEnvelope(bytes));
  const std::weak_ptr<Connection> watched = peers.connection;
  peers.connection->Close();
  peers.connection.reset();
  EXPECT_FALSE(watched.expired());
  EXPECT_EQ(request->connection->id(), 42);
  request.reset();
  EXPECT_TRUE(watched.expired());
}

TEST(ReadArguments, DecodesTheDataOfTheRequest) {
  const std::string bytes = SomeRequest();
  const Request request(nullptr, bytes, ReadEnvelope(bytes));
  MIVOParams arguments;
  ReadArguments(request, &arguments);
  ASSERT_EQ(arguments.ParamsSize(), 2);
  EXPECT_EQ(arguments.GetValue(0)->GetInt(), 1);
  EXPECT_EQ(arguments.GetValue(1)->GetInt(), 2);
  EXPECT_EQ(*arguments.GetParamas(), Payload().Int(1).Int(2).bytes());
}

TEST(ReadArguments, LeavesTheSetEmptyForARequestWithoutData) {
  const std::string bytes = Payload().KeyString("s_c_sw_name", "sum");
  const Request request(nullptr, bytes, ReadEnvelope(bytes));
  MIVOParams arguments;
  ReadArguments(request, &arguments);
  EXPECT_EQ(arguments.Size(), 0);
  EXPECT_EQ(arguments.ParamsSize(), 0);
}

TEST(ReadArguments, TakesWhatStandsBeforeAFault) {
  const std::string bytes = Payload().KeyStream("s_c_sw_data", Payload().Int(1).Raw("\x7F").bytes());
  const Request request(nullptr, bytes, ReadEnvelope(bytes));
  MIVOParams arguments;
  ReadArguments(request, &arguments);
  EXPECT_EQ(arguments.ParamsSize(), 1);
}

// Writes down the arguments it hears of, and those that are called.
class Recorder : public InOrderMethod {
 public:
  void OnCall(int, MIVOParams*, MIVOParams*) override { journal.emplace_back("out of turn"); }
  std::unique_ptr<IServerMethod> Arrive(std::string_view arguments) override {
    journal.emplace_back("arrived");
    return std::make_unique<mivo_test::LambdaMethod>([this, arguments](int, MIVOParams*, MIVOParams*) {
      journal.emplace_back(std::string("called with ") + std::string(arguments));
    });
  }

  std::vector<std::string> journal;
};

TEST(Request, LetsItsHandlerHearOfItOnArrival) {
  HandlerTable handlers(HandlerTable::Rules::kOfAServer);
  Recorder recorder;
  handlers.RegisterInOrder("put", &recorder);
  auto bytes =
      std::make_unique<std::string>(Payload().KeyString("s_c_sw_name", "put").KeyStream("s_c_sw_data", "data"));
  const Request request(nullptr, *bytes, ReadEnvelope(*bytes), handlers.FindInOrder("put"));
  bytes->assign(bytes->size(), 'x');
  bytes.reset();
  EXPECT_EQ(recorder.journal, std::vector<std::string>{"arrived"});
  FindHandler(handlers, request)->OnCall(42, nullptr, nullptr);
  EXPECT_EQ(recorder.journal, (std::vector<std::string>{"arrived", "called with data"}));
}

TEST(FindHandler, TakesWhoeverHasTheNameWhenTheRequestIsServed) {
  HandlerTable handlers(HandlerTable::Rules::kOfAServer);
  Recorder recorder;
  handlers.RegisterInOrder("put", &recorder);
  const std::string bytes = Payload().KeyString("s_c_sw_name", "put");
  const Request heard_of(nullptr, bytes, ReadEnvelope(bytes), handlers.FindInOrder("put"));
  const Request plain(nullptr, bytes, ReadEnvelope(bytes));
  EXPECT_NE(FindHandler(handlers, heard_of), &recorder);
  EXPECT_EQ(FindHandler(handlers, plain), &recorder);
  mivo_test::LambdaMethod own(nullptr);
  handlers.Register("put", &own);
  EXPECT_EQ(FindHandler(handlers, heard_of), &own);
  handlers.KeepHandlers();
  const ClosedHandlers closed = handlers.Close();
  EXPECT_EQ(FindHandler(handlers, heard_of), nullptr);
}

TEST(RequestWork, SendsTheReplyToWhereTheRequestCameFrom) {
  Peers peers;
  FunctionServer server([](const Request& request, MIVOParams* reply) {
    EXPECT_EQ(request.name, "sum");
    reply->AddInt(3);
  });
  const std::string bytes = SomeRequest();
  peers.work.Queue(peers.loop.uv(),
                   std::make_unique<RequestWork>(server, peers.connection, bytes, ReadEnvelope(bytes)));
  std::string received;
  const std::string expected = Framed(Payload().Int(3).bytes());
  peers.loop.RunUntil([&] { return (received += peers.pair.ReadSome()).size() >= expected.size(); });
  EXPECT_EQ(received, expected);
}

TEST(RequestWork, SendsNothingForAnEmptyReply) {
  Peers peers;
  FunctionServer server([](const Request&, MIVOParams*) {});
  const std::string bytes = SomeRequest();
  peers.work.Queue(peers.loop.uv(),
                   std::make_unique<RequestWork>(server, peers.connection, bytes, ReadEnvelope(bytes)));
  EXPECT_TRUE(peers.loop.RunUntil([&] { return peers.work.IsIdle(); }));
  peers.connection->Flush();
  EXPECT_EQ(peers.pair.ReadSome(), "");
}

TEST(RequestWork, DropsTheReplyToAPeerThatHasGoneMeanwhile) {
  Peers peers;
  const StdoutCapture out;
  const std::weak_ptr<Connection> watched = peers.connection;
  FunctionServer server([](const Request&, MIVOParams* reply) { reply->AddInt(3); });
  const std::string bytes = SomeRequest();
  peers.work.Queue(peers.loop.uv(),
                   std::make_unique<RequestWork>(server, peers.connection, bytes, ReadEnvelope(bytes)));
  peers.connection->Close();
  peers.connection.reset();
  EXPECT_FALSE(watched.expired());
  EXPECT_TRUE(peers.loop.RunUntil([&] { return peers.work.IsIdle(); }));
  EXPECT_EQ(peers.owner.dropped, 1);
  EXPECT_TRUE(watched.expired());
  EXPECT_EQ(out.Text(), "");
}

// Serves one request with a reply of `size` bytes, its tail included, on this thread.
void ServeReplyOf(std::size_t size, Peers& peers, const std::string& bytes) {
  FunctionServer server([size](const Request& request, MIVOParams* reply) {
    std::string tail;
    AppendServerReplyTail(tail, request.envelope);
    std::string& out = *reply->GetParamas();
    out.reserve(size);
    out.resize(size - tail.size());
    AppendServerReplyTail(out, request.envelope);
    EXPECT_EQ(out.size(), size);
  });
  RequestWork work(server, peers.connection, bytes, ReadEnvelope(bytes));
  work.Run();
  work.Finish();
}

constexpr std::size_t kLongestReply = std::size_t{INT32_MAX} - 4;

TEST(RequestWorkDeathTest, EndsTheProgramForAReplyThatItsHandlerHasMadeTooLong) {
  MIVO_SKIP_WITHOUT_LARGE_MEMORY(5);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        Peers peers;
        ServeReplyOf(kLongestReply + 1000, peers, SomeRequest());
      },
      testing::KilledBySignal(SIGABRT), "");
}

TEST(RequestWorkDeathTest, DropsAReplyThatOnlyWhatThePeerHasSentMakesTooLong) {
  MIVO_SKIP_WITHOUT_LARGE_MEMORY(5);
  Peers peers;
  const std::string long_token = Payload()
                                     .KeyString("s_c_sw_name", "sum")
                                     .KeyInt("s_c_sw_threadid", 9)
                                     .KeyString("s_c_sw_semid", std::string(1000, 'x'));
  for (const std::size_t size : {kLongestReply + 1, kLongestReply + 900}) {
    const StdoutCapture out;
    ServeReplyOf(size, peers, long_token);
    EXPECT_EQ(out.Text(), "write error\n");
  }
  EXPECT_EQ(peers.owner.dropped, 2);
  peers.connection->Flush();
  EXPECT_EQ(peers.pair.ReadSome(), "");
}

}  // namespace
}  // namespace mivo
