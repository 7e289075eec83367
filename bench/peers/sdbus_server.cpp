// One event loop: a handler that sleeps holds up everybody.
#include <sys/epoll.h>
#include <systemd/sd-event.h>

#include <cstdint>

#include "harness/clock.h"
#include "harness/program.h"
#include "harness/sockets.h"
#include "peers/back_times.h"
#include "peers/sdbus_bus.h"

namespace bench {
namespace {

std::uint64_t posts = 0;
BackTimes times;

int Echo(sd_bus_message* message, void*, sd_bus_error*) {
  const BusBytes bytes = ReadBytes(message);
  sd_bus_message* reply = nullptr;
  CheckBus(sd_bus_message_new_method_return(message, &reply), "no reply");
  const BusMessage owner(reply);
  CheckBus(sd_bus_message_append_array(reply, 'y', bytes.data, bytes.size), "append");
  return sd_bus_send(nullptr, reply, nullptr);
}

std::uint32_t NumberIn(sd_bus_message* message) {
  std::uint32_t number = 0;
  CheckBus(sd_bus_message_read(message, "u", &number), "read");
  return number;
}

int Slow(sd_bus_message* message, void*, sd_bus_error*) {
  Sleep(NumberIn(message) * 1e-6);
  return sd_bus_reply_method_return(message, "");
}

int Post(sd_bus_message*, void*, sd_bus_error*) {
  ++posts;
  return 1;
}

int Posted(sd_bus_message* message, void*, sd_bus_error*) {
  return sd_bus_reply_method_return(message, "t", posts);
}

void CallBack(sd_bus* bus) {
  times.Time([bus] {
    const BusMessage request(NewBusCall(bus, "Call"));
    AppendSmall(request.get());
    sd_bus_message* reply = nullptr;
    CheckBus(sd_bus_call(bus, request.get(), 30'000'000, nullptr, &reply), "call to the client");
    const BusMessage owner(reply);
    Require(IsSmall(reply), "a call to the client came back different");
  });
}

int BackCalls(sd_bus_message* message, void*, sd_bus_error*) {
  const double seconds = NumberIn(message) * 1e-3;
  for (const std::uint64_t begin = NowNs(); SecondsSince(begin) < seconds;)
    CallBack(sd_bus_message_get_bus(message));
  return sd_bus_reply_method_return(message, "");
}

int CallMeBack(sd_bus_message* message, void*, sd_bus_error*) {
  CallBack(sd_bus_message_get_bus(message));
  return 1;
}

int TakeBackTimes(sd_bus_message* message, void*, sd_bus_error*) {
  sd_bus_message* reply = nullptr;
  CheckBus(sd_bus_message_new_method_return(message, &reply), "no reply");
  const BusMessage owner(reply);
  AppendBytes(reply, times.Take());
  return sd_bus_send(nullptr, reply, nullptr);
}

constexpr std::uint64_t kOpen = SD_BUS_VTABLE_UNPRIVILEGED;
const sd_bus_vtable kMethods[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Call", "isay", "isay", AnswerSmall, kOpen),
    SD_BUS_METHOD("Echo", "ay", "ay", Echo, kOpen),
    SD_BUS_METHOD("Slow", "u", "", Slow, kOpen),
    SD_BUS_METHOD("Post", "isay", "", Post, kOpen | SD_BUS_VTABLE_METHOD_NO_REPLY),
    SD_BUS_METHOD("Posted", "", "t", Posted, kOpen),
    SD_BUS_METHOD("BackCalls", "u", "", BackCalls, kOpen),
    SD_BUS_METHOD("CallMeBack", "", "", CallMeBack, kOpen | SD_BUS_VTABLE_METHOD_NO_REPLY),
    SD_BUS_METHOD("BackTimes", "", "ay", TakeBackTimes, kOpen),
    SD_BUS_VTABLE_END,
};

// The peer has gone: the loop has let go of the connection, and so do we.
int OnDisconnected(sd_bus_message* message, void*, sd_bus_error*) {
  sd_bus* const bus = sd_bus_message_get_bus(message);
  sd_bus_detach_event(bus);
  sd_bus_close(bus);
  sd_bus_unref(bus);
  return 1;
}

int OnConnection(sd_event_source* source, int listening, std::uint32_t, void* options) {
  const int connection = Accept(*static_cast<const Options*>(options), listening);
  if (connection < 0) return 0;
  sd_id128_t id{};
  CheckBus(sd_id128_randomize(&id), "id");
  sd_bus* bus = nullptr;
  CheckBus(sd_bus_new(&bus), "no bus");
  CheckBus(sd_bus_set_fd(bus, connection, connection), "descriptor");
  CheckBus(sd_bus_set_server(bus, 1, id), "server");
  CheckBus(sd_bus_set_anonymous(bus, 1), "anonymous");
  CheckBus(sd_bus_set_trusted(bus, 1), "trusted");
  CheckBus(sd_bus_add_object_vtable(bus, nullptr, kBusPath, kBusInterface, kMethods, nullptr), "methods");
  CheckBus(sd_bus_match_signal(bus, nullptr, nullptr, "/org/freedesktop/DBus/Local", "org.freedesktop.DBus.Local",
                               "Disconnected", OnDisconnected, nullptr),
           "match");
  CheckBus(sd_bus_start(bus), "start");
  return sd_bus_attach_event(bus, sd_event_source_get_event(source), 0);
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  using namespace bench;
  return ServerMain(argc, argv, [](const Options& options, const std::function<void()>& listening) {
    const int socket = Listen(options);
    sd_event* loop = nullptr;
    CheckBus(sd_event_new(&loop), "no loop");
    CheckBus(sd_event_add_io(loop, nullptr, socket, EPOLLIN, OnConnection, const_cast<Options*>(&options)), "listen");
    listening();
    CheckBus(sd_event_loop(loop), "loop");
  });
}
