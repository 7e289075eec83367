// A call that waits for its turn, behind a call on another client, is woken and seen out by the end of its own client,
// which does not wait for the stranger.
#include <mivo/mivo.h>

#include "support/background.h"
#include "support/child_program.h"
#include "support/event.h"
#include "support/raw_served_client.h"
#include "support/reply.h"
#include "support/role_outcome.h"
#include "support/slices.h"
#include "support/test_client.h"
#include "support/thread_state.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <string>

using namespace mivo_test;

namespace {

constexpr int kLongTimeout = 600000;
constexpr std::chrono::milliseconds kSoon{5000 * kSlowdown};

// As in "send destroy": the call that waits, and the end. The stranger's call is a large one where the one that waits
// is.
int EndWithAQueuedCaller(const std::string& argument) {
  const std::string kind = argument.substr(0, argument.find(' '));
  const bool destroy = argument.substr(argument.find(' ') + 1) == "destroy";
  ClientOfRawServer stranger(Transport::Local);
  ClientOfRawServer own(Transport::Local);
  SetLog(stranger.client().get(), "", 0);
  SetLog(own.client().get(), "", 0);
  if (!stranger.Connect() || !own.Connect()) return 2;

  Background<int> long_call([&] {
    IClient* const client = stranger.client().get();
    return TakeError(kind == "large" ? client->SendMsgEx("long", nullptr, 3, kLongTimeout)
                                     : client->SendMsg("long", nullptr, 3, kLongTimeout));
  });
  // It has its turn: its request is out.
  if (kind == "large" ? !TakeTransfer(&stranger.peer(), AsServer).complete : !stranger.peer().ReadFrame()) return 3;

  IClient* const client = own.client().Release();
  Background<int> queued([&] {
    if (kind == "post") return client->PostMsg("queued", nullptr, 4);
    return TakeError(kind == "large" ? client->SendMsgEx("queued", nullptr, 4, kLongTimeout)
                                     : client->SendMsg("queued", nullptr, 4, kLongTimeout));
  });
  if (!WaitUntilAsleep(queued.thread_id())) return 4;

  Background<bool> end([&] {
    if (destroy) {
      DestroyClient(client);
    } else {
      client->close();
    }
    return true;
  });
  int problem = 0;
  if (!end.WaitFor(kSoon)) problem = 5;
  if (!queued.WaitFor(kSoon)) problem = 6;
  if (long_call.IsDone()) problem = 7;
  if (problem != 0) _exit(problem);  // they would be waited for
  if (kind != "post" && queued.Get() != kNotConnected && queued.Get() != kNoReply) problem = 8;
  if (own.peer().ReadFrame(kPatience)) problem = 9;  // nothing but the end
  if (!destroy) DestroyClient(client);
  stranger.peer().Close();
  if (long_call.Get() == 0) problem = 10;
  return problem;
}

const Role kEndWithAQueuedCaller("ends with a queued caller", EndWithAQueuedCaller);

class QueuedCaller : public testing::TestWithParam<const char*> {};

INSTANTIATE_TEST_SUITE_P(OfEveryKind, QueuedCaller, testing::Values("send", "post", "large"),
                         [](const testing::TestParamInfo<const char*>& kind) { return std::string(kind.param); });

TEST_P(QueuedCaller, IsSeenOutByTheDestructionOfItsClient) {
  ExpectRoleSucceeds("ends with a queued caller", std::string(GetParam()) + " destroy", std::chrono::seconds(60));
}

TEST_P(QueuedCaller, IsWokenByTheCloseOfItsClient) {
  ExpectRoleSucceeds("ends with a queued caller", std::string(GetParam()) + " close", std::chrono::seconds(60));
}

}  // namespace
