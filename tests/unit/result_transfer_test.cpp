#include "largedata/result_transfer.h"

#include <gtest/gtest.h>
#include <mivo/params.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "base/clock.h"
#include "base/identity.h"
#include "base/pointer_text.h"
#include "largedata/slice.h"
#include "largedata/slice_sender.h"
#include "support/event.h"
#include "support/golden.h"
#include "support/stdout_capture.h"
#include "transport/envelope.h"
#include "unit/open_connection.h"
#include "unit/payload.h"
#include "unit/slice_size_scope.h"

namespace mivo {
namespace {

using mivo_test::Event;
using mivo_test::Framed;
using mivo_test::StdoutCapture;
using mivo_test::ToHex;
using Strings = std::vector<std::string>;

constexpr int kClient = 42;
constexpr int kKey = 9;
constexpr std::int64_t kLongNs = 60'000'000'000;

std::uintptr_t TokenOf(std::string_view request) {
  return TextToPointer(ReadEnvelope(request).sem_id.value_or(""));
}

class ResultTransferTest : public testing::Test {
 protected:
  ~ResultTransferTest() override {
    connection_->Close();
    waiters_.ReleaseAll();
    EXPECT_TRUE(transfer_.expired()) << "kept by somebody";
  }

  ResultTransfer::Begin ByCall() {
    return [this](Connection& connection, Waiter& waiter, Frame request) {
      EXPECT_EQ(&connection, &*connection_);
      waiters_.List(waiter);
      return connection.Send(std::move(request)) || !waiters_.Unlist(waiter);
    };
  }
  void Start(Strings wholes) { Start(std::move(wholes), ByCall()); }
  void Start(Strings wholes, ResultTransfer::Begin begin) {
    const auto transfer = std::make_shared<ResultTransfer>(connection_.shared(), kKey, std::move(wholes),
                                                           std::move(begin), [this] { done_.Signal(); });
    transfer_ = transfer;
    transfer->Start();
  }

  // The next request, which must be the only one.
  std::string TakeRequest() {
    std::string request = connection_.ReadFrame().value_or("");
    EXPECT_EQ(ToHex(connection_.ReadAll()), "");
    return request;
  }
  bool Answer(std::string_view request) {
    std::string reply = "answer";
    return waiters_.WakeByToken(TokenOf(request), kClient, kKey, &reply) == Waiters::Woken::kWithReply;
  }
  static Slice SliceOf(std::string_view request) { return ReadSlice(ReadEnvelope(request).data.value_or("")); }
  // The slice that waits gets no answer in time.
  void LetItBeTooLate() { waiters_.Sweep(NowNs() + kLongNs); }
  std::string NothingMore() { return connection_.ReadAll(); }

  const SliceSizeScope slice_size_{10};
  Waiters waiters_{Waiters::ZeroTimeout::kEndsAtNextSweep};
  std::weak_ptr<ResultTransfer> transfer_;
  Event done_;
  OpenConnection connection_{nullptr, kClient};
};

TEST_F(ResultTransferTest, SendsTheNextSliceWhenTheOneBeforeItWasAnswered) {
  Start({"0123456789ABCDEFGHIJxyz"});
  std::string received;
  for (const char* const bytes : {"0123456789", "ABCDEFGHIJ", "xyz"}) {
    EXPECT_EQ(done_.count(), 0);
    const std::string request = TakeRequest();
    EXPECT_EQ(SliceOf(request).bytes, bytes);
    EXPECT_TRUE(Answer(request));
  }
  EXPECT_EQ(done_.count(), 1);
  EXPECT_EQ(NothingMore(), "");
  EXPECT_TRUE(transfer_.expired());
}

TEST_F(ResultTransferTest, SendsTheBytesOfCallsInSlices) {
  for (const std::size_t size : {0U, 1U, 9U, 10U, 11U, 20U, 95U}) {
    std::string whole(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
      whole[i] = static_cast<char>(i * 31 % 251);
    Start({whole});
    // The same calls one after another, under the tokens that they happen to have.
    EXPECT_TRUE(SendInSlices(whole, kKey, [&](MIVOParams* slice) {
      const std::string request = TakeRequest();
      EXPECT_TRUE(IsLibraryToken(TokenOf(request)));
      EXPECT_EQ(ToHex(request), ToHex(EncodeRequest("s_c_req_body", kKey, slice, TokenOf(request))));
      return Answer(request);
    }));
    EXPECT_EQ(NothingMore(), "");
  }
  EXPECT_EQ(done_.count(), 7);
}

TEST_F(ResultTransferTest, SendsSeveralResultsOneAfterAnother) {
  Start({"first of these", "", "second"});
  Strings sent;
  std::vector<int> totals;
  for (int i = 0; i < 4; ++i) {
    const std::string request = TakeRequest();
    sent.emplace_back(SliceOf(request).bytes);
    totals.push_back(SliceOf(request).total_size);
    EXPECT_EQ(done_.count(), 0);
    EXPECT_TRUE(Answer(request));
  }
  EXPECT_EQ(sent, (Strings{"first of t", "hese", "", "second"}));
  EXPECT_EQ(totals, (std::vector<int>{14, 14, 0, 6}));
  EXPECT_EQ(done_.count(), 1);
}

TEST_F(ResultTransferTest, OfNoResultsIsDoneAtOnce) {
  Start({});
  EXPECT_EQ(done_.count(), 1);
  EXPECT_EQ(NothingMore(), "");
}

TEST_F(ResultTransferTest, PassesOverASliceThatIsNotAnsweredInTimeWhenOneBeforeItWas) {
  Start({std::string(40, '.')});
  EXPECT_TRUE(Answer(TakeRequest()));
  const std::string unanswered = TakeRequest();
  LetItBeTooLate();
  const std::string next = TakeRequest();
  EXPECT_NE(TokenOf(next), TokenOf(unanswered));
  EXPECT_FALSE(Answer(unanswered)) << "too late";
  EXPECT_EQ(NothingMore(), "") << "a late answer sends nothing";
  EXPECT_EQ(done_.count(), 0);
  EXPECT_TRUE(Answer(next));
  TakeRequest();
  LetItBeTooLate();
  EXPECT_EQ(done_.count(), 1);
}

TEST_F(ResultTransferTest, StopsWhenNothingWasEverAnswered) {
  Start({std::string(40, '.'), "another"});
  TakeRequest();
  LetItBeTooLate();
  EXPECT_EQ(NothingMore(), "");
  // Whoever waits for the answer to the request gets it.
  EXPECT_EQ(done_.count(), 1);
  EXPECT_TRUE(transfer_.expired());
}

TEST_F(ResultTransferTest, TakesAnAnswerUnderAnotherKeyForNone) {
  Start({std::string(40, '.')});
  const std::string request = TakeRequest();
  std::string reply = "answer";
  EXPECT_EQ(waiters_.WakeByToken(TokenOf(request), kClient, kKey + 1, &reply), Waiters::Woken::kWithNothing);
  EXPECT_EQ(NothingMore(), "");
  EXPECT_EQ(done_.count(), 1);
}

TEST_F(ResultTransferTest, WaitsForItsAnswerForHalfASecondAndNoLonger) {
  Start({std::string(40, '.')});
  const std::int64_t after_start = NowNs();
  TakeRequest();
  EXPECT_EQ(done_.count(), 0);
  waiters_.Sweep(after_start + 400'000'000);
  EXPECT_EQ(done_.count(), 0);
  waiters_.Sweep(after_start + 500'000'001);
  EXPECT_EQ(done_.count(), 1);
}

TEST_F(ResultTransferTest, EndsWithItsConnection) {
  Start({std::string(40, '.'), "another"});
  EXPECT_TRUE(Answer(TakeRequest()));
  TakeRequest();
  connection_->Close();
  waiters_.ReleaseAll();
  EXPECT_TRUE(transfer_.expired());
  EXPECT_EQ(done_.count(), 0) << "there is nobody to be answered";
  EXPECT_EQ(connection_.dropped, 0) << "nothing more was sent";
}

TEST_F(ResultTransferTest, DoesNotBeginOnAConnectionThatHasGone) {
  connection_->Close();
  Start({std::string(40, '.')});
  EXPECT_TRUE(transfer_.expired());
  EXPECT_EQ(done_.count(), 0);
  EXPECT_EQ(connection_.dropped, 1);
}

TEST_F(ResultTransferTest, KeepsTheSliceSizeWithWhichItBegan) {
  Start({std::string(25, '.')});
  const SliceSizeScope other_size(1);
  for (const std::size_t size : {10U, 10U, 5U}) {
    const std::string request = TakeRequest();
    EXPECT_EQ(SliceOf(request).bytes.size(), size);
    EXPECT_TRUE(Answer(request));
  }
  EXPECT_EQ(done_.count(), 1);
}

TEST_F(ResultTransferTest, LeavesNothingBehindWithoutMemoryForItsFirstSlice) {
  EXPECT_THROW(Start({"whole"}, [](Connection&, Waiter&, Frame) -> bool { throw std::bad_alloc(); }), std::bad_alloc);
  EXPECT_TRUE(transfer_.expired());
}

TEST_F(ResultTransferTest, EndsTheConnectionWithoutMemoryForALaterSlice) {
  const StdoutCapture out;
  int begun = 0;
  Start({std::string(40, '.')}, [&, begin = ByCall()](Connection& connection, Waiter& waiter, Frame request) {
    if (++begun > 1) throw std::bad_alloc();
    return begin(connection, waiter, std::move(request));
  });
  connection_->StartReading();
  EXPECT_TRUE(Answer(TakeRequest()));
  EXPECT_TRUE(connection_.ended.WaitFor());
  EXPECT_EQ(out.Text(), "out of memory: connection 42 ends\n");
  EXPECT_EQ(done_.count(), 0);
  EXPECT_TRUE(transfer_.expired());
}

TEST_F(ResultTransferTest, GoesOnFromWhicheverThreadFindsTheAnswer) {
  // Here the pool, while this thread is the peer; the request that follows may be answered before the sending of it has
  // returned.
  Waiters waiters(Waiters::ZeroTimeout::kEndsAtNextSweep);
  OpenConnection connection(
      [&](std::string_view payload) {
        std::string reply = "answer";
        waiters.WakeByToken(TextToPointer(payload), kClient, kKey, &reply);
      },
      kClient);
  connection->StartReading();
  const std::string whole(2000, 'x');
  Event done;
  std::make_shared<ResultTransfer>(
      connection.shared(), kKey, Strings{whole, whole},
      [&](Connection& to, Waiter& waiter, Frame request) {
        waiters.List(waiter);
        return to.Send(std::move(request)) || !waiters.Unlist(waiter);
      },
      [&] { done.Signal(); })
      ->Start();
  std::string received;
  while (received.size() < 2 * whole.size()) {
    const std::optional<std::string> request = connection.ReadFrame();
    ASSERT_TRUE(request);
    received.append(SliceOf(*request).bytes);
    connection.pair.Write(Framed(PointerToText(TokenOf(*request))));
  }
  EXPECT_EQ(received, whole + whole);
  EXPECT_TRUE(done.WaitFor());
}

}  // namespace
}  // namespace mivo
