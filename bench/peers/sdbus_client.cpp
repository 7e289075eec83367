#include <climits>
#include <cstdint>

#include "harness/program.h"
#include "peers/sdbus_bus.h"

namespace bench {
namespace {

constexpr std::uint64_t kTimeoutUs = 60'000'000;

class BusConnection : public Connection {
 public:
  explicit BusConnection(const Options& options) {
    static const sd_bus_vtable methods[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("Call", "isay", "isay", AnswerOne, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END,
    };
    CheckBus(sd_bus_new(&bus_), "no bus");
    CheckBus(sd_bus_set_address(bus_, ("unix:path=" + options.Path()).c_str()), "address");
    CheckBus(sd_bus_set_anonymous(bus_, 1), "anonymous");
    CheckBus(sd_bus_set_trusted(bus_, 1), "trusted");
    CheckBus(sd_bus_add_object_vtable(bus_, nullptr, kBusPath, kBusInterface, methods, this), "methods");
    CheckBus(sd_bus_start(bus_), "cannot connect");
  }
  ~BusConnection() override {
    reply_.Take(nullptr);
    sd_bus_close(bus_);
    sd_bus_unref(bus_);
  }

  void Call() override {
    const BusMessage request(NewBusCall(bus_, "Call"));
    AppendSmall(request.get());
    Exchange(request.get());
    Require(IsSmall(reply_.get()), "a small call came back different");
  }
  void Echo(const std::string& bytes) override {
    const BusMessage request(NewBusCall(bus_, "Echo"));
    AppendBytes(request.get(), bytes);
    Exchange(request.get());
    echoed_ = ReadBytes(reply_.get());
    Require(echoed_.size == bytes.size(), "an echo came back in another size");
  }
  bool EchoedIs(const std::string& bytes) override { return echoed_.Are(bytes); }
  void Slow(unsigned microseconds) override {
    const BusMessage request(NewBusCall(bus_, "Slow"));
    CheckBus(sd_bus_message_append(request.get(), "u", microseconds), "append");
    Exchange(request.get());
  }
  void Post() override {
    const BusMessage request(NewBusCall(bus_, "Post"));
    CheckBus(sd_bus_message_set_expect_reply(request.get(), 0), "no reply");
    AppendSmall(request.get());
    CheckBus(sd_bus_send(bus_, request.get(), nullptr), "a post was not sent");
    // What the socket does not take is queued, up to a limit.
    if (++posts_ % 64 == 0) CheckBus(sd_bus_flush(bus_), "flush");
  }
  std::uint64_t Posted() override {
    const BusMessage request(NewBusCall(bus_, "Posted"));
    Exchange(request.get());
    std::uint64_t count = 0;
    CheckBus(sd_bus_message_read(reply_.get(), "t", &count), "read");
    return count;
  }
  void BackCalls(unsigned milliseconds) override {
    const BusMessage request(NewBusCall(bus_, "BackCalls"));
    CheckBus(sd_bus_message_append(request.get(), "u", milliseconds), "append");
    ended_ = false;
    // A plain call would leave the server's calls unanswered until its own reply is there.
    CheckBus(sd_bus_call_async(bus_, nullptr, request.get(), Ended, this, kTimeoutUs), "call");
    while (!ended_)
      Turn();
  }
  void CallMeBack() override {
    const BusMessage request(NewBusCall(bus_, "CallMeBack"));
    CheckBus(sd_bus_message_set_expect_reply(request.get(), 0), "no reply");
    CheckBus(sd_bus_send(bus_, request.get(), nullptr), "a post was not sent");
    const std::uint64_t before = answered_;
    while (answered_ == before)
      Turn();
  }
  std::string BackTimes() override {
    const BusMessage request(NewBusCall(bus_, "BackTimes"));
    Exchange(request.get());
    const BusBytes times = ReadBytes(reply_.get());
    return {static_cast<const char*>(times.data), times.size};
  }

 private:
  static int AnswerOne(sd_bus_message* message, void* self, sd_bus_error* error) {
    ++static_cast<BusConnection*>(self)->answered_;
    return AnswerSmall(message, nullptr, error);
  }
  static int Ended(sd_bus_message*, void* self, sd_bus_error*) {
    static_cast<BusConnection*>(self)->ended_ = true;
    return 0;
  }
  void Turn() {
    const int done = sd_bus_process(bus_, nullptr);
    CheckBus(done, "process");
    if (done == 0) CheckBus(sd_bus_wait(bus_, kTimeoutUs), "wait");
  }
  void Exchange(sd_bus_message* request) {
    sd_bus_message* reply = nullptr;
    CheckBus(sd_bus_call(bus_, request, kTimeoutUs, nullptr, &reply), "call");
    reply_.Take(reply);
  }

  sd_bus* bus_ = nullptr;
  BusMessage reply_;
  BusBytes echoed_;
  std::uint64_t posts_ = 0;
  std::uint64_t answered_ = 0;
  bool ended_ = false;
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::ClientMain(argc, argv, [](const bench::Options& options) {
    bench::Peer peer;
    peer.connect = [options] { return std::make_unique<bench::BusConnection>(options); };
    if (options.size > std::size_t{64} << 20) {
      const char* const limit = "an array holds at most 64 MiB";
      peer.left_out = {{"echo", limit}, {"echo_large", limit}, {"beside_travel", limit}};
    }
    return peer;
  });
}
