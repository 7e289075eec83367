#include "calls/request_job.h"

#include <gtest/gtest.h>
#include <mivo/params.h>
#include <signal.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "pool/pool.h"
#include "support/event.h"
#include "support/stdout_capture.h"
#include "transport/connection.h"
#include "unit/large_memory.h"
#include "unit/open_connection.h"
#include "unit/payload.h"

namespace mivo {
namespace {

using mivo_test::Payload;
using mivo_test::StdoutCapture;

class FunctionServer : public RequestServer {
 public:
  using Function = std::function<void(const Request& request, MIVOParams* reply)>;
  explicit FunctionServer(Function function) : function_(std::move(function)) {}
  void Serve(const Request& request, MIVOParams* reply) override { function_(request, reply); }
  ReplyTail tail() const override { return &AppendServerReplyTail; }

 private:
  const Function function_;
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
  const std::string bytes = SomeRequest();
  std::optional<OpenConnection> connection(std::in_place);
  auto request = std::make_unique<Request>(connection->shared(), bytes, ReadEnvelope(bytes));
  const std::weak_ptr<Connection> watched = connection->shared();
  connection.reset();
  EXPECT_FALSE(watched.expired());
  EXPECT_EQ(request->connection->id(), 42);
  EXPECT_TRUE(request->connection->is_closed());
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

class RequestJobTest : public testing::Test {
 protected:
  std::unique_ptr<Job> JobFor(RequestServer& server) {
    return std::make_unique<RequestJob>(connection_.jobs(), server, connection_.shared(), bytes_, ReadEnvelope(bytes_));
  }

  const std::string bytes_ = SomeRequest();
  OpenConnection connection_;
};

TEST_F(RequestJobTest, SendsTheReplyToWhereTheRequestCameFrom) {
  FunctionServer server([](const Request& request, MIVOParams* reply) {
    EXPECT_EQ(request.name, "sum");
    EXPECT_EQ(request.connection->id(), 42);
    reply->AddInt(3);
  });
  Pool::OfProcess().Push(JobFor(server));
  EXPECT_EQ(connection_.ReadFrame(), Payload().Int(3).bytes());
}

TEST_F(RequestJobTest, HoldsACopyOfItsRequest) {
  FunctionServer server([](const Request& request, MIVOParams*) {
    EXPECT_EQ(request.payload, SomeRequest());
    EXPECT_EQ(request.envelope.sem_id, "0xab");
  });
  auto bytes = std::make_unique<std::string>(SomeRequest());
  RequestJob job(connection_.jobs(), server, connection_.shared(), *bytes, ReadEnvelope(*bytes));
  bytes->assign(bytes->size(), 'x');
  bytes.reset();
  job.Run();
}

TEST_F(RequestJobTest, SendsNothingForAnEmptyReply) {
  FunctionServer server([](const Request&, MIVOParams*) {});
  Pool::OfProcess().Push(JobFor(server));
  connection_.jobs().WaitUntilIdle();
  EXPECT_EQ(connection_.ReadAll(), "");
  EXPECT_EQ(connection_.dropped, 0);
}

TEST_F(RequestJobTest, DropsTheReplyToAPeerThatHasGoneMeanwhile) {
  const StdoutCapture out;
  FunctionServer server([](const Request&, MIVOParams* reply) { reply->AddInt(3); });
  std::unique_ptr<Job> job = JobFor(server);
  connection_->Close();
  Pool::OfProcess().Push(std::move(job));
  connection_.jobs().WaitUntilIdle();
  EXPECT_EQ(connection_.dropped, 1);
  EXPECT_EQ(out.Text(), "");
}

TEST_F(RequestJobTest, LetsGoOfItsConnectionBeforeItsGroupIsIdle) {
  FunctionServer server([](const Request&, MIVOParams*) {});
  Pool::OfProcess().Push(JobFor(server));
  connection_.jobs().WaitUntilIdle();
  EXPECT_EQ(connection_.shared().use_count(), 1);
}

TEST_F(RequestJobTest, EndsTheConnectionThatHasSentARequestTooLargeForTheMemory) {
  const StdoutCapture out;
  connection_->StartReading();
  FunctionServer server([](const Request&, MIVOParams* reply) {
    reply->AddInt(3);
    throw std::bad_alloc();
  });
  Pool::OfProcess().Push(JobFor(server));
  EXPECT_TRUE(connection_.ended.WaitFor());
  EXPECT_EQ(out.Text(), "out of memory: connection 42 ends\n");
  EXPECT_EQ(connection_.ReadAll(), "");
  EXPECT_TRUE(mivo_test::Eventually([&] { return connection_.ReadAll().empty() && connection_.pair.has_ended(); }));
}

// Serves one request with a reply of `size` bytes, its tail included, on this thread.
void ServeReplyOf(std::size_t size, OpenConnection& connection, const std::string& bytes) {
  FunctionServer server([size](const Request& request, MIVOParams* reply) {
    std::string tail;
    AppendServerReplyTail(tail, request.envelope);
    std::string& out = *reply->GetParamas();
    out.reserve(size);
    out.resize(size - tail.size());
    AppendServerReplyTail(out, request.envelope);
    EXPECT_EQ(out.size(), size);
  });
  RequestJob job(connection.jobs(), server, connection.shared(), bytes, ReadEnvelope(bytes));
  job.Run();
  job.Finish();
}

constexpr std::size_t kLongestReply = std::size_t{INT32_MAX} - 4;

TEST(RequestJobDeathTest, EndsTheProgramForAReplyThatItsHandlerHasMadeTooLong) {
  MIVO_SKIP_WITHOUT_LARGE_MEMORY(5);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        OpenConnection connection;
        ServeReplyOf(kLongestReply + 1000, connection, SomeRequest());
      },
      testing::KilledBySignal(SIGABRT), "");
}

TEST(RequestJobDeathTest, DropsAReplyThatOnlyWhatThePeerHasSentMakesTooLong) {
  MIVO_SKIP_WITHOUT_LARGE_MEMORY(5);
  OpenConnection connection;
  const std::string long_token = Payload()
                                     .KeyString("s_c_sw_name", "sum")
                                     .KeyInt("s_c_sw_threadid", 9)
                                     .KeyString("s_c_sw_semid", std::string(1000, 'x'));
  for (const std::size_t size : {kLongestReply + 1, kLongestReply + 900}) {
    const StdoutCapture out;
    ServeReplyOf(size, connection, long_token);
    EXPECT_EQ(out.Text(), "write error\n");
  }
  EXPECT_EQ(connection.dropped, 2);
  EXPECT_EQ(connection.ReadAll(), "");
}

}  // namespace
}  // namespace mivo
