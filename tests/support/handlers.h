// Handlers made from a function object, counting their own deletion.
#ifndef MIVO_TESTS_SUPPORT_HANDLERS_H_
#define MIVO_TESTS_SUPPORT_HANDLERS_H_

#include <mivo/handler.h>

#include <atomic>
#include <functional>
#include <utility>

namespace mivo_test {

// Outlives the handlers that report to it.
struct Deletions {
  std::atomic<int> count{0};
};

class LambdaMethod : public IServerMethod {
 public:
  using Function = std::function<void(int client_id, MIVOParams* request, MIVOParams* reply)>;

  explicit LambdaMethod(Function function, Deletions* deletions = nullptr)
      : function_(std::move(function)), deletions_(deletions) {}
  ~LambdaMethod() override {
    if (deletions_ != nullptr) ++deletions_->count;
  }
  LambdaMethod(const LambdaMethod&) = delete;
  LambdaMethod& operator=(const LambdaMethod&) = delete;

  void OnCall(int client_id, MIVOParams* request, MIVOParams* reply) override {
    if (function_) function_(client_id, request, reply);
  }

 private:
  const Function function_;
  Deletions* const deletions_;
};

class LambdaMethodAll : public IMethodAll {
 public:
  using Function = std::function<void(const char* name, int client_id, MIVOParams* request, MIVOParams* reply)>;

  explicit LambdaMethodAll(Function function, Deletions* deletions = nullptr)
      : function_(std::move(function)), deletions_(deletions) {}
  ~LambdaMethodAll() override {
    if (deletions_ != nullptr) ++deletions_->count;
  }
  LambdaMethodAll(const LambdaMethodAll&) = delete;
  LambdaMethodAll& operator=(const LambdaMethodAll&) = delete;

  void OnCall(const char* name, int client_id, MIVOParams* request, MIVOParams* reply) override {
    if (function_) function_(name, client_id, request, reply);
  }

 private:
  const Function function_;
  Deletions* const deletions_;
};

}  // namespace mivo_test

#endif  // MIVO_TESTS_SUPPORT_HANDLERS_H_
