// A client that has one connection, or one after the other.
#ifndef MIVO_RPC_CLIENT_LINK_H_
#define MIVO_RPC_CLIENT_LINK_H_

#include <mivo/client.h>
#include <mivo/rpc/link.h>

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "rpc/awaited_handler.h"
#include "rpc/offered_methods.h"
#include "rpc/visitors.h"
#include "rpc/waiting_calls.h"

namespace mivo {
namespace rpc {

class ClientLink final : public Link {
 public:
  explicit ClientLink(const LinkOptions& options);
  ClientLink(const ClientLink&) = delete;
  ClientLink& operator=(const ClientLink&) = delete;
  ~ClientLink();

  // Begins to connect, or connects; false, and `error` was told why, if that has failed.
  bool Open(TextSink& error);

  bool reconnects() const override { return reconnects_; }
  bool is_ready() const override { return is_ready_ && !is_stopping_ && client_->isok(); }
  bool Offer(OfferedHandler* handler) override;
  void OnReady(ReadyAction* action) override;
  void RetryNow() override;
  void LastError(TextSink& text) const override;
  bool WaitUntilReady(int timeout_ms) override;
  CallOutcome Call(const char* name, MIVOParams& request, int timeout_ms, bool is_idempotent,
                   MIVOParams& reply) override;
  void CallAsync(const char* name, MIVOParams& request, int timeout_ms, bool is_idempotent,
                 CallCompletion* completion) override;
  void Post(const char* name, MIVOParams& request) override;
  bool End() override;
  void Destroy() override { delete this; }

 private:
  class Attempt;
  class ClosedNotice;
  struct Destroyer {
    void operator()(IClient* client) const;
  };

  std::string WhyNot(int status) const;
  int Connect();
  void Lost();
  void Keep();
  void SendWaiting();
  bool Attend() MIVO_REQUIRES(mutex_);
  void GiveUp(const std::string& error) MIVO_REQUIRES(mutex_);
  bool AwaitReady(Clock::time_point end);
  bool IsInsideItself() const;

  bool MayGoAgain(CallOutcome outcome, const Terms& terms, unsigned int losses_before) const;
  bool MayBeLeftWaiting() const;
  void Begin(std::unique_ptr<PendingCall> call);
  void Issue(std::unique_ptr<PendingCall> call);

  const std::string address_;
  const AddressKind kind_;
  const std::string where_;
  const std::string port_;
  const int connect_timeout_ms_;
  const int post_timeout_ms_;
  const bool reconnects_;
  const bool waits_while_away_;
  const std::chrono::milliseconds shortest_pause_;
  const std::chrono::milliseconds longest_pause_;

  inline static thread_local const ClientLink* is_keeper_of_ = nullptr;

  mutable Mutex mutex_;
  Condition changed_;
  bool is_impatient_ MIVO_GUARDED_BY(mutex_) = false;
  // Written under the lock.
  std::atomic<bool> is_stopping_{false};
  std::atomic<bool> is_lost_{false};
  std::atomic<bool> is_ready_{false};
  std::atomic<unsigned int> losses_{0};  // connections that have ended
  Visitors visitors_;                    // callers, and the thread that connects
  std::string last_error_ MIVO_GUARDED_BY(mutex_);
  std::vector<std::shared_ptr<ReadyAction>> on_ready_ MIVO_GUARDED_BY(mutex_);
  WaitingCalls waiting_{this};

  // Outlive the client that calls them.
  const std::unique_ptr<ClosedNotice> closed_notice_;
  UnknownOfClient unknown_;
  OfferedMethods offered_;
  std::map<std::string, std::unique_ptr<AwaitedHandler>> handlers_ MIVO_GUARDED_BY(mutex_);
  std::unique_ptr<IClient, Destroyer> client_;
  std::thread keeper_;
};

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_CLIENT_LINK_H_
