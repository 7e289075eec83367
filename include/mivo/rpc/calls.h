// Calling: the same on a client, and on a server for one of its clients.
#ifndef MIVO_RPC_CALLS_H_
#define MIVO_RPC_CALLS_H_

#include <mivo/calls.h>
#include <mivo/rpc/message.h>

#include <chrono>
#include <future>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

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

// Tells a function how a call has ended.
template <class T, class Function>
class FunctionCompletion final : public CallCompletion {
 public:
  FunctionCompletion(std::string name, Function function) : name_(std::move(name)), function_(std::move(function)) {}
  void OnCompleted(CallOutcome outcome, MIVOParams& reply) override { function_(ResultOf(outcome, reply)); }

 private:
  Result<T> ResultOf(CallOutcome outcome, const MIVOParams& reply) const {
    try {
      RequireResult(name_, outcome, reply);
      if constexpr (std::is_void_v<T>) {
        return Result<void>();
      } else {
        return ReadResult<T>(name_, reply);
      }
    } catch (const Error& error) {
      return error;
    }
  }

  const std::string name_;
  Function function_;
};

// Fulfils a promise.
template <class T>
class PromiseCompletion final : public CallCompletion {
 public:
  explicit PromiseCompletion(std::string name) : name_(std::move(name)) {}
  std::future<T> Future() { return promise_.get_future(); }
  void OnCompleted(CallOutcome outcome, MIVOParams& reply) override {
    try {
      RequireResult(name_, outcome, reply);
      if constexpr (std::is_void_v<T>) {
        promise_.set_value();
      } else {
        promise_.set_value(ReadResult<T>(name_, reply));
      }
    } catch (...) {
      promise_.set_exception(std::current_exception());
    }
  }

 private:
  const std::string name_;
  std::promise<T> promise_;
};

}  // namespace rpc

// Calls with one deadline. Target has Call, CallAsync and Post. Any thread, several at a time.
template <class Target>
class Calls {
 public:
  Calls(Target target, Deadline deadline) : target_(std::move(target)), deadline_(deadline) {}

  // The same calls with another deadline: client.within(500ms).call<int>("add", 2, 40).
  Calls within(Deadline deadline) const { return Calls(target_, deadline); }

  // Waits for the result. Throws what went wrong, see error.h.
  template <class T = void, class... A>
  T call(const std::string& name, const A&... arguments) const {
    MIVOParams request;
    rpc::AddArguments(request, arguments...);
    MIVOParams reply;
    rpc::RequireResult(name, target_.Call(name.c_str(), request, deadline_.milliseconds(), reply), reply);
    return rpc::ReadResult<T>(name, reply);
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
    Send(name, std::move(completion), arguments...);
    return future;
  }

  // The same; `done` is called with a Result<T>, once, on one of the library's pool threads.
  template <class T = void, class Function, class... A>
  void then(Function done, const std::string& name, const A&... arguments) const {
    Send(name, std::make_unique<rpc::FunctionCompletion<T, Function>>(name, std::move(done)), arguments...);
  }

  // Nobody waits, and nobody is told what becomes of it.
  template <class... A>
  void post(const std::string& name, const A&... arguments) const {
    MIVOParams request;
    rpc::AddArguments(request, arguments...);
    target_.Post(name.c_str(), request);
  }

 protected:
  const Target& target() const { return target_; }

 private:
  template <class... A>
  void Send(const std::string& name, std::unique_ptr<CallCompletion> completion, const A&... arguments) const {
    MIVOParams request;
    rpc::AddArguments(request, arguments...);
    target_.CallAsync(name.c_str(), request, deadline_.milliseconds(), std::move(completion));
  }

  Target target_;
  Deadline deadline_;
};

}  // namespace mivo

#endif  // MIVO_RPC_CALLS_H_
