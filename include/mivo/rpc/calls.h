// Calling: the same on a client, and on a server for one of its clients.
#ifndef MIVO_RPC_CALLS_H_
#define MIVO_RPC_CALLS_H_

#include <mivo/calls.h>
#include <mivo/rpc/host.h>
#include <mivo/rpc/message.h>
#include <mivo/rpc/observation.h>
#include <mivo/rpc/wire_names.h>

#include <chrono>
#include <future>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace mivo {

// How long a call may take. Looked at every 100 ms, first half a second after connecting: a call ends that much later
// at most, and never earlier.
class Deadline {
 public:
  template <class Rep, class Period>
  Deadline(std::chrono::duration<Rep, Period> within)
      : milliseconds_(Bounded(std::chrono::ceil<std::chrono::milliseconds>(within).count())) {}
  static Deadline no_limit() { return Deadline(); }

  // As <mivo/calls.h> has it.
  int milliseconds() const { return milliseconds_; }

  // When it is over, if it begins now.
  std::chrono::steady_clock::time_point from_now() const {
    constexpr std::chrono::hours kNever{24 * 365 * 100};
    return std::chrono::steady_clock::now() + (milliseconds_ == 0 ? kNever : std::chrono::milliseconds(milliseconds_));
  }

 private:
  Deadline() = default;
  static int Bounded(std::int64_t milliseconds) {
    if (milliseconds < 1) return 1;
    return milliseconds > std::numeric_limits<int>::max() ? std::numeric_limits<int>::max()
                                                          : static_cast<int>(milliseconds);
  }
  int milliseconds_ = 0;
};
inline const Deadline kNoLimit = Deadline::no_limit();

// What holds for a call beside its name and arguments.
struct CallTerms {
  Deadline deadline;
  bool is_idempotent = false;
};

// What a call has come to, for those who would rather look than catch: a value, or the error.
template <class T>
class Result {
 public:
  Result(T value) : value_(std::move(value)) {}
  Result(Error error) : error_(std::move(error)) {}

  explicit operator bool() const { return value_.has_value(); }
  // Only if there is one.
  T& operator*() { return *value_; }
  const T& operator*() const { return *value_; }
  T* operator->() { return &*value_; }
  const T* operator->() const { return &*value_; }
  // Only if there is none.
  const Error& error() const { return *error_; }

 private:
  std::optional<T> value_;
  std::optional<Error> error_;
};
template <>
class Result<void> {
 public:
  Result() = default;
  Result(Error error) : error_(std::move(error)) {}
  explicit operator bool() const { return !error_.has_value(); }
  const Error& error() const { return *error_; }

 private:
  std::optional<Error> error_;
};

namespace rpc {

// Tells an observer, if there is one, what a call comes to. `name` lives as long.
class CallWatch {
 public:
  CallWatch(const ObserverSlot& slot, Observation::Direction direction, const std::string& name,
            const MIVOParams& request)
      : observer_(slot.Get()), direction_(direction), name_(name) {
    if (observer_ == nullptr) return;
    begin_ = std::chrono::steady_clock::now();
    request_bytes_ = static_cast<std::size_t>(request.GetParamasSize());
  }

  void End(const MIVOParams* reply, const Error* error) const {
    if (observer_ == nullptr) return;
    const std::size_t reply_bytes = reply == nullptr ? 0 : static_cast<std::size_t>(reply->GetParamasSize());
    (*observer_)({direction_, name_, request_bytes_, reply_bytes, std::chrono::steady_clock::now() - begin_,
                  error == nullptr ? std::string_view() : std::string_view(error->code())});
  }

 private:
  const Observer* const observer_;
  const Observation::Direction direction_;
  const std::string& name_;
  std::chrono::steady_clock::time_point begin_;
  std::size_t request_bytes_ = 0;
};

// The result of a call, or what the call has come to, thrown; either is told to whoever looks on.
template <class T>
T ResultOf(const std::string& name, CallOutcome outcome, const MIVOParams& reply, const CallWatch& watch) {
  try {
    RequireResult(name, outcome, reply);
    if constexpr (std::is_void_v<T>) {
      watch.End(&reply, nullptr);
    } else {
      T result = ReadResult<T>(name, reply);
      watch.End(&reply, nullptr);
      return result;
    }
  } catch (const Error& error) {
    watch.End(&reply, &error);
    throw;
  }
}

// A completion of a call that is looked on.
class WatchedCompletion : public CallCompletion {
 public:
  explicit WatchedCompletion(std::string name) : name_(std::move(name)) {}
  void BeWatched(const ObserverSlot& slot, const MIVOParams& request) {
    watch_.emplace(slot, Observation::Direction::kCall, name_, request);
  }

 protected:
  // Reads the result, or throws what the call has come to.
  template <class T>
  T Take(CallOutcome outcome, const MIVOParams& reply) const {
    return ResultOf<T>(name_, outcome, reply, *watch_);
  }

 private:
  const std::string name_;
  std::optional<CallWatch> watch_;
};

// Tells a function how a call has ended.
template <class T, class Function>
class FunctionCompletion final : public WatchedCompletion {
 public:
  FunctionCompletion(std::string name, Function function)
      : WatchedCompletion(std::move(name)), function_(std::move(function)) {}
  void OnCompleted(CallOutcome outcome, MIVOParams& reply) override { function_(ValueOrError(outcome, reply)); }

 private:
  Result<T> ValueOrError(CallOutcome outcome, const MIVOParams& reply) const {
    try {
      if constexpr (std::is_void_v<T>) {
        Take<T>(outcome, reply);
        return Result<void>();
      } else {
        return Take<T>(outcome, reply);
      }
    } catch (const Error& error) {
      return error;
    }
  }

  Function function_;
};

// Fulfils a promise.
template <class T>
class PromiseCompletion final : public WatchedCompletion {
 public:
  using WatchedCompletion::WatchedCompletion;
  std::future<T> Future() { return promise_.get_future(); }
  void OnCompleted(CallOutcome outcome, MIVOParams& reply) override {
    try {
      if constexpr (std::is_void_v<T>) {
        Take<T>(outcome, reply);
        promise_.set_value();
      } else {
        promise_.set_value(Take<T>(outcome, reply));
      }
    } catch (...) {
      promise_.set_exception(std::current_exception());
    }
  }

 private:
  std::promise<T> promise_;
};

}  // namespace rpc

// Calls on the same terms. Target has Call, CallAsync, Post and observer. Any thread, several at a time.
template <class Target>
class Calls {
 public:
  Calls(Target target, Deadline deadline) : Calls(std::move(target), CallTerms{deadline}) {}
  Calls(Target target, CallTerms terms) : target_(std::move(target)), terms_(terms) {}

  // The same calls with another deadline: client.within(500ms).call<int>("add", 2, 40).
  Calls within(Deadline deadline) const { return Calls(target_, {deadline, terms_.is_idempotent}); }

  // The same calls, of which each may be carried out more than once: a client that reconnects then sends one again when
  // the connection has ended before the answer came.
  Calls idempotent() const { return Calls(target_, {terms_.deadline, true}); }

  // Waits for the result. Throws what went wrong, see error.h.
  template <class T = void, class... A>
  T call(const std::string& name, const A&... arguments) const {
    MIVOParams request;
    rpc::AddArguments(request, arguments...);
    const rpc::CallWatch watch(target_.observer(), Observation::Direction::kCall, name, request);
    MIVOParams reply;
    const CallOutcome outcome = target_.Call(name.c_str(), request, terms_, reply);
    return rpc::ResultOf<T>(name, outcome, reply, watch);
  }

  // The same without throwing what the call has come to.
  template <class T = void, class... A>
  Result<T> try_call(const std::string& name, const A&... arguments) const {
    try {
      if constexpr (std::is_void_v<T>) {
        call<T>(name, arguments...);
        return Result<void>();
      } else {
        return call<T>(name, arguments...);
      }
    } catch (const Error& error) {
      return error;
    }
  }

  // Does not wait, nor keep any thread waiting.
  template <class T = void, class... A>
  std::future<T> async(const std::string& name, const A&... arguments) const {
    auto completion = std::make_unique<rpc::PromiseCompletion<T>>(name);
    std::future<T> future = completion->Future();
    begin(name, std::move(completion), arguments...);
    return future;
  }

  // The same; `done` is called with a Result<T>, once, on one of the library's pool threads; for what a client that
  // reconnects could not send in time, on a thread of the client's own. It must not throw: nobody would hear of that.
  template <class T = void, class Function, class... A>
  void then(Function done, const std::string& name, const A&... arguments) const {
    begin(name, std::make_unique<rpc::FunctionCompletion<T, Function>>(name, std::move(done)), arguments...);
  }

  // What async and then are made of: `completion` is told how the call has ended.
  template <class... A>
  void begin(const std::string& name, std::unique_ptr<rpc::WatchedCompletion> completion, const A&... arguments) const {
    MIVOParams request;
    rpc::AddArguments(request, arguments...);
    completion->BeWatched(target_.observer(), request);
    target_.CallAsync(name.c_str(), request, terms_, std::move(completion));
  }

  // Nobody waits, and nobody is told what becomes of it, nor whether there is a connection.
  template <class... A>
  void post(const std::string& name, const A&... arguments) const {
    MIVOParams request;
    rpc::AddArguments(request, arguments...);
    const rpc::CallWatch watch(target_.observer(), Observation::Direction::kPost, name, request);
    target_.Post(name.c_str(), request);
    watch.End(nullptr, nullptr);
  }

 protected:
  const Target& target() const { return target_; }

 private:
  Target target_;
  CallTerms terms_;
};

// What a server or a client offers, by name; for tools. NoSuchMethod if it does not tell.
template <class Peer>
std::vector<Method> methods(const Peer& peer) {
  return peer.template call<std::vector<Method>>(rpc::kMethodsMethod);
}

}  // namespace mivo

#endif  // MIVO_RPC_CALLS_H_
