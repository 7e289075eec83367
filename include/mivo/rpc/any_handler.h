// What handlers of every type have in common, compiled once.
#ifndef MIVO_RPC_ANY_HANDLER_H_
#define MIVO_RPC_ANY_HANDLER_H_

#include <mivo/calls.h>
#include <mivo/handler.h>
#include <mivo/params.h>
#include <mivo/rpc/boundary.h>
#include <mivo/rpc/error.h>
#include <mivo/rpc/host.h>
#include <mivo/rpc/message.h>
#include <mivo/rpc/queue.h>

#include <atomic>
#include <chrono>
#include <exception>
#include <future>
#include <memory>
#include <string>
#include <utility>

namespace mivo {

class Handler : public std::enable_shared_from_this<Handler> {
 public:
  Handler(std::string name, std::shared_ptr<rpc::Host> host, About about)
      : name_(std::move(name)), host_(std::move(host)), about_(std::move(about)) {}
  virtual ~Handler() = default;
  Handler(const Handler&) = delete;
  Handler& operator=(const Handler&) = delete;

  const std::string& name() const { return name_; }
  // To be registered under the name.
  virtual IServerMethod* method() = 0;
  // Requests that it has taken and not answered.
  int running() const { return running_.load(); }

  Method Describe() const {
    Method method = Types();
    method.name = name_;
    method.parameter_names = about_.arguments;
    method.text = about_.text;
    return method;
  }

 protected:
  using Clock = std::chrono::steady_clock;

  virtual Method Types() const = 0;
  rpc::Host& host() const { return *host_; }
  void RequireThatItGoesOn() const {
    if (host_->is_stopping) throw Error(kStoppingCode, name_ + ": the peer is about to stop");
  }

  // One request, from here to its answer.
  class Run {
   public:
    Run(Handler& handler, const MIVOParams& request) : handler_(handler), observer_(handler.host_->observer.Get()) {
      ++handler_.running_;
      if (observer_ == nullptr) return;
      begin_ = Clock::now();
      request_bytes_ = static_cast<std::size_t>(request.GetParamasSize());
    }
    ~Run() {
      --handler_.running_;
      if (observer_ == nullptr) return;
      (*observer_)({Observation::Direction::kHandler, handler_.name_, request_bytes_, reply_bytes_,
                    Clock::now() - begin_, error_});
    }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    // Does the work; false when it throws, and that is in the reply.
    template <class Work>
    bool Do(MIVOParams& reply, const Work& work) {
      try {
        work();
        if (observer_ != nullptr) reply_bytes_ = static_cast<std::size_t>(reply.GetParamasSize());
        return true;
      } catch (const WrongType& error) {
        Fail(reply, error.code(), handler_.name_ + ": " + error.what());
      } catch (const Error& error) {
        Fail(reply, error.code(), error.what());
      } catch (const std::exception& error) {
        Fail(reply, kExceptionCode, error.what());
      } catch (...) {
        Fail(reply, kExceptionCode, "unknown exception");
      }
      return false;
    }

    void Fail(MIVOParams& reply, const std::string& code, const std::string& text) {
      reply.Clear();
      rpc::AddError(reply, code, text);
      if (observer_ == nullptr) return;
      error_ = code;
      reply_bytes_ = static_cast<std::size_t>(reply.GetParamasSize());
    }

   private:
    Handler& handler_;
    const Observer* const observer_;
    Clock::time_point begin_;
    std::size_t request_bytes_ = 0;
    std::size_t reply_bytes_ = 0;
    std::string error_;
  };

 private:
  const std::string name_;
  const std::shared_ptr<rpc::Host> host_;
  const About about_;
  std::atomic<int> running_{0};
};

namespace rpc {

// On the library's pool.
class PoolHandler : public Handler, public IServerMethod {
 public:
  using Handler::Handler;
  IServerMethod* method() override { return this; }

  void OnCall(int connection_id, MIVOParams* request, MIVOParams* reply) override {
    Run run(*this, *request);
    run.Do(*reply, [&] {
      RequireThatItGoesOn();
      Serve(connection_id, *request, *reply);
    });
  }

 protected:
  virtual void Serve(int connection_id, const MIVOParams& request, MIVOParams& reply) = 0;
};

// Where its queue says: the thread that reads only takes the arguments.
class QueueHandler : public Handler, public IInOrderMethod {
 public:
  QueueHandler(std::shared_ptr<Queue> queue, std::string name, std::shared_ptr<Host> host, About about)
      : Handler(std::move(name), std::move(host), std::move(about)), queue_(std::move(queue)) {}
  IServerMethod* method() override { return this; }

  void OnCall(int connection_id, MIVOParams* request, MIVOParams* reply) override {
    std::unique_ptr<LateReply> late(ReplyLater());
    if (late != nullptr) return Begin(connection_id, *request, std::move(late));
    // That of a large message is to be there when this returns.
    std::promise<void> done;
    Begin(connection_id, *request, std::make_unique<ReplyHere>(*reply, done));
    done.get_future().wait();
  }

 protected:
  // A call whose arguments were read.
  class ReadCall {
   public:
    virtual ~ReadCall() = default;
    virtual void Serve(MIVOParams& reply) = 0;
  };
  // It does not outlive this.
  virtual std::unique_ptr<ReadCall> Read(int connection_id, const MIVOParams& request) = 0;

 private:
  // One request, until it is answered: at its end at the latest.
  class Work final : public Task {
   public:
    Work(std::shared_ptr<QueueHandler> handler, const MIVOParams& request, std::unique_ptr<LateReply> reply)
        : handler_(std::move(handler)), run_(*handler_, request), reply_(std::move(reply)) {}
    ~Work() override {
      if (reply_ == nullptr) return;
      MIVOParams result;
      run_.Fail(result, kStoppingCode, handler_->name() + ": its thread has ended");
      Answer(result);
    }
    Work(const Work&) = delete;
    Work& operator=(const Work&) = delete;

    bool Read(int connection_id, const MIVOParams& request) {
      MIVOParams result;
      const bool is_fine = run_.Do(result, [&] {
        handler_->RequireThatItGoesOn();
        call_ = handler_->Read(connection_id, request);
      });
      if (!is_fine) Answer(result);
      return is_fine;
    }

    void Run() override {
      const Gate::Pass pass(handler_->host().gate);
      // Its object has ended, and with it whoever has asked.
      if (!pass) return;
      MIVOParams result;
      run_.Do(result, [&] { call_->Serve(result); });
      Answer(result);
    }

   private:
    void Answer(MIVOParams& result) {
      reply_->Send(result);
      reply_.reset();
    }

    const std::shared_ptr<QueueHandler> handler_;
    Handler::Run run_;
    std::unique_ptr<LateReply> reply_;
    std::unique_ptr<ReadCall> call_;
  };

  class ReplyHere final : public LateReply {
   public:
    ReplyHere(MIVOParams& reply, std::promise<void>& done) : reply_(reply), done_(done) {}
    ~ReplyHere() override { done_.set_value(); }
    void Send(MIVOParams& reply) override { *reply_.GetParamas() = *reply.GetParamas(); }

   private:
    MIVOParams& reply_;
    std::promise<void>& done_;
  };

  void Begin(int connection_id, const MIVOParams& request, std::unique_ptr<LateReply> reply) {
    auto work =
        std::make_unique<Work>(std::static_pointer_cast<QueueHandler>(shared_from_this()), request, std::move(reply));
    if (work->Read(connection_id, request)) queue_->Push(work.release());
  }

  const std::shared_ptr<Queue> queue_;
};

// What the library keeps of a handler.
class SharedHandler final : public OfferedHandler {
 public:
  explicit SharedHandler(std::shared_ptr<Handler> handler) : handler_(std::move(handler)) {}
  const char* name() const override { return handler_->name().c_str(); }
  IServerMethod* method() override { return handler_->method(); }
  int running() const override { return handler_->running(); }
  void Describe(MIVOParams& list) const override { Codec<Method>::Write(Slot(list), handler_->Describe()); }

 private:
  const std::shared_ptr<Handler> handler_;
};

}  // namespace rpc
}  // namespace mivo

#endif  // MIVO_RPC_ANY_HANDLER_H_
